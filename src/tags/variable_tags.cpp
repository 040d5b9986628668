// CVVAR, CVUNVAR, CVBINARY and CVDIRECT: assign, remove and emit variables,
// and capture a stretch of the page into one.
#include "tags/variable_tags.h"

#include <string>

#include "runtime/run.h"
#include "runtime/output.h"
#include "runtime/report.h"
#include "runtime/expression.h"
#include "runtime/execute.h"
#include "runtime/level4.h"

namespace {

constexpr std::string_view kDirectNotClosed =
    "/CVDIRECT closing tag not found.  Make sure the tag is not embedded.  See the Corvane "
    "documentation for details.";
constexpr std::string_view kDirectNoLocalClose =
    "CVDIRECT requires a matching closing tag (/CVDIRECT) to be contained within the local source "
    "code.  See the Corvane documentation for details.";
constexpr std::string_view kDirectNotOnStack =
    "CVDIRECT is not the immediate open tag on the stack.  The most likely cause is either a "
    "</CVDIRECT> tag with no matching opening tag OR another tag pair was opened after a valid "
    "<CVDIRECT> but a closing tag was not encountered.  See the stack dump for details.";

std::string not_obtained(std::string_view tag) {
  return "An error occurred in obtaining the " + std::string(tag) +
         " variable.  See the diagnostic message above for details.";
}

void assign_text(Value* v, std::string text) {
  ValuePtr s = value_from_string(std::move(text));
  value_assign(v, s.get());
}

// Runs one node of the current context into the capturing body buffer; an
// internal failure stops the page like the main loop does.
void capture_node(Run& run) {
  std::string out;
  if (!process_current_node(run, out)) {
    report_internal_error(run);
    run.stop = true;
    return;
  }
  if (run.abandon) {
    run.body = dyn_new();
    run.abandon = false;
    return;
  }
  body_append(run, out);
}

// <CVDIRECT var=... processtags> ... </CVDIRECT>: the block's output.  The
// closing tag's handler ends the loop by replacing this tag's stack entry.
ValuePtr direct_processed(Run& run, const ParsedTag& tag, const std::string& var) {
  std::string captured;
  if (!run_block_captured(run, capture_node, &captured)) {
    report_error(run, tag, kDirectNoLocalClose);
    return value_new();
  }
  if (run.stop) return value_new();
  // An included page's end may have replaced the name table, so the
  // variable is looked up afresh.
  Value* v = level4_resolve(run, var);
  if (!v) {
    report_error(run, tag, not_obtained("CVDIRECT"));
    return value_new();
  }
  assign_text(v, std::move(captured));
  return value_new();
}

}  // namespace

// <CVVAR var=reference [value=expression]>
ValuePtr cvvar_handler(Run& run, const ParsedTag& tag) {
  const TagOption* var = tag_option_entry(tag, "var");
  if (!var) {
    report_error(run, tag, option_required_message("CVVAR", "var"));
    return value_new();
  }
  ValuePtr result = option_evaluate(run, tag, "value");
  Value* v = option_variable(run, tag, *var);
  if (!v) {
    report_error(run, tag, not_obtained("CVVAR"));
    return value_new();
  }
  if (result) value_assign(v, result.get());
  return value_new();
}

// <CVUNVAR var=reference>: removes the variable, or empties the part of one
// that the reference selected.
ValuePtr cvunvar_handler(Run& run, const ParsedTag& tag) {
  const std::string* var = tag_option(tag, "var");
  if (!var) {
    report_error(run, tag, option_required_message("CVUNVAR", "var"));
    return value_new();
  }
  Value* v = level4_resolve(run, *var);
  if (!v) {
    report_error(run, tag, not_obtained("CVUNVAR"));
    return value_new();
  }
  VarTable& names = names_for_write(run);
  for (const TableEntry& e : names.entries) {
    if (e.entry.kind == KIND_VARIABLE && e.entry.variable.get() == v) {
      std::string name = e.name;
      vartable_remove(names, name);
      return value_new();
    }
  }
  ValuePtr empty = value_new();
  value_assign(v, empty.get());
  return value_new();
}

// <CVBINARY var=reference>: the value's bytes straight into the body.
ValuePtr cvbinary_handler(Run& run, const ParsedTag& tag) {
  const PageContext* ctx = current_context(run);
  if (ctx && ctx->output_mode == OUTPUT_OFF) return value_new();
  const std::string* var = tag_option(tag, "var");
  if (!var) {
    report_error(run, tag, option_required_message("CVBINARY", "var"));
    return value_new();
  }
  Value* v = level4_resolve(run, *var);
  if (!v) {
    report_error(run, tag, "An error occurred in creating/obtaining the CVBINARY variable.  See the "
                      "diagnostic message above for details.");
    return value_new();
  }
  body_append(run, value_text(*v));
  return value_new();
}

// <CVDIRECT var=reference [processtags]> ... </CVDIRECT>
ValuePtr cvdirect_handler(Run& run, const ParsedTag& tag) {
  const std::string* var = tag_option(tag, "var");
  if (!var) {
    report_error(run, tag, option_required_message("CVDIRECT", "var"));
    return value_new();
  }
  Value* v = level4_resolve(run, *var);
  if (!v) {
    report_error(run, tag, not_obtained("CVDIRECT"));
    return value_new();
  }
  if (tag_option(tag, "processtags")) {
    if (!current_context(run) || current_context(run)->current == kNoNode) {
      report_error(run, tag, kDirectNoLocalClose);
      return value_new();
    }
    return direct_processed(run, tag, *var);
  }

  // As written: the nodes up to the matching closing tag, printed and not run.
  PageContext* ctx = current_context(run);
  uint32_t self = ctx ? ctx->current : kNoNode;
  uint32_t end = self != kNoNode ? block_jump(*ctx, self) : kNoNode;
  if (end == kNoNode) {
    report_error(run, tag, kDirectNotClosed);
    return value_new();
  }
  std::string text;
  for (uint32_t n = self + 1; n < end; n++) print_node(run, *ctx->page, n, text);
  assign_text(v, std::move(text));
  // The loop moves on past the closing tag, whose handler never runs.
  ctx->current = end;
  return value_new();
}

// </CVDIRECT>: ends the capture of the innermost CVDIRECT block.
ValuePtr cvdirect_close_handler(Run& run, const ParsedTag& tag) {
  PageContext* ctx = current_context(run);
  if (!ctx || ctx->tag_stack.empty() || !node_is(*ctx, ctx->tag_stack.back(), TAG_CVDIRECT)) {
    report_error(run, tag, kDirectNotOnStack);
    return value_new();
  }
  ctx->tag_stack.back() = ctx->current;
  return value_new();
}

// <CVVAR var=name value=arithmetic>, on the fast path.
bool cvvar_fast(Run& run, FastArgs& args) {
  int var = fast_option(args, "var");
  if (var < 0) return false;
  int value = fast_option(args, "value");
  double number = 0;
  if (value >= 0 && !fast_number(run, args, value, &number)) return false;
  Value* v = fast_variable(run, args, var);
  if (!v) return false;
  if (value >= 0) value_set_number(v, number);
  return true;
}
