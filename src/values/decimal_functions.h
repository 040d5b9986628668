// The decimal engine's functions beyond arithmetic: transcendental functions
// on MPFR, exact integer functions, rounding and base conversion.
//
// Computed results carry exactly decimal_precision() fraction digits,
// rounded half away from zero from a value computed with guard digits.
// Every function that can fail returns false and leaves `out` alone: an
// argument outside the domain, or a result beyond the size limit below.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "values/decimal.h"

// No argument or result may have more integer digits than this, and no
// rounding more fraction digits: it bounds what one call can cost.
constexpr uint32_t kMaxDecimalFunctionDigits = 100000;

// One-argument functions computed through MPFR.
enum DecimalFunction : uint8_t {
  DF_ARCCOS, DF_ARCCOSH, DF_ARCCOT, DF_ARCCOTH, DF_ARCCSC, DF_ARCCSCH,
  DF_ARCSEC, DF_ARCSECH, DF_ARCSIN, DF_ARCSINH, DF_ARCTAN, DF_ARCTANH,
  DF_COS, DF_COSH, DF_COT, DF_COTH, DF_CSC, DF_CSCH, DF_DEG2RAD, DF_EXP,
  DF_LOG10, DF_LOGE, DF_POW10, DF_RAD2DEG, DF_SEC, DF_SECH, DF_SIN,
  DF_SINH, DF_SQRT, DF_TAN, DF_TANH,
};

// The reciprocal functions are those of 1/x (cot = 1/tan ...); the inverse
// ones invert them (arcsec x = arccos 1/x ...), except arccot x, which is
// pi/2 - arctan x so that it is continuous at 0 with values in (0, pi).
bool decimal_function(DecimalFunction f, const Decimal& x, Decimal* out);
bool decimal_pi(Decimal* out);
// The angle of the point (x, y), in (-pi, pi]; atan2(0, 0) is 0.
bool decimal_atan2(const Decimal& y, const Decimal& x, Decimal* out);
bool decimal_pow(const Decimal& x, const Decimal& y, Decimal* out);
// log(x) / log(base); fails for x <= 0, base <= 0 and base 1.
bool decimal_logn(const Decimal& x, const Decimal& base, Decimal* out);
// x * 2^exponent.
bool decimal_ldexp(const Decimal& x, int64_t exponent, Decimal* out);
bool decimal_polar_to_rect(const Decimal& radius, const Decimal& angle, Decimal* x, Decimal* y);
bool decimal_rect_to_polar(const Decimal& x, const Decimal& y, Decimal* radius, Decimal* angle);

// Exact integer functions of non-negative whole numbers (a fraction of
// zeros is allowed), with integer results; they fail for negative or
// fractional arguments and for results of more than the digit limit.
// nPr and nCr of r > n are 0.
bool decimal_factorial(const Decimal& n, Decimal* out);
bool decimal_npr(const Decimal& n, const Decimal& r, Decimal* out);
bool decimal_ncr(const Decimal& n, const Decimal& r, Decimal* out);

// Exact: abs keeps the scale; floor and ceil give whole numbers (scale 0).
Decimal decimal_abs(const Decimal& x);
Decimal decimal_floor(const Decimal& x);
Decimal decimal_ceil(const Decimal& x);
// `places` fraction digits (at most the digit limit), half away from zero;
// a shorter fraction is padded with zeros.
Decimal decimal_round(const Decimal& x, uint32_t places);

// Converts "[-]digits[.digits]" (white space around it allowed, letters of
// either case for digits above 9, an empty text meaning 0) from base `from`
// to base `to` (both 2..36).  The fraction is cut after decimal_precision()
// digits of the new base and its trailing zeros dropped; letters come out
// in upper case.  False for a digit that the base does not have.
bool decimal_base_convert(std::string_view text, int from, int to, std::string* out);
