// Numbers read from evaluated option texts, and handles read back from the
// variables tags stored them in.
#include "runtime/option_number.h"

#include <cmath>

#include "values/decimal.h"
#include "runtime/expression.h"
#include "runtime/run.h"

bool is_option_number(const Value& v) { return v.type == VT_DECIMAL || v.type == VT_NUMBER; }

ValuePtr evaluate_number_option(Run& run, std::string_view text) {
  ValuePtr v = expr_evaluate(run, text);
  if (!v || !is_option_number(*v)) return nullptr;
  return v;
}

bool evaluate_whole_option(Run& run, std::string_view text, int64_t* out) {
  // Plain digits ("3", the usual index) evaluate to themselves.
  if (!text.empty() && text.size() <= 15 &&
      text.find_first_not_of("0123456789") == std::string_view::npos) {
    int64_t n = 0;
    for (char c : text) n = n * 10 + (c - '0');
    *out = n;
    run.eval_status = EVAL_OK;
    return true;
  }
  ValuePtr v = evaluate_number_option(run, text);
  return v && expr_value_as_integer(*v, out);
}

bool evaluate_real_option(Run& run, std::string_view text, double* out) {
  ValuePtr v = evaluate_number_option(run, text);
  if (!v) return false;
  *out = v->type == VT_DECIMAL ? decimal_to_double(v->decimal) : v->number;
  return true;
}

bool evaluate_condition(Run& run, std::string_view text, bool* truth) {
  ValuePtr v = expr_evaluate(run, text);
  bool numeric = false;
  if (v) *truth = expr_value_truth(*v, &numeric);
  return numeric;
}

bool stored_handle(const Value& v, int64_t* out) {
  if (v.type == VT_INTEGER) {
    *out = v.integer;
    return true;
  }
  // Not a number names no slot (the option readers take it as 0).
  if (v.type == VT_NUMBER && std::isnan(v.number)) return false;
  return expr_value_as_integer(v, out);
}
