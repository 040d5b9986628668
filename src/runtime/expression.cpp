// Expression entry point: classifies option text, runs the evaluator or
// resolves a bare word, and reports the evaluation status.
//
// When one evaluation meets several faults the status set last is the one
// reported; a group's faults count like those of the text around it.
#include "runtime/expression.h"

#include <cmath>
#include <string>

#include "runtime/run.h"
#include "runtime/report.h"
#include "page/page.h"
#include "page/tag.h"

namespace {

bool is_space(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

// The line filed for a status, with the text as the page wrote it.
void report_status(Run& run, std::string_view text) {
  std::string line;
  switch (run.eval_status) {
    case EVAL_DIVISION_BY_ZERO:
      line.append("Error:  Division by zero in equation ").append(text).append(".\n");
      report_diagnostic(run, line, false);
      break;
    case EVAL_ILLEGAL_OPERATOR:
      line.append("Warning:  Illegal operator usage in equation ")
          .append(text)
          .append(".\nUsually caused when an operator is not preceded or followed by a number.\n");
      report_diagnostic(run, line, true);
      break;
    case EVAL_UNMATCHED_PAREN:
      line.append("Warning:  Opening parenthesis does not have a matching closing parenthesis in equation ")
          .append(text)
          .append(".\n");
      report_diagnostic(run, line, true);
      break;
    case EVAL_MISSING_COLON:
      line.append("Warning:  If-Then-Else using ?: logic is missing a ':' in equation ")
          .append(text)
          .append(".\n");
      report_diagnostic(run, line, true);
      break;
    default:
      break;
  }
}

// What a bare word gives: the variable tag's value, a number of the other
// mode's kind taking the number form (so a decimal read in floating-point
// mode keeps only its integer part; integers and other kinds stay as they
// are), or the text when the tag gave nothing.
ValuePtr word_value(ValuePtr v, std::string_view text) {
  if (!v) return value_from_string(std::string(text));
  if ((v->type == VT_NUMBER && number_mode().decimal) || (v->type == VT_DECIMAL && !number_mode().decimal))
    return value_to_number(*v);
  return v;
}

// A bare word is read as a variable tag.  Only an existing variable counts:
// a word that names none stays text, and nothing is created here.
ValuePtr evaluate_word(Run& run, std::string_view text) {
  size_t first = 0;
  while (first < text.size() && is_space(text[first])) first++;
  std::string_view word = text.substr(first);
  if (is_bare_reference(word)) {
    // "<word>" would cut into a tag of that name without options: the tag
    // is made directly.
    const TagHandler* entry = vartable_find(names_for_read(run), word);
    if (!entry || entry->kind != KIND_VARIABLE) return value_from_string(std::string(text));
    ParsedTag tag;
    tag.line = 1;
    tag.is_tag = true;
    tag.name.assign(word);
    return word_value(call_variable_tag(run, tag), text);
  }
  std::string tag_text;
  tag_text.reserve(text.size() - first + 2);
  tag_text.append("<").append(text.substr(first)).append(">");
  Page page = tokenize_page(tag_text, 1);
  if (page.size() == 1 && page.nodes[0].is_tag) {
    ParsedTag tag;
    node_as_tag(page, 0, tag);
    return word_value(call_variable_tag(run, tag), text);
  }
  return value_from_string(std::string(text));
}

}  // namespace

ValuePtr expr_evaluate(Run& run, std::string_view text) {
  if (!expr_is_arithmetic(text)) return evaluate_word(run, text);
  bool blank = true;
  for (char c : text)
    if (!is_space(c)) blank = false;
  if (blank) return value_from_string(std::string(text));
  uint8_t status = EVAL_OK;
  ValuePtr v = number_mode().decimal ? value_from_decimal(expr_eval_decimal(text, &status))
                                     : value_from_number(expr_eval_double(text, &status));
  run.eval_status = status;
  report_status(run, text);
  return v;
}

bool expr_value_as_integer(const Value& v, int64_t* out) {
  switch (v.type) {
    case VT_DECIMAL:
      *out = decimal_to_int(v.decimal);
      return true;
    case VT_NUMBER: {
      double d = std::trunc(v.number);
      // Saturate rather than convert out of range, which is undefined.
      if (std::isnan(d))
        *out = 0;
      else if (d >= 9223372036854775807.0)
        *out = INT64_MAX;
      else if (d <= -9223372036854775808.0)
        *out = INT64_MIN;
      else
        *out = int64_t(d);
      return true;
    }
    default:
      return false;  // integers too: they are not a numeric option's kind
  }
}

bool expr_value_truth(const Value& v, bool* numeric) {
  bool is_number = true, truth = false;
  switch (v.type) {
    case VT_DECIMAL: truth = !decimal_is_zero(v.decimal); break;
    // Exactly 0.000001 and -0.000001 are true.
    case VT_NUMBER: truth = !(v.number > -0.000001 && v.number < 0.000001); break;
    default: is_number = false; break;
  }
  if (numeric) *numeric = is_number;
  return truth;
}
