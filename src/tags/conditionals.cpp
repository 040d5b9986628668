// CVIF, CVELSEIF, CVELSE and /CVIF: conditional blocks steered through the
// current node and the tag stack, without restructuring the chain.
#include "tags/conditionals.h"

#include <string>

#include "runtime/run.h"
#include "runtime/report.h"
#include "runtime/execute.h"
#include "runtime/expression.h"
#include "runtime/option_number.h"

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

// The /CVIF that closes the structure `from` belongs to, by following the
// links from branch tag to branch tag (see block_jump); the CVELSEIF and
// CVELSE tags met on the way are passed over.
uint32_t closing_cvif(const PageContext& ctx, uint32_t from) {
  uint32_t n = block_jump(ctx, from);
  while (n != kNoNode && !node_is(ctx, n, TAG_CLOSE_CVIF)) n = block_jump(ctx, n);
  return n;
}

// Moves on from a branch tag whose condition has been evaluated: a true one
// remembers the /CVIF on the stack and runs on into the branch; a false one
// moves to the next branch tag.  False, changing nothing, when the
// structure has no /CVIF.
bool branch_move(PageContext* ctx, bool truth) {
  uint32_t here = ctx->current;
  if (truth) {
    uint32_t end = closing_cvif(*ctx, here);
    if (end == kNoNode) return false;
    ctx->tag_stack.push_back(end);
    return true;
  }
  uint32_t next = block_jump(*ctx, here);
  if (next == kNoNode) return false;
  if (node_is(*ctx, next, TAG_CLOSE_CVIF)) {
    // Resume after the /CVIF; its handler does not run.
    ctx->current = next;
    return true;
  }
  // The next CVELSEIF or CVELSE runs next and finds this tag on the stack.
  ctx->tag_stack.push_back(here);
  ctx->stay = true;
  ctx->current = next;
  return true;
}

// Whether branch_move would find its way.
bool branch_can_move(const PageContext& ctx, bool truth) {
  return (truth ? closing_cvif(ctx, ctx.current) : block_jump(ctx, ctx.current)) != kNoNode;
}

// Runs the branch of a CVIF, or of a CVELSEIF whose turn has come.
void evaluate_branch(Run& run, const ParsedTag& tag) {
  PageContext* ctx = current_context(run);
  const std::string* condition = tag_option(tag, "condition");
  if (!condition) {
    report_error(run, tag, option_required_message(tag.name, "condition"));
    return;
  }
  bool numeric = false;
  bool truth = false;
  {
    ValuePtr result = option_evaluate(run, tag, "condition");
    if (result) truth = expr_value_truth(*result, &numeric);
  }
  if (!numeric) {
    report_error(run, tag, tag.name + " requires the 'condition' option to be either a blank string or a number.");
    return;
  }
  if (!branch_move(ctx, truth))
    report_error(run, tag, tag.name + " requires a closing </CVIF> tag.  </CVIF> tag not found.");
}

// A branch's condition worked out on the fast path.
bool fast_truth(Run& run, const FastArgs& args, bool* truth) {
  double n;
  if (!fast_number(run, args, fast_option(args, "condition"), &n)) return false;
  *truth = !(n > -0.000001 && n < 0.000001);
  return true;
}

// What the top of the stack says about a CVELSEIF or CVELSE.
enum class TopKind { kEmpty, kText, kTakenBranch, kUntakenBranch, kOther };

TopKind stack_top_kind(const PageContext& ctx) {
  if (ctx.tag_stack.empty()) return TopKind::kEmpty;
  uint32_t top = ctx.tag_stack.back();
  if (!node_is_tag(ctx, top)) return TopKind::kText;
  if (node_is(ctx, top, TAG_CLOSE_CVIF)) return TopKind::kTakenBranch;
  if (node_is(ctx, top, TAG_CVIF) || node_is(ctx, top, TAG_CVELSEIF)) return TopKind::kUntakenBranch;
  return TopKind::kOther;
}

// A branch has run to this CVELSEIF or CVELSE: leave the structure after
// its /CVIF.
void leave_structure(PageContext* ctx) {
  ctx->current = ctx->tag_stack.back();
  ctx->tag_stack.pop_back();
}

}  // namespace

// <CVIF condition="...">
ValuePtr cvif_handler(Run& run, const ParsedTag& tag) {
  evaluate_branch(run, tag);
  return value_new();
}

// <CVELSEIF condition="...">
ValuePtr cvelseif_handler(Run& run, const ParsedTag& tag) {
  PageContext* ctx = current_context(run);
  switch (stack_top_kind(*ctx)) {
    case TopKind::kEmpty:
      report_error(run, tag, kElseifOutside);
      break;
    case TopKind::kText:
      report_error(run, tag, kElseifNoTag);
      break;
    case TopKind::kOther:
      report_error(run, tag, kElseifAfterOther);
      break;
    case TopKind::kTakenBranch:
      leave_structure(ctx);
      break;
    case TopKind::kUntakenBranch:
      ctx->tag_stack.pop_back();
      evaluate_branch(run, tag);
      break;
  }
  return value_new();
}

// <CVELSE>
ValuePtr cvelse_handler(Run& run, const ParsedTag& tag) {
  PageContext* ctx = current_context(run);
  switch (stack_top_kind(*ctx)) {
    case TopKind::kEmpty:
      report_error(run, tag, kElseOutside);
      break;
    case TopKind::kText:
      report_error(run, tag, kElseNoTag);
      break;
    case TopKind::kOther:
      report_error(run, tag, kElseAfterOther);
      break;
    case TopKind::kTakenBranch:
      leave_structure(ctx);
      break;
    case TopKind::kUntakenBranch: {
      ctx->tag_stack.pop_back();
      uint32_t end = closing_cvif(*ctx, ctx->current);
      if (end == kNoNode) {
        report_error(run, tag, kElseNoClose);
        break;
      }
      ctx->tag_stack.push_back(end);
      break;
    }
  }
  return value_new();
}

bool cvif_fast(Run& run, FastArgs& args) {
  bool truth;
  return fast_truth(run, args, &truth) && branch_move(current_context(run), truth);
}

bool cvelseif_fast(Run& run, FastArgs& args) {
  PageContext* ctx = current_context(run);
  switch (stack_top_kind(*ctx)) {
    case TopKind::kTakenBranch:
      leave_structure(ctx);
      return true;
    case TopKind::kUntakenBranch: {
      bool truth;
      if (!fast_truth(run, args, &truth) || !branch_can_move(*ctx, truth)) return false;
      ctx->tag_stack.pop_back();
      return branch_move(ctx, truth);
    }
    default:
      return false;
  }
}

bool cvelse_fast(Run& run, FastArgs&) {
  PageContext* ctx = current_context(run);
  switch (stack_top_kind(*ctx)) {
    case TopKind::kTakenBranch:
      leave_structure(ctx);
      return true;
    case TopKind::kUntakenBranch: {
      uint32_t end = closing_cvif(*ctx, ctx->current);
      if (end == kNoNode) return false;
      ctx->tag_stack.pop_back();
      ctx->tag_stack.push_back(end);
      return true;
    }
    default:
      return false;
  }
}

bool cvif_close_fast(Run& run, FastArgs&) {
  PageContext* ctx = current_context(run);
  if (ctx->tag_stack.empty() || !node_is(*ctx, ctx->tag_stack.back(), TAG_CLOSE_CVIF)) return false;
  ctx->tag_stack.pop_back();
  return true;
}

// </CVIF>: the taken branch ended without meeting another branch tag.
ValuePtr cvif_close_handler(Run& run, const ParsedTag& tag) {
  PageContext* ctx = current_context(run);
  if (!ctx->tag_stack.empty() && node_is(*ctx, ctx->tag_stack.back(), TAG_CLOSE_CVIF)) {
    ctx->tag_stack.pop_back();
  } else {
    report_error(run, tag, kCloseNotOnTop);
  }
  return value_new();
}
