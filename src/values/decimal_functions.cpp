// The decimal engine's functions: MPFR for the transcendental ones, GMP for
// the exact ones, and the conversions between Decimal and both.
#include "values/decimal_functions.h"

#include <gmp.h>
#include <mpfr.h>

#include <algorithm>
#include <cmath>
#include <limits>

namespace {

constexpr double kLog2Of10 = 3.321928094887362;
// Digits computed beyond the precision, so that rounding the result to
// the precision is right but for results within 1e-10 of a half-way point.
constexpr uint32_t kGuardDigits = 10;
constexpr long kMaxBits = static_cast<long>(kMaxDecimalFunctionDigits * kLog2Of10);

struct TempInt {
  mpz_t v;
  TempInt() { mpz_init(v); }
  ~TempInt() { mpz_clear(v); }
  TempInt(const TempInt&) = delete;
  TempInt& operator=(const TempInt&) = delete;
};

// An MPFR number for the length of one computation.
struct TempFloat {
  mpfr_t v;
  explicit TempFloat(mpfr_prec_t prec) { mpfr_init2(v, prec); }
  ~TempFloat() { mpfr_clear(v); }
  TempFloat(const TempFloat&) = delete;
  TempFloat& operator=(const TempFloat&) = delete;
};

void power_of_ten(mpz_t out, unsigned long n) { mpz_ui_pow_ui(out, 10, n); }

// value / 2^shift, rounded half away from zero (value may be out).
void shift_round(mpz_t out, const mpz_t value, mp_bitcnt_t shift) {
  if (shift == 0) {
    mpz_set(out, value);
    return;
  }
  int sign = mpz_sgn(value);
  TempInt mag;
  mpz_abs(mag.v, value);
  bool round_up = mpz_tstbit(mag.v, shift - 1);
  mpz_tdiv_q_2exp(out, mag.v, shift);
  if (round_up) mpz_add_ui(out, out, 1);
  if (sign < 0) mpz_neg(out, out);
}

// value / divisor (positive), rounded half away from zero.
void divide_round(mpz_t out, const mpz_t value, const mpz_t divisor) {
  TempInt rem, twice;
  mpz_tdiv_qr(out, rem.v, value, divisor);
  mpz_mul_2exp(twice.v, rem.v, 1);
  mpz_abs(twice.v, twice.v);
  if (mpz_cmp(twice.v, divisor) >= 0) {
    if (mpz_sgn(value) < 0)
      mpz_sub_ui(out, out, 1);
    else
      mpz_add_ui(out, out, 1);
  }
}

// Bits of the integer part of d, from above; 0 when |d| < 1.
long integer_bits(const Decimal& d) {
  double bits = static_cast<double>(mpz_sizeinbase(d.digits, 2)) - d.scale * kLog2Of10;
  return bits > 0 ? static_cast<long>(bits) + 2 : 0;
}

bool too_large(const Decimal& d) { return integer_bits(d) > kMaxBits; }

mpfr_prec_t working_bits(uint32_t digits) {
  return static_cast<mpfr_prec_t>((digits + kGuardDigits) * kLog2Of10) + 8;
}

// Arguments are read at twice the working precision (plus their integer
// bits), so that functions steep near a point, such as arccos near 1,
// still get the precision's worth of correct digits.
void load(TempFloat& f, const Decimal& d, mpfr_prec_t prec) {
  mpfr_set_prec(f.v, 2 * prec + integer_bits(d));
  mpfr_set_str(f.v, decimal_to_text(d).c_str(), 10, MPFR_RNDN);
}

// The exact binary value of r rounded to `places` fraction digits.
Decimal to_decimal(mpfr_srcptr r, uint32_t places) {
  Decimal d;
  d.scale = places;
  if (mpfr_zero_p(r)) return d;
  // Below a quarter of the last place it rounds to 0; skip the big shift.
  if (mpfr_get_exp(r) < -static_cast<long>(places * kLog2Of10) - 2) return d;
  TempInt m, p;
  mpfr_exp_t e = mpfr_get_z_2exp(m.v, r);
  power_of_ten(p.v, places);
  mpz_mul(m.v, m.v, p.v);
  if (e >= 0)
    mpz_mul_2exp(d.digits, m.v, static_cast<mp_bitcnt_t>(e));
  else
    shift_round(d.digits, m.v, static_cast<mp_bitcnt_t>(-e));
  return d;
}

// Runs `compute(result, prec)` at the working precision; a result with an
// integer part is computed again with more bits, as large results are as
// much more sensitive to the error of their arguments.  NaN, infinity and
// results beyond the digit limit fail.
template <typename Compute>
bool evaluate(Compute&& compute, Decimal* out) {
  uint32_t places = decimal_precision();
  mpfr_prec_t prec = working_bits(places);
  TempFloat r(prec);
  compute(r.v, prec);
  if (!mpfr_number_p(r.v)) return false;
  if (!mpfr_zero_p(r.v) && mpfr_get_exp(r.v) > 0) {
    mpfr_exp_t e = mpfr_get_exp(r.v);
    if (e > kMaxBits) return false;
    prec += 2 * e;
    mpfr_set_prec(r.v, prec);
    compute(r.v, prec);
    if (!mpfr_number_p(r.v)) return false;
  }
  *out = to_decimal(r.v, places);
  return true;
}

void const_half_pi(mpfr_ptr out, mpfr_prec_t prec) {
  mpfr_set_prec(out, prec);
  mpfr_const_pi(out, MPFR_RNDN);
  mpfr_div_2ui(out, out, 1, MPFR_RNDN);
}

void apply(DecimalFunction f, mpfr_ptr r, mpfr_srcptr a, mpfr_prec_t prec) {
  constexpr mpfr_rnd_t N = MPFR_RNDN;
  TempFloat t(2 * prec), u(2 * prec);
  switch (f) {
    case DF_ARCCOS: mpfr_acos(r, a, N); break;
    case DF_ARCCOSH: mpfr_acosh(r, a, N); break;
    case DF_ARCCOT:
      mpfr_atan(t.v, a, N);
      const_half_pi(u.v, 2 * prec);
      mpfr_sub(r, u.v, t.v, N);
      break;
    case DF_ARCCOTH: mpfr_ui_div(t.v, 1, a, N); mpfr_atanh(r, t.v, N); break;
    case DF_ARCCSC: mpfr_ui_div(t.v, 1, a, N); mpfr_asin(r, t.v, N); break;
    case DF_ARCCSCH: mpfr_ui_div(t.v, 1, a, N); mpfr_asinh(r, t.v, N); break;
    case DF_ARCSEC: mpfr_ui_div(t.v, 1, a, N); mpfr_acos(r, t.v, N); break;
    case DF_ARCSECH: mpfr_ui_div(t.v, 1, a, N); mpfr_acosh(r, t.v, N); break;
    case DF_ARCSIN: mpfr_asin(r, a, N); break;
    case DF_ARCSINH: mpfr_asinh(r, a, N); break;
    case DF_ARCTAN: mpfr_atan(r, a, N); break;
    case DF_ARCTANH: mpfr_atanh(r, a, N); break;
    case DF_COS: mpfr_cos(r, a, N); break;
    case DF_COSH: mpfr_cosh(r, a, N); break;
    case DF_COT: mpfr_cot(r, a, N); break;
    case DF_COTH: mpfr_coth(r, a, N); break;
    case DF_CSC: mpfr_csc(r, a, N); break;
    case DF_CSCH: mpfr_csch(r, a, N); break;
    case DF_DEG2RAD:
      mpfr_const_pi(t.v, N);
      mpfr_mul(t.v, t.v, a, N);
      mpfr_div_ui(r, t.v, 180, N);
      break;
    case DF_EXP: mpfr_exp(r, a, N); break;
    case DF_LOG10: mpfr_log10(r, a, N); break;
    case DF_LOGE: mpfr_log(r, a, N); break;
    case DF_POW10: mpfr_exp10(r, a, N); break;
    case DF_RAD2DEG:
      mpfr_mul_ui(t.v, a, 180, N);
      mpfr_const_pi(u.v, N);
      mpfr_div(r, t.v, u.v, N);
      break;
    case DF_SEC: mpfr_sec(r, a, N); break;
    case DF_SECH: mpfr_sech(r, a, N); break;
    case DF_SIN: mpfr_sin(r, a, N); break;
    case DF_SINH: mpfr_sinh(r, a, N); break;
    case DF_SQRT: mpfr_sqrt(r, a, N); break;
    case DF_TAN: mpfr_tan(r, a, N); break;
    case DF_TANH: mpfr_tanh(r, a, N); break;
    default: mpfr_set_nan(r); break;
  }
}

// A non-negative whole number that fits an unsigned long.
bool whole_number(const Decimal& d, unsigned long* out) {
  if (mpz_sgn(d.digits) < 0 || too_large(d)) return false;
  TempInt p, q, rem;
  power_of_ten(p.v, d.scale);
  mpz_tdiv_qr(q.v, rem.v, d.digits, p.v);
  if (mpz_sgn(rem.v) != 0 || !mpz_fits_ulong_p(q.v)) return false;
  *out = mpz_get_ui(q.v);
  return true;
}

// Digits of n! / (n-r)! (npr) or of that divided by r! (ncr), from above.
double permutation_digits(unsigned long n, unsigned long r, bool choose) {
  double nd = static_cast<double>(n), rd = static_cast<double>(r);
  double digits;
  // lgamma differences lose their accuracy for n this large; r log10 n
  // bounds the result from above.
  if (nd > 1e12)
    digits = rd * std::log10(nd);
  else
    digits = (std::lgamma(nd + 1) - std::lgamma(nd - rd + 1)) / std::log(10.0);
  if (choose && nd <= 1e12) digits -= std::lgamma(rd + 1) / std::log(10.0);
  return digits;
}

int digit_value(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'z') return c - 'a' + 10;
  if (c >= 'A' && c <= 'Z') return c - 'A' + 10;
  return 99;
}

bool is_space(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

std::string integer_text(const mpz_t v, int base) {
  std::string s(mpz_sizeinbase(v, base) + 2, '\0');
  mpz_get_str(s.data(), -base, v);  // a negative base asks for upper case
  s.resize(s.find('\0'));
  return s;
}

}  // namespace

bool decimal_function(DecimalFunction f, const Decimal& x, Decimal* out) {
  if (too_large(x)) return false;
  return evaluate(
      [&](mpfr_ptr r, mpfr_prec_t prec) {
        TempFloat a(prec);
        load(a, x, prec);
        apply(f, r, a.v, prec);
      },
      out);
}

bool decimal_pi(Decimal* out) {
  return evaluate([](mpfr_ptr r, mpfr_prec_t) { mpfr_const_pi(r, MPFR_RNDN); }, out);
}

bool decimal_atan2(const Decimal& y, const Decimal& x, Decimal* out) {
  if (too_large(x) || too_large(y)) return false;
  return evaluate(
      [&](mpfr_ptr r, mpfr_prec_t prec) {
        TempFloat a(prec), b(prec);
        load(a, y, prec);
        load(b, x, prec);
        mpfr_atan2(r, a.v, b.v, MPFR_RNDN);
      },
      out);
}

bool decimal_pow(const Decimal& x, const Decimal& y, Decimal* out) {
  if (too_large(x) || too_large(y)) return false;
  return evaluate(
      [&](mpfr_ptr r, mpfr_prec_t prec) {
        TempFloat a(prec), b(prec);
        load(a, x, prec);
        load(b, y, prec);
        mpfr_pow(r, a.v, b.v, MPFR_RNDN);
      },
      out);
}

bool decimal_logn(const Decimal& x, const Decimal& base, Decimal* out) {
  if (too_large(x) || too_large(base)) return false;
  return evaluate(
      [&](mpfr_ptr r, mpfr_prec_t prec) {
        TempFloat a(prec), b(prec);
        load(a, x, prec);
        load(b, base, prec);
        mpfr_log(a.v, a.v, MPFR_RNDN);
        mpfr_log(b.v, b.v, MPFR_RNDN);
        mpfr_div(r, a.v, b.v, MPFR_RNDN);
      },
      out);
}

bool decimal_ldexp(const Decimal& x, int64_t exponent, Decimal* out) {
  if (too_large(x)) return false;
  // Far beyond either end of MPFR's exponent range: the clamp changes nothing.
  long e = static_cast<long>(std::clamp<int64_t>(exponent, -(int64_t{1} << 40), int64_t{1} << 40));
  return evaluate(
      [&](mpfr_ptr r, mpfr_prec_t prec) {
        TempFloat a(prec);
        load(a, x, prec);
        mpfr_mul_2si(r, a.v, e, MPFR_RNDN);
      },
      out);
}

bool decimal_polar_to_rect(const Decimal& radius, const Decimal& angle, Decimal* x, Decimal* y) {
  if (too_large(radius) || too_large(angle)) return false;
  auto part = [&](bool sine) {
    return [&, sine](mpfr_ptr r, mpfr_prec_t prec) {
      TempFloat a(prec), b(prec);
      load(a, radius, prec);
      load(b, angle, prec);
      if (sine)
        mpfr_sin(b.v, b.v, MPFR_RNDN);
      else
        mpfr_cos(b.v, b.v, MPFR_RNDN);
      mpfr_mul(r, a.v, b.v, MPFR_RNDN);
    };
  };
  Decimal rx, ry;
  if (!evaluate(part(false), &rx) || !evaluate(part(true), &ry)) return false;
  *x = std::move(rx);
  *y = std::move(ry);
  return true;
}

bool decimal_rect_to_polar(const Decimal& x, const Decimal& y, Decimal* radius, Decimal* angle) {
  if (too_large(x) || too_large(y)) return false;
  Decimal rr, ra;
  bool ok = evaluate(
      [&](mpfr_ptr r, mpfr_prec_t prec) {
        TempFloat a(prec), b(prec);
        load(a, x, prec);
        load(b, y, prec);
        mpfr_hypot(r, a.v, b.v, MPFR_RNDN);
      },
      &rr);
  if (!ok || !decimal_atan2(y, x, &ra)) return false;
  *radius = std::move(rr);
  *angle = std::move(ra);
  return true;
}

bool decimal_factorial(const Decimal& n, Decimal* out) {
  unsigned long v;
  if (!whole_number(n, &v)) return false;
  if (std::lgamma(static_cast<double>(v) + 1) / std::log(10.0) > kMaxDecimalFunctionDigits) return false;
  Decimal r;
  mpz_fac_ui(r.digits, v);
  *out = std::move(r);
  return true;
}

bool decimal_npr(const Decimal& n, const Decimal& r, Decimal* out) {
  unsigned long nv, rv;
  if (!whole_number(n, &nv) || !whole_number(r, &rv)) return false;
  Decimal result;
  if (rv <= nv) {
    if (permutation_digits(nv, rv, false) > kMaxDecimalFunctionDigits) return false;
    TempInt f;
    mpz_bin_uiui(result.digits, nv, rv);
    mpz_fac_ui(f.v, rv);
    mpz_mul(result.digits, result.digits, f.v);
  }
  *out = std::move(result);
  return true;
}

bool decimal_ncr(const Decimal& n, const Decimal& r, Decimal* out) {
  unsigned long nv, rv;
  if (!whole_number(n, &nv) || !whole_number(r, &rv)) return false;
  Decimal result;
  if (rv <= nv) {
    unsigned long k = std::min(rv, nv - rv);
    if (permutation_digits(nv, k, true) > kMaxDecimalFunctionDigits) return false;
    mpz_bin_uiui(result.digits, nv, k);
  }
  *out = std::move(result);
  return true;
}

Decimal decimal_abs(const Decimal& x) {
  Decimal r = x;
  mpz_abs(r.digits, r.digits);
  return r;
}

Decimal decimal_floor(const Decimal& x) {
  Decimal r;
  TempInt p;
  power_of_ten(p.v, x.scale);
  mpz_fdiv_q(r.digits, x.digits, p.v);
  return r;
}

Decimal decimal_ceil(const Decimal& x) {
  Decimal r;
  TempInt p;
  power_of_ten(p.v, x.scale);
  mpz_cdiv_q(r.digits, x.digits, p.v);
  return r;
}

Decimal decimal_round(const Decimal& x, uint32_t places) {
  places = std::min(places, kMaxDecimalFunctionDigits);
  Decimal r;
  r.scale = places;
  TempInt p;
  if (places >= x.scale) {
    power_of_ten(p.v, places - x.scale);
    mpz_mul(r.digits, x.digits, p.v);
  } else {
    power_of_ten(p.v, x.scale - places);
    divide_round(r.digits, x.digits, p.v);
  }
  return r;
}

bool decimal_base_convert(std::string_view text, int from, int to, std::string* out) {
  if (from < 2 || from > 36 || to < 2 || to > 36) return false;
  while (!text.empty() && is_space(text.front())) text.remove_prefix(1);
  while (!text.empty() && is_space(text.back())) text.remove_suffix(1);
  bool negative = !text.empty() && text[0] == '-';
  if (!text.empty() && (text[0] == '-' || text[0] == '+')) text.remove_prefix(1);
  size_t point = text.find('.');
  std::string whole(text.substr(0, point));
  std::string fraction(point == std::string_view::npos ? std::string_view() : text.substr(point + 1));
  if (negative && whole.empty() && fraction.empty()) return false;  // a lone sign
  for (const std::string* part : {&whole, &fraction}) {
    for (char c : *part) {
      if (digit_value(c) >= from) return false;
    }
  }

  TempInt w;
  if (!whole.empty()) mpz_set_str(w.v, whole.c_str(), from);
  std::string result = integer_text(w.v, to);

  // The fraction is num / from^k; its first `places` digits in the new base
  // are floor(num * to^places / from^k).
  uint32_t places = decimal_precision();
  if (!fraction.empty() && places > 0) {
    TempInt num, den, scaled;
    mpz_set_str(num.v, fraction.c_str(), from);
    mpz_ui_pow_ui(den.v, static_cast<unsigned long>(from), fraction.size());
    mpz_ui_pow_ui(scaled.v, static_cast<unsigned long>(to), places);
    mpz_mul(num.v, num.v, scaled.v);
    mpz_tdiv_q(num.v, num.v, den.v);
    if (mpz_sgn(num.v) != 0) {
      std::string digits = integer_text(num.v, to);
      digits.insert(0, places - digits.size(), '0');
      digits.resize(digits.find_last_not_of('0') + 1);
      result += '.';
      result += digits;
    }
  }
  if (negative && result != "0") result.insert(0, 1, '-');
  *out = std::move(result);
  return true;
}
