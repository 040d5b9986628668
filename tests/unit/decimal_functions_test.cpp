// Tests of the decimal engine's functions against digits known to more places.
#include "values/decimal_functions.h"

#include <gtest/gtest.h>

namespace {

Decimal D(const char* text) { return decimal_from_text(text); }

// Sets the precision for one test and puts the default back afterwards.
struct Precision {
  explicit Precision(uint32_t p) { decimal_set_precision(p); }
  ~Precision() { decimal_set_precision(kDefaultDecimalPrecision); }
};

std::string fn(DecimalFunction f, const char* x) {
  Decimal out;
  if (!decimal_function(f, D(x), &out)) return "fail";
  return decimal_to_text(out);
}

TEST(DecimalFunctions, KnownDigitsAtPrecision30) {
  Precision p(30);
  EXPECT_EQ("1.414213562373095048801688724210", fn(DF_SQRT, "2"));
  EXPECT_EQ("2.718281828459045235360287471353", fn(DF_EXP, "1"));
  EXPECT_EQ("0.693147180559945309417232121458", fn(DF_LOGE, "2"));
  EXPECT_EQ("0.841470984807896506652502321630", fn(DF_SIN, "1"));
  EXPECT_EQ("0.540302305868139717400936607443", fn(DF_COS, "1"));
  Decimal pi;
  ASSERT_TRUE(decimal_pi(&pi));
  EXPECT_EQ("3.141592653589793238462643383280", decimal_to_text(pi));
}

TEST(DecimalFunctions, ExactResultsKeepThePrecision) {
  EXPECT_EQ("4.00000000000000000000", fn(DF_SQRT, "16"));
  EXPECT_EQ("0.00000000000000000000", fn(DF_ARCCOSH, "1"));
  EXPECT_EQ("1000.00000000000000000000", fn(DF_POW10, "3"));
  EXPECT_EQ("3.00000000000000000000", fn(DF_LOG10, "1000"));
  // 0.1 has no binary form; rounding must still give the exact decimal.
  Decimal out;
  ASSERT_TRUE(decimal_pow(D("0.1"), D("2"), &out));
  EXPECT_EQ("0.01000000000000000000", decimal_to_text(out));
}

TEST(DecimalFunctions, LargeResultsAreAccurateToTheLastPlace) {
  // e^50 = 5184705528587072464087.453322933485384827469...
  EXPECT_EQ("5184705528587072464087.45332293348538482747", fn(DF_EXP, "50"));
  EXPECT_EQ("180.00000000000000000000", fn(DF_RAD2DEG, "3.14159265358979323846264338327950288"));
}

TEST(DecimalFunctions, ReciprocalAndInverseForms) {
  Precision p(10);
  EXPECT_EQ("0.6420926159", fn(DF_COT, "1"));       // 1/tan 1
  EXPECT_EQ("1.8508157177", fn(DF_SEC, "1"));       // 1/cos 1
  EXPECT_EQ("1.5707963268", fn(DF_ARCCOT, "0"));    // pi/2
  EXPECT_EQ("2.3561944902", fn(DF_ARCCOT, "-1"));   // 3pi/4: continuous through 0
  EXPECT_EQ("1.0471975512", fn(DF_ARCSEC, "2"));    // pi/3
  EXPECT_EQ("0.5235987756", fn(DF_ARCCSC, "2"));    // pi/6
  EXPECT_EQ("0.0174532925", fn(DF_DEG2RAD, "1"));
}

TEST(DecimalFunctions, OutOfDomainFails) {
  for (auto [f, x] : std::initializer_list<std::pair<DecimalFunction, const char*>>{
           {DF_SQRT, "-1"}, {DF_LOGE, "0"}, {DF_LOG10, "-5"}, {DF_ARCCOS, "1.0000001"},
           {DF_ARCSIN, "-2"}, {DF_ARCCOSH, "0.5"}, {DF_ARCTANH, "1"}, {DF_ARCCOTH, "0.5"},
           {DF_ARCSEC, "0.5"}, {DF_ARCSECH, "0"}, {DF_ARCSECH, "2"}, {DF_COT, "0"},
           {DF_CSC, "0"}, {DF_COTH, "0"}, {DF_CSCH, "0"}, {DF_ARCCSCH, "0"}}) {
    EXPECT_EQ("fail", fn(f, x)) << int(f) << " of " << x;
  }
  // Results and arguments past the digit limit fail rather than run on.
  EXPECT_EQ("fail", fn(DF_EXP, "1000000"));
  EXPECT_EQ("fail", fn(DF_POW10, "100001").substr(0, 4));
  Decimal out;
  EXPECT_FALSE(decimal_pow(D("0"), D("-1"), &out));
  EXPECT_FALSE(decimal_pow(D("-8"), D("0.5"), &out));
  EXPECT_FALSE(decimal_logn(D("8"), D("1"), &out));
  EXPECT_FALSE(decimal_ldexp(D("1"), 1LL << 40, &out));
}

TEST(DecimalFunctions, TwoArgumentForms) {
  Precision p(10);
  Decimal out, x, y;
  ASSERT_TRUE(decimal_atan2(D("1"), D("-1"), &out));
  EXPECT_EQ("2.3561944902", decimal_to_text(out));
  ASSERT_TRUE(decimal_logn(D("8"), D("2"), &out));
  EXPECT_EQ("3.0000000000", decimal_to_text(out));
  ASSERT_TRUE(decimal_ldexp(D("3"), -2, &out));
  EXPECT_EQ("0.7500000000", decimal_to_text(out));
  ASSERT_TRUE(decimal_rect_to_polar(D("3"), D("-4"), &x, &y));
  EXPECT_EQ("5.0000000000", decimal_to_text(x));
  EXPECT_EQ("-0.9272952180", decimal_to_text(y));
  ASSERT_TRUE(decimal_polar_to_rect(D("2"), D("0"), &x, &y));
  EXPECT_EQ("2.0000000000", decimal_to_text(x));
  EXPECT_EQ("0.0000000000", decimal_to_text(y));
}

TEST(DecimalFunctions, IntegerFunctions) {
  using Two = bool (*)(const Decimal&, const Decimal&, Decimal*);
  auto two = [](Two f, const char* a, const char* b) {
    Decimal out;
    return f(D(a), D(b), &out) ? decimal_to_text(out) : std::string("fail");
  };
  auto fact = [](const char* a) {
    Decimal out;
    return decimal_factorial(D(a), &out) ? decimal_to_text(out) : std::string("fail");
  };
  EXPECT_EQ("2432902008176640000", fact("20.000"));
  EXPECT_EQ("1", fact("0"));
  EXPECT_EQ("fail", fact("-1"));
  EXPECT_EQ("fail", fact("2.5"));
  EXPECT_EQ("fail", fact("30000"));  // about 121,000 digits
  EXPECT_EQ("720", two(decimal_npr, "10", "3"));
  EXPECT_EQ("2598960", two(decimal_ncr, "52", "5"));
  EXPECT_EQ("0", two(decimal_ncr, "3", "5"));
  EXPECT_EQ("100000000000000000", two(decimal_ncr, "100000000000000000", "99999999999999999"));
  EXPECT_EQ("fail", two(decimal_npr, "1000000", "1000000"));
}

TEST(DecimalFunctions, RoundingAndWholeParts) {
  EXPECT_EQ("2.57", decimal_to_text(decimal_round(D("2.565"), 2)));
  EXPECT_EQ("-2.57", decimal_to_text(decimal_round(D("-2.565"), 2)));
  EXPECT_EQ("3", decimal_to_text(decimal_round(D("2.5"), 0)));
  EXPECT_EQ("1.5000", decimal_to_text(decimal_round(D("1.5"), 4)));
  EXPECT_EQ("-3", decimal_to_text(decimal_floor(D("-2.1"))));
  EXPECT_EQ("-2", decimal_to_text(decimal_ceil(D("-2.9"))));
  EXPECT_EQ("3", decimal_to_text(decimal_ceil(D("2.0001"))));
  EXPECT_EQ("2.50", decimal_to_text(decimal_abs(D("-2.50"))));
}

TEST(DecimalFunctions, BaseConversion) {
  struct Case { const char* in; int from, to; const char* out; };
  const Case cases[] = {{"255", 10, 16, "FF"}, {" ff ", 16, 2, "11111111"}, {"-Zz", 36, 10, "-1295"},
                        {"0.1", 2, 10, "0.5"}, {"0.1", 10, 2, "0.00011001100110011001"},  // cut after 20 places
                        {"", 10, 2, "0"}, {"-0.0", 10, 2, "0"}, {"12", 2, 10, "fail"},
                        {"1.2.3", 10, 10, "fail"}, {"-", 10, 10, "fail"}, {"1e5", 10, 16, "fail"}};
  for (const Case& c : cases) {
    std::string out;
    EXPECT_EQ(c.out, decimal_base_convert(c.in, c.from, c.to, &out) ? out : "fail") << c.in;
  }
}

}  // namespace
