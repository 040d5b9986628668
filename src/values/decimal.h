// Arbitrary-precision decimal numbers (the engine's decimal mode), on GMP.
//
// A Decimal is `digits / 10^scale`: a signed integer of any size and a count
// of fraction digits.  Addition, subtraction and multiplication are exact;
// division keeps `decimal_precision()` fraction digits (truncated).
#pragma once

#include <gmp.h>

#include <cstdint>
#include <string>
#include <string_view>

struct Decimal {
  mpz_t digits;
  uint32_t scale = 0;

  Decimal();
  ~Decimal();
  Decimal(const Decimal& other);
  Decimal(Decimal&& other) noexcept;
  Decimal& operator=(const Decimal& other);
  Decimal& operator=(Decimal&& other) noexcept;
};

// Fraction digits kept by division and by the transcendental functions.
constexpr uint32_t kDefaultDecimalPrecision = 20;
// Decimal mode and the precision: a run's own, which the run puts in force
// while it runs (set_number_mode); a default one when none is.
struct NumberMode {
  bool decimal = false;
  uint32_t precision = kDefaultDecimalPrecision;
};
void set_number_mode(NumberMode* mode);
NumberMode& number_mode();
inline uint32_t decimal_precision() { return number_mode().precision; }
void decimal_set_precision(uint32_t digits);


// Reads the leading numeric part of `text` (optional white space, sign,
// digits, ".", digits); text without one gives 0.
Decimal decimal_from_text(std::string_view text);
Decimal decimal_from_int(int64_t n);
// The number printed with 15 fraction digits and read back, as the engine
// turns floating-point numbers into decimals.
Decimal decimal_from_double(double d);

// "-" for negatives, integer digits without leading zeros (a single 0), and
// when there are fraction digits, "." and all of them.
std::string decimal_to_text(const Decimal& d);
// Sign and integer digits only ("-12" for -12.75).
std::string decimal_integer_text(const Decimal& d);
// The integer part, truncated towards zero and saturated to 64 bits.
int64_t decimal_to_int(const Decimal& d);
double decimal_to_double(const Decimal& d);

Decimal decimal_add(const Decimal& a, const Decimal& b);
Decimal decimal_sub(const Decimal& a, const Decimal& b);
Decimal decimal_mul(const Decimal& a, const Decimal& b);
// Both return false (and leave `out` alone) when `b` is zero.
bool decimal_div(const Decimal& a, const Decimal& b, Decimal* out);
// Remainder of a truncated division; its sign is that of `a`.
bool decimal_mod(const Decimal& a, const Decimal& b, Decimal* out);
int decimal_compare(const Decimal& a, const Decimal& b);  // -1, 0, 1
bool decimal_is_zero(const Decimal& d);
bool decimal_is_negative(const Decimal& d);
