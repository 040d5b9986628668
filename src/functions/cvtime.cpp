// CV-TIME: option checks and the three uses of the tag (now, format, parse).
#include "functions/cvtime.h"

#include <string>

#include "runtime/run.h"
#include "runtime/report.h"
#include "base/dates.h"
#include "values/decimal.h"
#include "runtime/expression.h"
#include "runtime/level4.h"
#include "base/nocase.h"
#include "runtime/run.h"
#include "runtime/report.h"
#include "base/dates.h"
#include "runtime/level4.h"
#include "base/nocase.h"
#include "runtime/option_number.h"

namespace {

constexpr std::string_view kTimeframe =
    "CV-TIME requires the 'timeframe' option to be 'GMT' or 'local'.  See the Corvane documentation for details.";
constexpr std::string_view kNotNumber = "CV-TIME requires the 'value' option to be either a blank string or a number.";
constexpr std::string_view kBadSerial =
    "CV-TIME requires 'var' to be a valid ODBC-compliant number.  See the Corvane documentation for details.";
constexpr std::string_view kNotObtained =
    "An error occurred in obtaining the CV-TIME variable.  See the diagnostic message above for details.";

}  // namespace

ValuePtr cvtime_handler(Run& run, const ParsedTag& tag) {
  bool local = false;
  if (const std::string* frame = tag_option(tag, "timeframe")) {
    std::string word = without_white_space(*frame);
    if (equals_nocase(word, "local")) local = true;
    else if (!equals_nocase(word, "GMT")) return report_failure(run, tag, kTimeframe);
  }
  const std::string* var = tag_option(tag, "var");
  const std::string* value = tag_option(tag, "value");
  const std::string* format = tag_option(tag, "format");

  if (!var) {
    if (!value) return value_from_number(date_now());
    if (!format) return report_failure(run, tag, option_required_message("CV-TIME", "format"));
    // A decimal serial is read through its text, its fraction kept.
    double serial = 0;
    bool number = evaluate_real_option(run, *value, &serial);
    if (run.stop) return value_new();
    if (!number) return report_failure(run, tag, kNotNumber);
    std::optional<std::string> text = date_format(serial, local, *format);
    if (!text) return report_failure(run, tag, kBadSerial);
    return value_from_string(std::move(*text));
  }

  Value* source = level4_resolve(run, *var);
  if (!source) return report_failure(run, tag, kNotObtained);
  // Read before anything else can move the variable.
  std::string text = value_text(*source);
  if (!format) return report_failure(run, tag, option_required_message("CV-TIME", "format"));
  return value_from_number(date_parse(text, local, *format));
}
