// CV-MATH: operation lookup, option handling, and the floating-point and
// decimal forms of each operation.
#include "functions/cvmath.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "runtime/run.h"
#include "runtime/report.h"
#include "base/random.h"
#include "values/decimal_functions.h"
#include "runtime/expression.h"
#include "runtime/level4.h"
#include "base/nocase.h"
#include "runtime/expression.h"
#include "runtime/level4.h"
#include "base/nocase.h"
#include "runtime/option_number.h"

namespace {

constexpr std::string_view kNotValid =
    "The specified CV-MATH operation is not valid or not supported.  See the Corvane documentation "
    "for details.";
constexpr std::string_view kNeedsDecimal =
    "The specified CV-MATH operation is not valid or not supported (possibly requires the BCMath "
    "engine to be enabled).  See the Corvane documentation for details.";
constexpr std::string_view kRangeError =
    "An internal error in the BCMath engine occurred.  Most likely cause is due to range issues.  "
    "See the Corvane documentation for details.";
constexpr std::string_view kNotNumber =
    "CV-MATH requires the 'value' option to be either a blank string or a number.";
constexpr std::string_view kVarFailed =
    "An error occurred in obtaining the CV-MATH variable.  See the diagnostic message above for "
    "details.";

constexpr double kPi = 3.141592653589793;

// Both: a decimal and a floating-point form.  Decimal: only in decimal mode.
// Special: options of their own, in either mode.  Switch: decimal mode.
enum OperationKind : uint8_t { OP_BOTH, OP_DECIMAL, OP_SPECIAL, OP_DECIMAL_SPECIAL, OP_SWITCH };

enum OperationCode : uint8_t {
  ABS = 0, ARCCOS = 1, ARCCOSH = 2, ARCCOT = 3, ARCCOTH = 4, ARCCSC = 5, ARCCSCH = 6, ARCSEC = 7,
  ARCSECH = 8, ARCSIN = 9, ARCSINH = 10, ARCTAN = 11, ARCTAN2 = 12, ARCTANH = 13, CEIL = 14,
  COS = 15, COSH = 16, COT = 17, COTH = 18, CSC = 19, CSCH = 20, DEG2RAD = 21, DISABLE = 22,
  ENABLE = 23, EXP = 24, FACTORIAL = 25, FLOOR = 26, LDEXP = 27, LOG10 = 28, LOGE = 29, LOGN = 30,
  BASECONVERT = 31, NCR = 36, NPR = 37, PI = 38, POLAR2RECT = 39, POW = 40, POW10 = 41,
  RAD2DEG = 42, RAND = 43, RECT2POLAR = 44, ROUND = 45, SEC = 46, SECH = 47, SETPRECISION = 48,
  SIN = 49, SINH = 50, SQRT = 51, TAN = 53, TANH = 54,
};

struct Operation {
  std::string_view name;  // lower case
  uint8_t code;
  uint8_t kind;
};

// Sorted by name for the binary search ("baseconvert" keeps its code 31
// but sorts after the "arc" names).
constexpr Operation kOperations[] = {
    {"abs", ABS, OP_BOTH},           {"arccos", ARCCOS, OP_BOTH},
    {"arccosh", ARCCOSH, OP_DECIMAL}, {"arccot", ARCCOT, OP_DECIMAL},
    {"arccoth", ARCCOTH, OP_DECIMAL}, {"arccsc", ARCCSC, OP_DECIMAL},
    {"arccsch", ARCCSCH, OP_DECIMAL}, {"arcsec", ARCSEC, OP_DECIMAL},
    {"arcsech", ARCSECH, OP_DECIMAL}, {"arcsin", ARCSIN, OP_BOTH},
    {"arcsinh", ARCSINH, OP_DECIMAL}, {"arctan", ARCTAN, OP_BOTH},
    {"arctan2", ARCTAN2, OP_SPECIAL}, {"arctanh", ARCTANH, OP_DECIMAL},
    {"baseconvert", BASECONVERT, OP_DECIMAL_SPECIAL},
    {"ceil", CEIL, OP_BOTH},          {"cos", COS, OP_BOTH},
    {"cosh", COSH, OP_BOTH},          {"cot", COT, OP_DECIMAL},
    {"coth", COTH, OP_DECIMAL},       {"csc", CSC, OP_DECIMAL},
    {"csch", CSCH, OP_DECIMAL},       {"deg2rad", DEG2RAD, OP_SPECIAL},
    {"disable", DISABLE, OP_SWITCH},  {"enable", ENABLE, OP_SWITCH},
    {"exp", EXP, OP_BOTH},            {"factorial", FACTORIAL, OP_DECIMAL},
    {"floor", FLOOR, OP_BOTH},        {"ldexp", LDEXP, OP_SPECIAL},
    {"log10", LOG10, OP_BOTH},        {"loge", LOGE, OP_BOTH},
    {"logn", LOGN, OP_SPECIAL},       {"ncr", NCR, OP_DECIMAL_SPECIAL},
    {"npr", NPR, OP_DECIMAL_SPECIAL}, {"pi", PI, OP_SPECIAL},
    {"polar2rect", POLAR2RECT, OP_DECIMAL_SPECIAL},
    {"pow", POW, OP_SPECIAL},         {"pow10", POW10, OP_DECIMAL},
    {"rad2deg", RAD2DEG, OP_SPECIAL}, {"rand", RAND, OP_SPECIAL},
    {"rect2polar", RECT2POLAR, OP_DECIMAL_SPECIAL},
    {"round", ROUND, OP_SPECIAL},     {"sec", SEC, OP_DECIMAL},
    {"sech", SECH, OP_DECIMAL},       {"setprecision", SETPRECISION, OP_DECIMAL_SPECIAL},
    {"sin", SIN, OP_BOTH},            {"sinh", SINH, OP_BOTH},
    {"sqrt", SQRT, OP_BOTH},          {"tan", TAN, OP_BOTH},
    {"tanh", TANH, OP_BOTH},
};
static_assert(std::size(kOperations) == 50);

int compare_name(std::string_view a, std::string_view b) {
  size_t n = std::min(a.size(), b.size());
  for (size_t i = 0; i < n; ++i) {
    unsigned char x = fold_upper(static_cast<unsigned char>(a[i]));
    unsigned char y = fold_upper(static_cast<unsigned char>(b[i]));
    if (x != y) return x < y ? -1 : 1;
  }
  return a.size() == b.size() ? 0 : (a.size() < b.size() ? -1 : 1);
}

const Operation* find_operation(std::string_view name) {
  auto it = std::lower_bound(std::begin(kOperations), std::end(kOperations), name,
                             [](const Operation& op, std::string_view key) {
                               return compare_name(op.name, key) < 0;
                             });
  if (it == std::end(kOperations) || compare_name(it->name, name) != 0) return nullptr;
  return it;
}

// Evaluates a numeric option.  Null after a report when the option is
// missing or not a number (an integer is not one), or when a tag run by the
// evaluation has stopped the page.
ValuePtr read_number(Run& run, const ParsedTag& tag, std::string_view option) {
  const std::string* text = tag_option(tag, option);
  if (!text) {
    report_error(run, tag, option_required_message("CV-MATH", option));
    return nullptr;
  }
  ValuePtr v = evaluate_number_option(run, *text);
  if (run.stop) return nullptr;
  if (!v) {
    report_error(run, tag, kNotNumber);
    return nullptr;
  }
  return v;
}

// Two operands of one kind: both decimal or both floating point.
bool same_kind(Run& run, const ParsedTag& tag, const Value& a, const Value& b) {
  if (a.type == b.type) return true;
  report_error(run, tag, kNotNumber);
  return false;
}

// Reads an operand that only decimal mode has; a floating-point value is
// refused like any other non-number.
ValuePtr read_decimal(Run& run, const ParsedTag& tag, std::string_view option) {
  ValuePtr v = read_number(run, tag, option);
  if (v && v->type != VT_DECIMAL) {
    report_error(run, tag, kNotNumber);
    return nullptr;
  }
  return v;
}

int64_t integer_part(const Value& v) {
  int64_t n = 0;
  expr_value_as_integer(v, &n);
  return n;
}

double float_function(uint8_t code, double x) {
  switch (code) {
    case ABS: return std::fabs(x);
    case ARCCOS: return std::acos(x);
    case ARCSIN: return std::asin(x);
    case ARCTAN: return std::atan(x);
    case CEIL: return std::ceil(x);
    case COS: return std::cos(x);
    case COSH: return std::cosh(x);
    case EXP: return std::exp(x);
    case FLOOR: return std::floor(x);
    case LOG10: return std::log10(x);
    case LOGE: return std::log(x);
    case SIN: return std::sin(x);
    case SINH: return std::sinh(x);
    case SQRT: return std::sqrt(x);
    case TAN: return std::tan(x);
    case TANH: return std::tanh(x);
    default: return x;
  }
}

bool decimal_operation(uint8_t code, const Decimal& x, Decimal* out) {
  switch (code) {
    case ABS: *out = decimal_abs(x); return true;
    case CEIL: *out = decimal_ceil(x); return true;
    case FLOOR: *out = decimal_floor(x); return true;
    case FACTORIAL: return decimal_factorial(x, out);
    default: break;
  }
  static constexpr std::pair<uint8_t, DecimalFunction> kFunctions[] = {
      {ARCCOS, DF_ARCCOS}, {ARCCOSH, DF_ARCCOSH}, {ARCCOT, DF_ARCCOT}, {ARCCOTH, DF_ARCCOTH},
      {ARCCSC, DF_ARCCSC}, {ARCCSCH, DF_ARCCSCH}, {ARCSEC, DF_ARCSEC}, {ARCSECH, DF_ARCSECH},
      {ARCSIN, DF_ARCSIN}, {ARCSINH, DF_ARCSINH}, {ARCTAN, DF_ARCTAN}, {ARCTANH, DF_ARCTANH},
      {COS, DF_COS},       {COSH, DF_COSH},       {COT, DF_COT},       {COTH, DF_COTH},
      {CSC, DF_CSC},       {CSCH, DF_CSCH},       {DEG2RAD, DF_DEG2RAD}, {EXP, DF_EXP},
      {LOG10, DF_LOG10},   {LOGE, DF_LOGE},       {POW10, DF_POW10},   {RAD2DEG, DF_RAD2DEG},
      {SEC, DF_SEC},       {SECH, DF_SECH},       {SIN, DF_SIN},       {SINH, DF_SINH},
      {SQRT, DF_SQRT},     {TAN, DF_TAN},         {TANH, DF_TANH},
  };
  for (const auto& [c, f] : kFunctions)
    if (c == code) return decimal_function(f, x, out);
  return false;
}

// "value" replaced in place by the function of it.
ValuePtr unary(Run& run, const ParsedTag& tag, uint8_t code, bool decimal_only) {
  ValuePtr v = decimal_only ? read_decimal(run, tag, "value") : read_number(run, tag, "value");
  if (!v) return value_new();
  if (v->type == VT_DECIMAL) {
    Decimal result;
    if (!decimal_operation(code, v->decimal, &result)) return report_failure(run, tag, kRangeError);
    v->decimal = std::move(result);
  } else if (code == DEG2RAD) {
    v->number = v->number * kPi / 180;
  } else if (code == RAD2DEG) {
    v->number = v->number * 180 / kPi;
  } else {
    v->number = float_function(code, v->number);
  }
  return v;
}

// The operations of two numbers read in table order: arctan2 (Yvalue,
// Xvalue), ldexp and pow (Xvalue, Yvalue), logn (value, Nvalue).  The
// first operand is replaced by the result.
ValuePtr binary(Run& run, const ParsedTag& tag, uint8_t code, std::string_view first, std::string_view second) {
  ValuePtr a = read_number(run, tag, first);
  if (!a) return value_new();
  ValuePtr b = read_number(run, tag, second);
  if (!b || !same_kind(run, tag, *a, *b)) return value_new();
  if (a->type == VT_NUMBER) {
    double x = a->number, y = b->number;
    switch (code) {
      case ARCTAN2: a->number = std::atan2(x, y); break;
      case LDEXP:
        a->number = std::ldexp(x, static_cast<int>(std::clamp<int64_t>(integer_part(*b), -100000, 100000)));
        break;
      case LOGN: a->number = std::log(x) / std::log(y); break;
      default: a->number = std::pow(x, y); break;
    }
    return a;
  }
  Decimal result;
  bool ok;
  switch (code) {
    case ARCTAN2: ok = decimal_atan2(a->decimal, b->decimal, &result); break;
    case LDEXP: ok = decimal_ldexp(a->decimal, integer_part(*b), &result); break;
    case LOGN: ok = decimal_logn(a->decimal, b->decimal, &result); break;
    default: ok = decimal_pow(a->decimal, b->decimal, &result); break;
  }
  if (!ok) return report_failure(run, tag, kRangeError);
  a->decimal = std::move(result);
  return a;
}

// <CV-MATH operation=ncr|npr Nvalue=n Rvalue=r>
ValuePtr combinatorics(Run& run, const ParsedTag& tag, uint8_t code) {
  ValuePtr n = read_decimal(run, tag, "Nvalue");
  if (!n) return value_new();
  ValuePtr r = read_decimal(run, tag, "Rvalue");
  if (!r) return value_new();
  Decimal result;
  bool ok = code == NCR ? decimal_ncr(n->decimal, r->decimal, &result)
                        : decimal_npr(n->decimal, r->decimal, &result);
  if (!ok) return report_failure(run, tag, kRangeError);
  n->decimal = std::move(result);
  return n;
}

// <CV-MATH operation=round places=n value=x>: floating-point values are
// printed with n decimals and read back; decimals keep n fraction digits.
ValuePtr round_value(Run& run, const ParsedTag& tag) {
  ValuePtr places = read_number(run, tag, "places");
  if (!places) return value_new();
  ValuePtr v = read_number(run, tag, "value");
  if (!v) return value_new();
  int64_t n = std::max<int64_t>(0, integer_part(*places));
  if (v->type == VT_DECIMAL) {
    v->decimal = decimal_round(v->decimal, static_cast<uint32_t>(std::min<int64_t>(n, kMaxDecimalFunctionDigits)));
    return v;
  }
  // No double has digits past the 1074th place.
  int digits = static_cast<int>(std::min<int64_t>(n, 1100));
  int len = std::snprintf(nullptr, 0, "%.*f", digits, v->number);
  std::string text(static_cast<size_t>(len) + 1, '\0');
  std::snprintf(text.data(), text.size(), "%.*f", digits, v->number);
  v->number = std::strtod(text.c_str(), nullptr);
  return v;
}

// <CV-MATH operation=baseconvert [from=b] [to=b] value=digits>: the value
// is taken as written, as its digits may be letters.
ValuePtr base_convert(Run& run, const ParsedTag& tag) {
  int bases[2] = {10, 10};
  const char* names[2] = {"from", "to"};
  for (int i = 0; i < 2; ++i) {
    if (!tag_option(tag, names[i])) continue;
    ValuePtr b = read_number(run, tag, names[i]);
    if (!b) return value_new();
    bases[i] = static_cast<int>(std::clamp<int64_t>(integer_part(*b), 2, 36));
  }
  const std::string* text = tag_option(tag, "value");
  if (!text) return report_failure(run, tag, option_required_message("CV-MATH", "value"));
  std::string out;
  if (!decimal_base_convert(*text, bases[0], bases[1], &out)) return report_failure(run, tag, kNotNumber);
  return value_from_string(std::move(out));
}

// <CV-MATH operation=polar2rect var=v Radius=r Angle=a> stores the list
// [x, y]; <CV-MATH operation=rect2polar var=v Xvalue=x Yvalue=y> stores
// [radius, angle], the angle in (-pi, pi].
ValuePtr coordinates(Run& run, const ParsedTag& tag, uint8_t code) {
  const std::string* var = tag_option(tag, "var");
  if (!var) return report_failure(run, tag, option_required_message("CV-MATH", "var"));
  if (!level4_resolve(run, *var)) return report_failure(run, tag, kVarFailed);
  bool to_rect = code == POLAR2RECT;
  ValuePtr a = read_decimal(run, tag, to_rect ? "Radius" : "Xvalue");
  if (!a) return value_new();
  ValuePtr b = read_decimal(run, tag, to_rect ? "Angle" : "Yvalue");
  if (!b) return value_new();
  Decimal first, second;
  bool ok = to_rect ? decimal_polar_to_rect(a->decimal, b->decimal, &first, &second)
                    : decimal_rect_to_polar(a->decimal, b->decimal, &first, &second);
  if (!ok) return report_failure(run, tag, kRangeError);
  ValuePtr list = value_new();
  value_set_type(*list, VT_LIST);
  list->list.push_back(value_from_decimal(std::move(first)));
  list->list.push_back(value_from_decimal(std::move(second)));
  // The evaluations may have run tags that changed the variables, so the
  // reference is resolved afresh for the store.
  Value* target = level4_resolve(run, *var);
  if (!target) return report_failure(run, tag, kVarFailed);
  value_assign(target, list.get());
  return value_new();
}

ValuePtr special(Run& run, const ParsedTag& tag, uint8_t code) {
  switch (code) {
    case PI:
      if (!number_mode().decimal) return value_from_number(kPi);
      {
        Decimal pi;
        if (!decimal_pi(&pi)) return report_failure(run, tag, kRangeError);
        return value_from_decimal(std::move(pi));
      }
    case RAND: return value_from_number(static_cast<double>(random_next(run.random)));
    case DEG2RAD:
    case RAD2DEG: return unary(run, tag, code, false);
    case ARCTAN2: return binary(run, tag, code, "Yvalue", "Xvalue");
    case LOGN: return binary(run, tag, code, "value", "Nvalue");
    case LDEXP:
    case POW: return binary(run, tag, code, "Xvalue", "Yvalue");
    case ROUND: return round_value(run, tag);
    case BASECONVERT: return base_convert(run, tag);
    case NCR:
    case NPR: return combinatorics(run, tag, code);
    case POLAR2RECT:
    case RECT2POLAR: return coordinates(run, tag, code);
    case SETPRECISION: {
      ValuePtr v = read_decimal(run, tag, "value");
      if (!v) return value_new();
      // The decimal engine keeps at most 100000 fraction digits.
      int64_t digits = std::clamp<int64_t>(integer_part(*v), 0, kMaxDecimalFunctionDigits);
      decimal_set_precision(static_cast<uint32_t>(digits));
      return value_new();
    }
    default: return report_failure(run, tag, kNotValid);
  }
}

}  // namespace

int cvmath_operation_code(std::string_view name) {
  const Operation* op = find_operation(name);
  return op ? op->code : -1;
}

// <CV-MATH operation=name [value=x] [Xvalue= Yvalue= Nvalue= Rvalue= Radius=
// Angle= places= from= to= var=]>
ValuePtr cvmath_handler(Run& run, const ParsedTag& tag) {
  const std::string* name = tag_option(tag, "operation");
  if (!name) return report_failure(run, tag, option_required_message("CV-MATH", "operation"));
  const Operation* op = find_operation(without_white_space(*name));
  if (!op) return report_failure(run, tag, kNotValid);
  if ((op->kind == OP_DECIMAL || op->kind == OP_DECIMAL_SPECIAL) && !number_mode().decimal)
    return report_failure(run, tag, kNeedsDecimal);
  switch (op->kind) {
    case OP_SWITCH:
      number_mode().decimal = op->code == ENABLE ? 1 : 0;
      return value_new();
    case OP_BOTH:
    case OP_DECIMAL: return unary(run, tag, op->code, op->kind == OP_DECIMAL);
    default: return special(run, tag, op->code);
  }
}
