// Arbitrary-precision decimal numbers: scaled GMP integers.
#include "values/decimal.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <limits>

#include "base/memory_budget.h"

namespace {

// Division scale for the whole run.  Kept below a ceiling so that one
// careless "setprecision" cannot make every quotient eat the memory.
constexpr uint32_t kMaxDecimalPrecision = 100000;
NumberMode default_mode;
NumberMode* current_mode = &default_mode;

// Powers of ten that fit one limb; scaling by them needs no temporary.
constexpr std::array<unsigned long, 20> kPow10 = [] {
  std::array<unsigned long, 20> p{};
  unsigned long v = 1;
  for (auto& x : p) {
    x = v;
    v *= 10;
  }
  return p;
}();

// RAII holder for a scratch integer; mpz_init itself allocates nothing.
struct TempInt {
  mpz_t v;
  TempInt() { mpz_init(v); }
  ~TempInt() { mpz_clear(v); }
  TempInt(const TempInt&) = delete;
  TempInt& operator=(const TempInt&) = delete;
};

// out = in * 10^exp (out may be in).
void scale_up(mpz_t out, const mpz_t in, uint64_t exp) {
  if (exp == 0) {
    mpz_set(out, in);
  } else if (exp < kPow10.size()) {
    mpz_mul_ui(out, in, kPow10[exp]);
  } else {
    TempInt p;
    mpz_ui_pow_ui(p.v, 10, exp);
    mpz_mul(out, in, p.v);
  }
}

// out = in / 10^exp, truncated towards zero (out may be in).
void scale_down(mpz_t out, const mpz_t in, uint64_t exp) {
  if (exp == 0) {
    mpz_set(out, in);
  } else if (exp < kPow10.size()) {
    mpz_tdiv_q_ui(out, in, kPow10[exp]);
  } else {
    TempInt p;
    mpz_ui_pow_ui(p.v, 10, exp);
    mpz_tdiv_q(out, in, p.v);
  }
}

// Brings both operands to the larger scale without touching them: the one
// that needs rescaling is written into `tmp`.  Returns the common scale;
// `pa`/`pb` point at the integers holding the aligned values.
uint32_t align(const Decimal& a, const Decimal& b, TempInt& tmp,
               const __mpz_struct** pa, const __mpz_struct** pb) {
  *pa = a.digits;
  *pb = b.digits;
  if (a.scale < b.scale) {
    scale_up(tmp.v, a.digits, b.scale - a.scale);
    *pa = tmp.v;
    return b.scale;
  }
  if (b.scale < a.scale) {
    scale_up(tmp.v, b.digits, a.scale - b.scale);
    *pb = tmp.v;
  }
  return a.scale;
}

bool is_space(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

bool is_digit(char c) { return c >= '0' && c <= '9'; }

}  // namespace

Decimal::Decimal() { mpz_init(digits); }

Decimal::~Decimal() { mpz_clear(digits); }

Decimal::Decimal(const Decimal& other) : scale(other.scale) {
  mpz_init_set(digits, other.digits);
}

// A fresh mpz_t owns no limbs, so swapping with one moves without allocating
// and leaves `other` a valid zero.
Decimal::Decimal(Decimal&& other) noexcept : scale(other.scale) {
  mpz_init(digits);
  mpz_swap(digits, other.digits);
  other.scale = 0;
}

Decimal& Decimal::operator=(const Decimal& other) {
  if (this != &other) {
    mpz_set(digits, other.digits);
    scale = other.scale;
  }
  return *this;
}

Decimal& Decimal::operator=(Decimal&& other) noexcept {
  if (this != &other) {
    mpz_swap(digits, other.digits);
    std::swap(scale, other.scale);
  }
  return *this;
}

void set_number_mode(NumberMode* mode) { current_mode = mode ? mode : &default_mode; }

NumberMode& number_mode() { return *current_mode; }

void decimal_set_precision(uint32_t digits) {
  current_mode->precision = std::min(digits, kMaxDecimalPrecision);
}

Decimal decimal_from_text(std::string_view text) {
  Decimal d;
  size_t i = 0, n = text.size();
  while (i < n && is_space(text[i])) ++i;
  bool negative = false;
  if (i < n && (text[i] == '+' || text[i] == '-')) negative = text[i++] == '-';
  size_t int_begin = i;
  while (i < n && is_digit(text[i])) ++i;
  size_t int_end = i;
  size_t frac_begin = i, frac_end = i;
  if (i < n && text[i] == '.') {
    frac_begin = frac_end = ++i;
    while (frac_end < n && is_digit(text[frac_end]) &&
           frac_end - frac_begin < std::numeric_limits<uint32_t>::max()) {
      ++frac_end;
    }
  }
  if (int_begin == int_end && frac_begin == frac_end) return d;  // no number
  d.scale = static_cast<uint32_t>(frac_end - frac_begin);

  // Leading zeros add nothing; short numbers are collected in one word.
  while (int_begin < int_end && text[int_begin] == '0') ++int_begin;
  size_t count = (int_end - int_begin) + (frac_end - frac_begin);
  if (count <= 19) {
    uint64_t v = 0;
    for (size_t k = int_begin; k < int_end; ++k) v = v * 10 + (text[k] - '0');
    for (size_t k = frac_begin; k < frac_end; ++k) v = v * 10 + (text[k] - '0');
    mpz_set_ui(d.digits, v);
  } else {
    std::string all;
    all.reserve(count);
    all.append(text.substr(int_begin, int_end - int_begin));
    all.append(text.substr(frac_begin, frac_end - frac_begin));
    mpz_set_str(d.digits, all.c_str(), 10);
  }
  if (negative) mpz_neg(d.digits, d.digits);
  return d;
}

Decimal decimal_from_int(int64_t n) {
  Decimal d;
  mpz_set_si(d.digits, n);
  return d;
}

Decimal decimal_from_double(double value) {
  if (!std::isfinite(value)) return Decimal();
  // The largest double needs 309 integer digits, a sign, "." and 15 more.
  std::array<char, 400> buf;
  int len = std::snprintf(buf.data(), buf.size(), "%.15f", value);
  if (len <= 0) return Decimal();
  return decimal_from_text(std::string_view(buf.data(), static_cast<size_t>(len)));
}

std::string decimal_to_text(const Decimal& d) {
  // mpz_sizeinbase may count one digit too many, so the real length comes
  // from what mpz_get_str wrote.
  std::string digits(mpz_sizeinbase(d.digits, 10) + 2, '\0');
  mpz_get_str(digits.data(), 10, d.digits);
  size_t len = digits.find('\0');
  bool negative = digits[0] == '-';
  std::string_view mag(digits.data() + negative, len - negative);

  std::string out;
  out.reserve(mag.size() + d.scale + 3);
  if (negative) out.push_back('-');
  if (d.scale == 0) {
    out.append(mag);
    return out;
  }
  if (mag.size() > d.scale) {
    out.append(mag.substr(0, mag.size() - d.scale));
    out.push_back('.');
    out.append(mag.substr(mag.size() - d.scale));
  } else {
    out.append("0.");
    out.append(d.scale - mag.size(), '0');
    out.append(mag);
  }
  return out;
}

// -0.5 has the integer part 0, written without a sign.
std::string decimal_integer_text(const Decimal& d) {
  if (d.scale == 0) return decimal_to_text(d);
  Decimal whole;
  scale_down(whole.digits, d.digits, d.scale);
  return decimal_to_text(whole);
}

int64_t decimal_to_int(const Decimal& d) {
  TempInt whole;
  const __mpz_struct* v = d.digits;
  if (d.scale > 0) {
    scale_down(whole.v, d.digits, d.scale);
    v = whole.v;
  }
  if (mpz_fits_slong_p(v)) return mpz_get_si(v);
  return mpz_sgn(v) < 0 ? std::numeric_limits<int64_t>::min()
                        : std::numeric_limits<int64_t>::max();
}

double decimal_to_double(const Decimal& d) {
  // Below 2^53 with a scale up to 22 both operands are exact doubles, so
  // one IEEE division rounds correctly; the rest goes through strtod,
  // which also rounds correctly.
  if (d.scale <= 22 && mpz_sizeinbase(d.digits, 2) <= 53) {
    double v = mpz_get_d(d.digits);
    if (d.scale == 0) return v;
    static constexpr double kExact10[] = {1e0,  1e1,  1e2,  1e3,  1e4,  1e5,
                                          1e6,  1e7,  1e8,  1e9,  1e10, 1e11,
                                          1e12, 1e13, 1e14, 1e15, 1e16, 1e17,
                                          1e18, 1e19, 1e20, 1e21, 1e22};
    return v / kExact10[d.scale];
  }
  std::string text = decimal_to_text(d);
  return std::strtod(text.c_str(), nullptr);
}

Decimal decimal_add(const Decimal& a, const Decimal& b) {
  Decimal r;
  TempInt tmp;
  const __mpz_struct *pa, *pb;
  r.scale = align(a, b, tmp, &pa, &pb);
  mpz_add(r.digits, pa, pb);
  return r;
}

Decimal decimal_sub(const Decimal& a, const Decimal& b) {
  Decimal r;
  TempInt tmp;
  const __mpz_struct *pa, *pb;
  r.scale = align(a, b, tmp, &pa, &pb);
  mpz_sub(r.digits, pa, pb);
  return r;
}

// The exact product has a.scale + b.scale digits after the point; it keeps
// no more than the precision or the longer operand's scale, cut towards zero.
Decimal decimal_mul(const Decimal& a, const Decimal& b) {
  // The product and GMP's work space, asked of the request's budget first.
  memory_budget_expect(4 * (mpz_size(a.digits) + mpz_size(b.digits)) * sizeof(mp_limb_t));
  Decimal r;
  mpz_mul(r.digits, a.digits, b.digits);
  uint64_t full = uint64_t{a.scale} + b.scale;
  uint32_t keep = std::max({current_mode->precision, a.scale, b.scale});
  if (full > keep) {
    scale_down(r.digits, r.digits, full - keep);
    r.scale = keep;
  } else {
    r.scale = static_cast<uint32_t>(full);
  }
  return r;
}

// The quotient has exactly `precision` fraction digits, cut towards zero:
// a * 10^(p + b.scale - a.scale) / b, the shift going to whichever side
// keeps it non-negative.
bool decimal_div(const Decimal& a, const Decimal& b, Decimal* out) {
  if (mpz_sgn(b.digits) == 0) return false;
  Decimal r;
  int64_t shift = int64_t{current_mode->precision} + b.scale - a.scale;
  if (shift >= 0) {
    scale_up(r.digits, a.digits, static_cast<uint64_t>(shift));
    mpz_tdiv_q(r.digits, r.digits, b.digits);
  } else {
    TempInt divisor;
    scale_up(divisor.v, b.digits, static_cast<uint64_t>(-shift));
    mpz_tdiv_q(r.digits, a.digits, divisor.v);
  }
  r.scale = current_mode->precision;
  *out = std::move(r);
  return true;
}

// a - b * trunc(a / b) with an integer quotient, exact at the larger scale;
// tdiv_r gives the remainder the sign of the dividend.
bool decimal_mod(const Decimal& a, const Decimal& b, Decimal* out) {
  if (mpz_sgn(b.digits) == 0) return false;
  Decimal r;
  TempInt tmp;
  const __mpz_struct *pa, *pb;
  r.scale = align(a, b, tmp, &pa, &pb);
  mpz_tdiv_r(r.digits, pa, pb);
  *out = std::move(r);
  return true;
}

int decimal_compare(const Decimal& a, const Decimal& b) {
  int sa = mpz_sgn(a.digits), sb = mpz_sgn(b.digits);
  if (sa != sb || a.scale == b.scale) {
    int c = sa != sb ? sa - sb : mpz_cmp(a.digits, b.digits);
    return (c > 0) - (c < 0);
  }
  TempInt tmp;
  const __mpz_struct *pa, *pb;
  align(a, b, tmp, &pa, &pb);
  int c = mpz_cmp(pa, pb);
  return (c > 0) - (c < 0);
}

bool decimal_is_zero(const Decimal& d) { return mpz_sgn(d.digits) == 0; }

bool decimal_is_negative(const Decimal& d) { return mpz_sgn(d.digits) < 0; }
