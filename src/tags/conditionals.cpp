// CVIF, CVELSEIF, CVELSE and /CVIF: conditional blocks steered through the
// current node and the tag stack, without restructuring the chain.
#include "tags/conditionals.h"

#include <string>

#include "engine/engine.h"
#include "engine/report.h"
#include "values/option_number.h"

namespace {

const char kElseifOutside[] =
    "CVELSEIF encountered outside of the <CVIF><CVELSEIF><CVELSE></CVIF> tag structure.  See the "
    "Corvane documentation for details.";
const char kElseifNoTag[] = "CVELSEIF was found, but there is no immediate tag on the stack.";
const char kElseifAfterOther[] =
    "CVELSEIF found after another tag outside of the <CVIF><CVELSEIF><CVELSE></CVIF> tag "
    "structure.  See the Corvane documentation for details.";
const char kElseOutside[] =
    "CVELSE encountered outside of the <CVIF><CVELSEIF><CVELSE></CVIF> tag structure.  See the "
    "Corvane documentation for details.";
const char kElseNoTag[] = "CVELSE was found, but there is no immediate tag on the stack.";
const char kElseAfterOther[] =
    "CVELSE found after another tag outside of the <CVIF><CVELSEIF><CVELSE></CVIF> tag structure.  "
    "See the Corvane documentation for details.";
const char kElseNoClose[] = "CVELSE requires a closing </CVIF> tag.  </CVIF> tag not found.";
const char kCloseNotOnTop[] =
    "</CVIF> is not the immediate tag on the stack.  The most likely cause is either a </CVIF> tag "
    "with no matching opening tag OR another tag pair was opened after a valid <CVIF> but a "
    "closing tag was not encountered.  See the stack dump for details.";

bool is_branch_tag(const ParsedTag* node) {
  return tag_is(node, "CVELSEIF") || tag_is(node, "CVELSE") || tag_is(node, "/CVIF");
}

// The next CVELSEIF, CVELSE or /CVIF at the same nesting level after `from`
// (a CVIF, CVELSEIF or CVELSE node); null when the chain ends first.  Every
// such node is linked to the next one once and the link is remembered, so a
// loop that runs a CVIF on every pass walks its body only the first time.
const ParsedTag* next_branch(const ParsedTag* from) {
  if (from->block_end_known) return from->block_end;
  const ParsedTag* found = nullptr;
  unsigned depth = 0;
  for (const ParsedTag* n = from->next; n; n = n->next) {
    if (!n->is_tag) continue;
    if (tag_is(n, "CVIF")) {
      ++depth;
    } else if (depth > 0) {
      if (tag_is(n, "/CVIF")) --depth;
    } else if (is_branch_tag(n)) {
      found = n;
      break;
    }
  }
  from->block_end = found;
  from->block_end_known = true;
  return found;
}

// The /CVIF that closes the structure `from` belongs to, by following the
// branch links; the CVELSEIF and CVELSE tags met on the way are passed over.
const ParsedTag* closing_cvif(const ParsedTag* from) {
  const ParsedTag* n = next_branch(from);
  while (n && !tag_is(n, "/CVIF")) n = next_branch(n);
  return n;
}

// Runs the branch of a CVIF, or of a CVELSEIF whose turn has come: a true
// condition remembers the /CVIF on the stack and runs on into the branch; a
// false one moves to the next branch tag.
void evaluate_branch(const ParsedTag& tag) {
  PageContext* ctx = current_context();
  const std::string* condition = tag_option(tag, "condition");
  if (!condition) {
    report_error(tag, option_required_message(tag.name, "condition"));
    return;
  }
  bool truth = false;
  if (!evaluate_condition(*condition, &truth)) {
    report_error(tag, tag.name + " requires the 'condition' option to be either a blank string or a number.");
    return;
  }
  const ParsedTag* here = ctx->current_node;
  const std::string no_close = tag.name + " requires a closing </CVIF> tag.  </CVIF> tag not found.";
  if (truth) {
    const ParsedTag* end = closing_cvif(here);
    if (!end) {
      report_error(tag, no_close);
      return;
    }
    ctx->tag_stack.push_back(end);
    return;
  }
  const ParsedTag* next = next_branch(here);
  if (!next) {
    report_error(tag, no_close);
    return;
  }
  if (tag_is(next, "/CVIF")) {
    // Resume after the /CVIF; its handler does not run.
    ctx->current_node = next;
    return;
  }
  // The next CVELSEIF or CVELSE runs next and finds this tag on the stack.
  ctx->tag_stack.push_back(here);
  ctx->stay = true;
  ctx->current_node = next;
}

// What the top of the stack says about a CVELSEIF or CVELSE.
enum class TopKind { kEmpty, kText, kTakenBranch, kUntakenBranch, kOther };

TopKind stack_top_kind(const PageContext& ctx) {
  if (ctx.tag_stack.empty()) return TopKind::kEmpty;
  const ParsedTag* top = ctx.tag_stack.back();
  if (!top->is_tag) return TopKind::kText;
  if (tag_is(top, "/CVIF")) return TopKind::kTakenBranch;
  if (tag_is(top, "CVIF") || tag_is(top, "CVELSEIF")) return TopKind::kUntakenBranch;
  return TopKind::kOther;
}

// A branch has run to this CVELSEIF or CVELSE: leave the structure after
// its /CVIF.
void leave_structure(PageContext* ctx) {
  ctx->current_node = ctx->tag_stack.back();
  ctx->tag_stack.pop_back();
}

}  // namespace

// <CVIF condition="...">
ValuePtr cvif_handler(const ParsedTag& tag) {
  evaluate_branch(tag);
  return value_new();
}

// <CVELSEIF condition="...">
ValuePtr cvelseif_handler(const ParsedTag& tag) {
  PageContext* ctx = current_context();
  switch (stack_top_kind(*ctx)) {
    case TopKind::kEmpty:
      report_error(tag, kElseifOutside);
      break;
    case TopKind::kText:
      report_error(tag, kElseifNoTag);
      break;
    case TopKind::kOther:
      report_error(tag, kElseifAfterOther);
      break;
    case TopKind::kTakenBranch:
      leave_structure(ctx);
      break;
    case TopKind::kUntakenBranch:
      ctx->tag_stack.pop_back();
      evaluate_branch(tag);
      break;
  }
  return value_new();
}

// <CVELSE>
ValuePtr cvelse_handler(const ParsedTag& tag) {
  PageContext* ctx = current_context();
  switch (stack_top_kind(*ctx)) {
    case TopKind::kEmpty:
      report_error(tag, kElseOutside);
      break;
    case TopKind::kText:
      report_error(tag, kElseNoTag);
      break;
    case TopKind::kOther:
      report_error(tag, kElseAfterOther);
      break;
    case TopKind::kTakenBranch:
      leave_structure(ctx);
      break;
    case TopKind::kUntakenBranch: {
      ctx->tag_stack.pop_back();
      const ParsedTag* end = closing_cvif(ctx->current_node);
      if (!end) {
        report_error(tag, kElseNoClose);
        break;
      }
      ctx->tag_stack.push_back(end);
      break;
    }
  }
  return value_new();
}

// </CVIF>: the taken branch ended without meeting another branch tag.
ValuePtr cvif_close_handler(const ParsedTag& tag) {
  PageContext* ctx = current_context();
  if (!ctx->tag_stack.empty() && ctx->tag_stack.back()->is_tag && tag_is(ctx->tag_stack.back(), "/CVIF")) {
    ctx->tag_stack.pop_back();
  } else {
    report_error(tag, kCloseNotOnTop);
  }
  return value_new();
}
