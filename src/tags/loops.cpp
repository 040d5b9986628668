// CVFOR and CVWHILE with their closing tags: loops run by processing the
// opening tag again on every pass, steered through the tag stack.
#include "tags/loops.h"

#include <string>

#include "engine/engine.h"
#include "engine/report.h"
#include "values/level4.h"
#include "values/option_number.h"

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

bool is_tag_named(const ParsedTag* node, std::string_view name) {
  return node && node->is_tag && tag_is(node, name);
}

// Evaluates a condition text; false in `numeric` when the result is not a
// number of either kind.
bool condition_truth(const std::string& text, bool* numeric) {
  bool truth = false;
  *numeric = evaluate_condition(text, &truth);
  return truth;
}

// Evaluates a numeric option ("initial", "increment"); null when the result
// is not a number.
ValuePtr numeric_option(const std::string& text) { return evaluate_number_option(text); }

// The closing tag a closing handler returns from: the opening tag on top of
// the stack becomes the current node again, with the closing tag in its
// place, so the opening tag runs next and sees it was returned to.
bool return_to_opening(std::string_view open_name) {
  PageContext* ctx = current_context();
  if (ctx->tag_stack.empty() || !is_tag_named(ctx->tag_stack.back(), open_name)) return false;
  const ParsedTag* closing = ctx->current_node;
  ctx->current_node = ctx->tag_stack.back();
  ctx->tag_stack.back() = closing;
  ctx->stay = true;
  return true;
}

// The /CVFOR closing the loop opened at `from`, found once per node.
const ParsedTag* cvfor_end(const ParsedTag* from) {
  if (!from->block_end_known) {
    const ParsedTag* found = nullptr;
    unsigned depth = 0;
    for (const ParsedTag* n = from->next; n && !found; n = n->next) {
      if (tag_is(n, "CVFOR")) {
        ++depth;
      } else if (tag_is(n, "/CVFOR")) {
        if (depth == 0) found = n;
        else --depth;
      }
    }
    from->block_end = found;
    from->block_end_known = true;
  }
  return from->block_end;
}

// Where a CVWHILE that is false on arrival resumes: the first /CVWHILE after
// it, or the node right after the first nested CVWHILE.  The walk does not
// balance nested loops; a false outer loop thus resumes inside its own body.
const ParsedTag* cvwhile_skip_target(const ParsedTag* from) {
  if (!from->block_end_known) {
    const ParsedTag* found = nullptr;
    for (const ParsedTag* n = from->next; n; n = n->next) {
      if (!n->is_tag) continue;
      if (tag_is(n, "/CVWHILE")) {
        found = n;
        break;
      }
      if (tag_is(n, "CVWHILE")) {
        found = n->next;
        break;
      }
    }
    from->block_end = found;
    from->block_end_known = true;
  }
  return from->block_end;
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
void cvfor_start(const ParsedTag& tag, PageContext* ctx, const std::string& var_name) {
  const std::string* initial = tag_option(tag, "initial");
  ValuePtr start = initial ? numeric_option(*initial) : nullptr;
  if (initial && !start) {
    report_error(tag, not_numeric_message("CVFOR", "initial"));
    return;
  }
  // Resolved again after the evaluation, which may have touched the table.
  Value* var = level4_resolve(var_name);
  if (!var) {
    report_error(tag, kForNoVariable);
    return;
  }
  if (!start) start = value_to_number(*var);
  value_assign(var, start.get());
  const ParsedTag* end = cvfor_end(ctx->current_node);
  if (!end) {
    report_error(tag, kForNoClose);
    return;
  }
  ctx->tag_stack.push_back(end);
  ctx->tag_stack.push_back(end);
  ctx->stay = true;
}

// Both top entries are the /CVFOR: test the condition.  True runs the body
// with this tag on top of the stack; false resumes after the /CVFOR.
void cvfor_test(const ParsedTag& tag, PageContext* ctx, const std::string& condition) {
  bool numeric = false;
  bool truth = condition_truth(condition, &numeric);
  if (!numeric) {
    report_error(tag, not_numeric_message("CVFOR", "condition"));
    return;
  }
  const ParsedTag* self = ctx->current_node;
  if (!truth) {
    tag_stack_return();
    tag_stack_return();
    ctx->stay = false;
    return;
  }
  tag_stack_return();
  ctx->stay = false;
  ctx->current_node = self;
  ctx->tag_stack.back() = self;
}

// Returned to from the /CVFOR: add the increment, then test again.
void cvfor_step(const ParsedTag& tag, PageContext* ctx, const std::string& var_name) {
  ValuePtr increment;
  if (const std::string* text = tag_option(tag, "increment")) {
    increment = numeric_option(*text);
    if (!increment) {
      report_error(tag, not_numeric_message("CVFOR", "increment"));
      return;
    }
  }
  // Resolved again after the evaluation, which may have touched the table.
  Value* var = level4_resolve(var_name);
  if (!var) {
    report_error(tag, kForNoVariable);
    return;
  }
  ValuePtr current = value_to_number(*var);
  if (!current || !is_option_number(*current)) {
    report_error(tag, not_numeric_message("CVFOR", "var"));
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
ValuePtr cvfor_handler(const ParsedTag& tag) {
  PageContext* ctx = current_context();
  const std::string* var_name = tag_option(tag, "var");
  if (!var_name) {
    report_error(tag, option_required_message("CVFOR", "var"));
    return value_new();
  }
  const std::string* condition = tag_option(tag, "condition");
  if (!condition) {
    report_error(tag, option_required_message("CVFOR", "condition"));
    return value_new();
  }
  if (!level4_resolve(*var_name)) {
    report_error(tag, kForNoVariable);
    return value_new();
  }
  const auto& stack = ctx->tag_stack;
  size_t depth = stack.size();
  bool top_is_close = depth >= 1 && is_tag_named(stack[depth - 1], "/CVFOR");
  bool second_is_close = depth >= 2 && is_tag_named(stack[depth - 2], "/CVFOR");
  if (top_is_close && second_is_close) {
    cvfor_test(tag, ctx, *condition);
  } else if (top_is_close) {
    cvfor_step(tag, ctx, *var_name);
  } else {
    cvfor_start(tag, ctx, *var_name);
  }
  return value_new();
}

// </CVFOR>
ValuePtr cvfor_close_handler(const ParsedTag& tag) {
  if (!return_to_opening("CVFOR")) report_error(tag, kForCloseNotOnTop);
  return value_new();
}

// <CVWHILE condition="...">
ValuePtr cvwhile_handler(const ParsedTag& tag) {
  PageContext* ctx = current_context();
  const std::string* condition = tag_option(tag, "condition");
  if (!condition) {
    report_error(tag, option_required_message("CVWHILE", "condition"));
    return value_new();
  }
  bool numeric = false;
  bool truth = condition_truth(*condition, &numeric);
  if (!numeric) {
    report_error(tag, not_numeric_message("CVWHILE", "condition"));
    return value_new();
  }
  bool returned = !ctx->tag_stack.empty() && is_tag_named(ctx->tag_stack.back(), "/CVWHILE");
  if (truth) {
    if (returned) {
      ctx->tag_stack.back() = ctx->current_node;
    } else {
      ctx->tag_stack.push_back(ctx->current_node);
    }
    return value_new();
  }
  if (returned) {
    tag_stack_return();
    ctx->stay = false;
    return value_new();
  }
  const ParsedTag* target = cvwhile_skip_target(ctx->current_node);
  if (!target) {
    report_error(tag, kWhileNoClose);
    return value_new();
  }
  ctx->current_node = target;
  return value_new();
}

// </CVWHILE>
ValuePtr cvwhile_close_handler(const ParsedTag& tag) {
  if (!return_to_opening("CVWHILE")) report_error(tag, kWhileCloseNotOnTop);
  return value_new();
}
