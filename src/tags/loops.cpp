// CVFOR and CVWHILE with their closing tags: loops run by processing the
// opening tag again on every pass, steered through the tag stack.
#include "tags/loops.h"

#include <string>

#include "runtime/run.h"
#include "runtime/report.h"
#include "runtime/expression.h"
#include "runtime/execute.h"
#include "runtime/level4.h"
#include "runtime/option_number.h"

namespace {

const char kForNoVariable[] =
    "An error occurred in obtaining the CVFOR variable.  See the diagnostic message above for details.";
const char kForNoClose[] =
    "CVFOR requires a matching closing tag (/CVFOR) to be contained within the local source code.  "
    "See the Corvane documentation for details.";
const char kForCloseNotOnTop[] =
    "CVFOR is not the immediate open tag on the stack.  The most likely cause is either a </CVFOR> "
    "tag with no matching opening tag OR another tag pair was opened after a valid <CVFOR> but a "
    "closing tag was not encountered.  See the stack dump for details.";
const char kWhileNoClose[] =
    "CVWHILE requires a matching closing tag (/CVWHILE) to be contained within the local source "
    "code.  See the Corvane documentation for details.";
const char kWhileCloseNotOnTop[] =
    "CVWHILE is not the immediate open tag on the stack.  The most likely cause is either a "
    "</CVWHILE> tag with no matching opening tag OR another tag pair was opened after a valid "
    "<CVWHILE> but a closing tag was not encountered.  See the stack dump for details.";

std::string not_numeric_message(const char* tag, const char* option) {
  return std::string(tag) + " requires the '" + option + "' option to be either a blank string or a number.";
}

// Evaluates the condition; false in `numeric` when the result is not a
// number of either kind.
bool condition_truth(Run& run, const ParsedTag& tag, bool* numeric) {
  *numeric = false;
  ValuePtr result = option_evaluate(run, tag, "condition");
  return result ? expr_value_truth(*result, numeric) : false;
}

// Evaluates a numeric option ("initial", "increment"); null when the result
// is not a number.
ValuePtr numeric_option(Run& run, const ParsedTag& tag, OptionKey name) {
  ValuePtr result = option_evaluate(run, tag, name);
  if (!result || !is_option_number(*result)) return nullptr;
  return result;
}

// The closing tag a closing handler returns from: the opening tag on top of
// the stack becomes the current node again, with the closing tag in its
// place, so the opening tag runs next and sees it was returned to.
bool return_to_opening(Run& run, uint8_t open) {
  PageContext* ctx = current_context(run);
  if (ctx->tag_stack.empty() || !node_is(*ctx, ctx->tag_stack.back(), open)) return false;
  uint32_t closing = ctx->current;
  ctx->current = ctx->tag_stack.back();
  ctx->tag_stack.back() = closing;
  ctx->stay = true;
  return true;
}

// Adds the increment to the loop variable's number (both decimal or floating
// point).  A value of the other numeric kind is converted to the increment's
// kind first: a floating-point value through its 15-decimal text into a
// decimal, a decimal into the nearest floating-point number.  Without an
// increment, one is added in the value's own kind.
ValuePtr step_value(const Value& current, const Value* increment) {
  if (!increment) {
    if (current.type == VT_DECIMAL) return value_from_decimal(decimal_add(current.decimal, decimal_from_int(1)));
    return value_from_number(current.number + 1.0);
  }
  if (increment->type == VT_DECIMAL) {
    Decimal base;
    if (current.type == VT_DECIMAL) {
      base = current.decimal;
    } else {
      base = decimal_from_double(current.number);
    }
    return value_from_decimal(decimal_add(base, increment->decimal));
  }
  double base = current.type == VT_DECIMAL ? decimal_to_double(current.decimal) : current.number;
  return value_from_number(base + increment->number);
}

// First arrival: initialise the variable, find the /CVFOR and stack it
// twice, so the tag is processed again at once in the test phase.
void cvfor_start(Run& run, const ParsedTag& tag, PageContext* ctx, const TagOption& var_name) {
  bool initial = tag_option_entry(tag, "initial") != nullptr;
  ValuePtr start = initial ? numeric_option(run, tag, "initial") : nullptr;
  if (initial && !start) {
    report_error(run, tag, not_numeric_message("CVFOR", "initial"));
    return;
  }
  // Resolved again after the evaluation, which may have touched the table.
  Value* var = option_variable(run, tag, var_name);
  if (!var) {
    report_error(run, tag, kForNoVariable);
    return;
  }
  if (!start) start = value_to_number(*var);
  value_assign(var, start.get());
  uint32_t end = block_jump(*ctx, ctx->current);
  if (end == kNoNode) {
    report_error(run, tag, kForNoClose);
    return;
  }
  ctx->tag_stack.push_back(end);
  ctx->tag_stack.push_back(end);
  ctx->stay = true;
}

// Both top entries are the /CVFOR: test the condition.  True runs the body
// with this tag on top of the stack; false resumes after the /CVFOR.
void cvfor_test(Run& run, const ParsedTag& tag, PageContext* ctx) {
  bool numeric = false;
  bool truth = condition_truth(run, tag, &numeric);
  if (!numeric) {
    report_error(run, tag, not_numeric_message("CVFOR", "condition"));
    return;
  }
  uint32_t self = ctx->current;
  if (!truth) {
    tag_stack_return(run);
    tag_stack_return(run);
    ctx->stay = false;
    return;
  }
  tag_stack_return(run);
  ctx->stay = false;
  ctx->current = self;
  ctx->tag_stack.back() = self;
}

// Returned to from the /CVFOR: add the increment, then test again.
void cvfor_step(Run& run, const ParsedTag& tag, PageContext* ctx, const TagOption& var_name) {
  ValuePtr increment;
  if (tag_option_entry(tag, "increment")) {
    increment = numeric_option(run, tag, "increment");
    if (!increment) {
      report_error(run, tag, not_numeric_message("CVFOR", "increment"));
      return;
    }
  }
  // Resolved again after the evaluation, which may have touched the table.
  Value* var = option_variable(run, tag, var_name);
  if (!var) {
    report_error(run, tag, kForNoVariable);
    return;
  }
  ValuePtr current = value_to_number(*var);
  if (!current || !is_option_number(*current)) {
    report_error(run, tag, not_numeric_message("CVFOR", "var"));
    return;
  }
  ValuePtr next = step_value(*current, increment.get());
  value_assign(var, next.get());
  ctx->tag_stack.push_back(ctx->tag_stack.back());
  ctx->stay = true;
}

}  // namespace

// <CVFOR var="..." initial="..." condition="..." increment="...">
// The phase is read from the top two stack entries: start, test or step.
ValuePtr cvfor_handler(Run& run, const ParsedTag& tag) {
  PageContext* ctx = current_context(run);
  const TagOption* var_name = tag_option_entry(tag, "var");
  if (!var_name) {
    report_error(run, tag, option_required_message("CVFOR", "var"));
    return value_new();
  }
  if (!tag_option_entry(tag, "condition")) {
    report_error(run, tag, option_required_message("CVFOR", "condition"));
    return value_new();
  }
  if (!option_variable(run, tag, *var_name)) {
    report_error(run, tag, kForNoVariable);
    return value_new();
  }
  const auto& stack = ctx->tag_stack;
  size_t depth = stack.size();
  bool top_is_close = depth >= 1 && node_is(*ctx, stack[depth - 1], TAG_CLOSE_CVFOR);
  bool second_is_close = depth >= 2 && node_is(*ctx, stack[depth - 2], TAG_CLOSE_CVFOR);
  if (top_is_close && second_is_close) {
    cvfor_test(run, tag, ctx);
  } else if (top_is_close) {
    cvfor_step(run, tag, ctx, *var_name);
  } else {
    cvfor_start(run, tag, ctx, *var_name);
  }
  return value_new();
}

// </CVFOR>
ValuePtr cvfor_close_handler(Run& run, const ParsedTag& tag) {
  if (!return_to_opening(run, TAG_CVFOR)) report_error(run, tag, kForCloseNotOnTop);
  return value_new();
}

// <CVWHILE condition="...">
ValuePtr cvwhile_handler(Run& run, const ParsedTag& tag) {
  PageContext* ctx = current_context(run);
  if (!tag_option_entry(tag, "condition")) {
    report_error(run, tag, option_required_message("CVWHILE", "condition"));
    return value_new();
  }
  bool numeric = false;
  bool truth = condition_truth(run, tag, &numeric);
  if (!numeric) {
    report_error(run, tag, not_numeric_message("CVWHILE", "condition"));
    return value_new();
  }
  bool returned = !ctx->tag_stack.empty() && node_is(*ctx, ctx->tag_stack.back(), TAG_CLOSE_CVWHILE);
  if (truth) {
    if (returned) {
      ctx->tag_stack.back() = ctx->current;
    } else {
      ctx->tag_stack.push_back(ctx->current);
    }
    return value_new();
  }
  if (returned) {
    tag_stack_return(run);
    ctx->stay = false;
    return value_new();
  }
  uint32_t target = block_jump(*ctx, ctx->current);
  if (target == kNoNode) {
    report_error(run, tag, kWhileNoClose);
    return value_new();
  }
  ctx->current = target;
  return value_new();
}

// </CVWHILE>
ValuePtr cvwhile_close_handler(Run& run, const ParsedTag& tag) {
  if (!return_to_opening(run, TAG_CVWHILE)) report_error(run, tag, kWhileCloseNotOnTop);
  return value_new();
}

// ---------------------------------------------------------------------------
// Fast handlers

bool cvfor_fast(Run& run, FastArgs& args) {
  int var = fast_option(args, "var");
  int condition = fast_option(args, "condition");
  if (var < 0 || condition < 0) return false;
  PageContext* ctx = current_context(run);
  const auto& stack = ctx->tag_stack;
  size_t depth = stack.size();
  bool top_is_close = depth >= 1 && node_is(*ctx, stack[depth - 1], TAG_CLOSE_CVFOR);
  bool second_is_close = depth >= 2 && node_is(*ctx, stack[depth - 2], TAG_CLOSE_CVFOR);
  if (!top_is_close) return false;  // the start: once per loop, on the handler

  if (second_is_close) {
    double n;
    if (!fast_number(run, args, condition, &n) || !fast_variable(run, args, var)) return false;
    uint32_t self = ctx->current;
    if (n > -0.000001 && n < 0.000001) {
      tag_stack_return(run);
      tag_stack_return(run);
      ctx->stay = false;
      return true;
    }
    tag_stack_return(run);
    ctx->stay = false;
    ctx->current = self;
    ctx->tag_stack.back() = self;
    return true;
  }

  // The step, then the test the loop would process this tag again for.
  int increment = fast_option(args, "increment");
  double step = 1;
  if (increment >= 0 && !fast_number(run, args, increment, &step)) return false;
  Value* v = fast_variable(run, args, var);
  if (!v || (v->type != VT_NUMBER && v->type != VT_INTEGER)) return false;
  double base = v->type == VT_NUMBER ? v->number : v->integer;
  value_set_number(v, base + step);
  ctx->tag_stack.push_back(ctx->tag_stack.back());
  // What the loop does next: stay on this tag and process it again.
  ctx->stay = false;
  std::string out;
  process_node(run, *args.page, args.node, out);
  return true;
}

bool cvfor_close_fast(Run& run, FastArgs&) { return return_to_opening(run, TAG_CVFOR); }

bool cvwhile_fast(Run& run, FastArgs& args) {
  double n;
  if (!fast_number(run, args, fast_option(args, "condition"), &n)) return false;
  bool truth = !(n > -0.000001 && n < 0.000001);
  PageContext* ctx = current_context(run);
  bool returned = !ctx->tag_stack.empty() && node_is(*ctx, ctx->tag_stack.back(), TAG_CLOSE_CVWHILE);
  if (truth) {
    if (returned)
      ctx->tag_stack.back() = ctx->current;
    else
      ctx->tag_stack.push_back(ctx->current);
    return true;
  }
  if (returned) {
    tag_stack_return(run);
    ctx->stay = false;
    return true;
  }
  uint32_t target = block_jump(*ctx, ctx->current);
  if (target == kNoNode) return false;
  ctx->current = target;
  return true;
}

bool cvwhile_close_fast(Run& run, FastArgs&) { return return_to_opening(run, TAG_CVWHILE); }
