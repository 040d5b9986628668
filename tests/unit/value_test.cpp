// Tests for typed values: string and number forms, assignment, hashes, orderings.
#include "values/value.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <random>

namespace {

using namespace std::string_literals;

struct DecimalModeGuard {
  explicit DecimalModeGuard(uint8_t mode) : saved(number_mode().decimal) { number_mode().decimal = mode; }
  ~DecimalModeGuard() { number_mode().decimal = saved; }
  uint8_t saved;
};

ValuePtr make_list(std::initializer_list<const char*> items) {
  ValuePtr v = value_new();
  value_set_type(*v, VT_LIST);
  for (const char* s : items) v->list.push_back(value_from_string(s));
  return v;
}

ValuePtr make_hash(std::initializer_list<std::pair<const char*, const char*>> items) {
  ValuePtr h = value_new();
  value_set_type(*h, VT_HASH);
  for (auto [k, val] : items) value_assign(hash_add_key(h.get(), k), value_from_string(val).get());
  return h;
}

ValuePtr ranged(const std::string& text, uint32_t start, uint32_t end) {
  ValuePtr s = value_from_string(text);
  s->start = start, s->end = end;
  return s;
}

std::string keys_of(const Value& hash) {
  std::string out;
  for (const ValueRow& row : hash.rows) out += row[0]->bytes + ",";
  return out;
}

TEST(ValueText, ScalarsRangesAndContainers) {
  EXPECT_EQ("", value_text(*value_new()));
  EXPECT_EQ("-2147483648", value_text(*value_from_integer(INT32_MIN)));
  EXPECT_EQ("2.500000000000000", value_text(*value_from_number(2.5)));
  EXPECT_EQ("-0.000000000000000", value_text(*value_from_number(-0.0)));
  EXPECT_EQ("-1.25", value_text(*value_from_decimal(decimal_from_text("-1.25"))));
  EXPECT_EQ(17u, value_to_string(*value_from_number(2.5))->end);
  // A range past the bytes pads with zero bytes; a reversed one selects nothing.
  EXPECT_EQ("el", value_text(*ranged("Hello", 1, 3)));
  EXPECT_EQ("Hello", value_element_text(*ranged("Hello", 1, 3)));
  EXPECT_EQ("lo\0\0\0"s, value_text(*ranged("Hello", 3, 8)));
  EXPECT_EQ("", value_text(*ranged("Hello", 4, 2)));
  EXPECT_EQ("a\0b"s, value_text(*value_from_string("a\0b"s)));
  // Containers are URL-encoded once more at each level; string elements print whole.
  EXPECT_EQ("a%20b&c%26d&", value_text(*make_list({"a b", "c&d", ""})));
  EXPECT_EQ("a%26x&b%26y", value_text(*make_hash({{"b", "y"}, {"a", "x"}})));
  ValuePtr outer = make_list({"x"});
  outer->list[0]->start = 1;
  outer->list.push_back(make_list({"1", "2"}));
  EXPECT_EQ("x&1%262", value_text(*outer));
  EXPECT_EQ("p%2520q%26r", value_text(*value_to_array(*make_list({"p q", "r"}))));
}

// The quick number printer and reader must agree with printf and strtod exactly.
TEST(ValueNumber, FormatAndParseMatchTheCLibrary) {
  std::mt19937_64 rng(12345);
  std::vector<double> numbers = {0, -1, 999999999999999, 1e15, -1e16, 4503599627370496.0, 0.5,
                                 1e-20, 1.7976931348623157e308, -4.9e-324, INFINITY, -INFINITY};
  std::vector<std::string> texts = {"000", ".5", "5.", "1234567890123456", "999999999999999.9", "0.3",
                                    "0.00000000000000000000001", "9007199254740993"};
  char buf[400];
  for (int i = 0; i < 20000; i++) {
    numbers.push_back(static_cast<double>(static_cast<int64_t>(rng() % 2000000000000000ULL) - 1000000000000000LL));
    numbers.push_back(std::ldexp(static_cast<double>(rng() >> 11), static_cast<int>(rng() % 120) - 60));
    numbers.push_back(static_cast<double>(rng() % 1000000) / 1000);  // ties in the last digit
    uint64_t bits = rng();
    double any;
    std::memcpy(&any, &bits, sizeof any);
    numbers.push_back(any);  // NaN included
    int digits = static_cast<int>(rng() % 20) + 1, point = static_cast<int>(rng() % (digits + 1));
    std::string s;
    for (int k = 0; k < digits; k++) s += (k == point ? "." : "") + std::string(1, static_cast<char>('0' + rng() % 10));
    texts.push_back(s);
    std::snprintf(buf, sizeof buf, "%.15lf", static_cast<double>(rng() % 100000000) / 1024);
    texts.push_back(buf);
  }
  for (double d : numbers) {
    std::snprintf(buf, sizeof buf, "%.15lf", d);
    ASSERT_EQ(std::string(buf), format_number(d)) << d;
  }
  for (const std::string& s : texts) {
    double expected = std::strtod(s.c_str(), nullptr);
    ASSERT_EQ(expected, parse_unsigned_decimal(s)) << s;
    ASSERT_EQ(-expected, parse_unsigned_decimal(s, true)) << s;
  }
  EXPECT_EQ("-9223372036854775808", format_integer(INT64_MIN));
}

TEST(ValueNumber, FloatAndDecimalModes) {
  DecimalModeGuard mode(0);
  auto num = [](ValuePtr v) { ValuePtr n = value_to_number(*v); EXPECT_EQ(VT_NUMBER, n->type); return n->number; };
  EXPECT_EQ(12, num(value_from_string("  12abc")));
  EXPECT_EQ(-0.5, num(value_from_string("-.5")));
  EXPECT_EQ(1, num(value_from_string("1e5")));  // no exponents
  EXPECT_EQ(0, num(value_from_string("0x10")));
  EXPECT_EQ(4, num(value_from_string("4\0" "5"s)));  // stops at a zero byte
  EXPECT_EQ(-12, num(value_from_decimal(decimal_from_text("-12.75"))));  // the integer part only
  EXPECT_EQ(3, num(make_list({"3", "4"})));
  EXPECT_EQ(9, num(make_hash({{"b", "1"}, {"a", "9"}})));
  EXPECT_EQ(42, num(ranged("x42y", 1, 3)));
  number_mode().decimal = 1;
  auto dec = [](ValuePtr v) {
    ValuePtr n = value_to_number(*v);
    EXPECT_EQ(VT_DECIMAL, n->type);
    return decimal_to_text(n->decimal);
  };
  EXPECT_EQ("12", dec(value_from_string("  12abc")));
  EXPECT_EQ("2.500000000000000", dec(value_from_number(2.5)));
  EXPECT_EQ("-7", dec(value_from_integer(-7)));
  EXPECT_EQ("0", dec(value_new()));
}

TEST(ValueConvert, ListHashArray) {
  ValuePtr hash = make_hash({{"b", "2"}, {"a", "1"}});
  EXPECT_EQ("1&2", value_text(*value_to_list(*hash)));  // keys dropped, key order kept
  ValuePtr array = value_to_array(*hash);
  EXPECT_EQ(2u, array->columns);
  EXPECT_EQ("b&2", value_text(*value_to_list(*array)->list[1]));
  ValuePtr from_list = value_to_hash(*make_list({"b", "B", "a"}));
  EXPECT_EQ("a,b,B,", keys_of(*from_list));  // stable: b before B
  EXPECT_EQ(VT_EMPTY, from_list->rows[0][1]->type);
  // Three columns: the value is a list of columns 1 onwards.
  EXPECT_EQ("x&y", value_text(*value_to_hash(*value_to_array(*make_list({"k", "x", "y"})))->rows[0][1]));
  EXPECT_EQ(0u, value_to_hash(*value_new())->rows.size());
  EXPECT_EQ("5,", keys_of(*value_to_hash(*value_from_integer(5))));
  ValuePtr one = value_to_array(*value_from_number(1));
  EXPECT_EQ(1u, one->columns);
  EXPECT_EQ(VT_NUMBER, one->rows.at(0)[0]->type);
}

TEST(ValueAssign, RangeReplacement) {
  ValuePtr s = ranged("Hello", 1, 3);
  ASSERT_TRUE(value_assign(s.get(), value_from_string("ipp").get()));
  EXPECT_EQ("Hipplo", s->bytes);
  EXPECT_EQ(3u, s->end);
  ValuePtr t = ranged("Hello", 7, 7);
  ASSERT_TRUE(value_assign(t.get(), value_from_integer(42).get()));
  EXPECT_EQ("Hello\0\0" "42"s, t->bytes);
  // The source contributes its string form.
  ValuePtr u = ranged("abcdef", 2, 10);
  ASSERT_TRUE(value_assign(u.get(), value_from_number(1).get()));
  EXPECT_EQ("ab1.000000000000000", u->bytes);
  // A range start far past the bytes is refused rather than zero-filled.
  ValuePtr far = ranged("abc", 3000000000u, 3000000000u);
  EXPECT_FALSE(value_assign(far.get(), value_from_string("x").get()));
  EXPECT_EQ("abc", far->bytes);
  far->start = 1;
  EXPECT_LT(value_text(*far).size(), 100000000u);
}

TEST(ValueAssign, WholeAssignmentAndAliasing) {
  ValuePtr v = value_from_integer(3);
  EXPECT_FALSE(value_assign(nullptr, v.get()));
  EXPECT_FALSE(value_assign(v.get(), nullptr));
  EXPECT_TRUE(value_assign(v.get(), v.get()));
  EXPECT_EQ(3, v->integer);
  ASSERT_TRUE(value_assign(v.get(), value_from_decimal(decimal_from_text("2.25")).get()));
  EXPECT_EQ("2.25", value_text(*v));
  // A ranged string source arrives as its range, selected whole.
  ValuePtr dest = make_list({"x"});
  ASSERT_TRUE(value_assign(dest.get(), ranged("Hello", 1, 4).get()));
  ASSERT_EQ(VT_STRING, dest->type);
  EXPECT_EQ("ell", dest->bytes);
  EXPECT_EQ(3u, dest->end);
  // Sources owned by the destination: an element, a hash value.
  ValuePtr parent = make_list({"a"});
  parent->list.push_back(make_list({"b", "c"}));
  ASSERT_TRUE(value_assign(parent.get(), parent->list[1].get()));
  EXPECT_EQ("b&c", value_text(*parent));
  ValuePtr hash = make_hash({{"k", "v"}});
  ASSERT_TRUE(value_assign(hash.get(), hash_find(hash.get(), "k")));
  EXPECT_EQ("v", hash->bytes);
  // A number into a string: the string goes.
  ValuePtr owner = value_from_string("abc");
  ASSERT_TRUE(value_assign(owner.get(), value_from_integer(3).get()));
  ASSERT_EQ(VT_INTEGER, owner->type);
  EXPECT_EQ(3, owner->integer);
}

TEST(ValueCopy, DeepAndIndependent) {
  ValuePtr hash = make_hash({{"a", "1"}});
  ValuePtr copy = value_copy(*hash);
  value_assign(hash_find(copy.get(), "a"), value_from_string("2").get());
  EXPECT_EQ("a%261", value_text(*hash));
  EXPECT_EQ("a%262", value_text(*copy));
  EXPECT_EQ("el", value_text(*value_copy(*ranged("Hello", 1, 3))));
  value_clear(*hash);
  EXPECT_EQ(VT_EMPTY, hash->type);
  EXPECT_EQ("", value_text(*hash));
}

TEST(Hash, AddAndFind) {
  ValuePtr h = make_hash({{"b", ""}, {"A", "upper"}, {"a", "lower"}});
  EXPECT_EQ("A,a,b,", keys_of(*h));
  EXPECT_EQ("lower", value_text(*hash_find_exact(h.get(), "a")));
  EXPECT_EQ("upper", value_text(*hash_find_exact(h.get(), "A")));
  EXPECT_EQ(nullptr, hash_find(h.get(), "c"));
  EXPECT_EQ(nullptr, hash_find_exact(h.get(), "B"));
  EXPECT_NE(nullptr, hash_find(h.get(), "B"));
  ValuePtr not_hash = make_list({"a"});
  EXPECT_EQ(nullptr, hash_add_key(not_hash.get(), "a"));
  EXPECT_EQ(nullptr, hash_find(not_hash.get(), "a"));
  EXPECT_EQ(nullptr, hash_add_key(nullptr, "a"));
}

TEST(Compare, BytesAndNatural) {
  using Cmp = int (*)(std::string_view, std::string_view);
  struct Case { Cmp cmp; std::string a, b; int sign; };
  Cmp bytes = compare_bytes, nocase = compare_bytes_nocase, natural = compare_natural,
      natural_nocase = compare_natural_nocase;
  const Case cases[] = {
      {bytes, "", "a", -1}, {bytes, "ab", "abc", -1}, {bytes, "B", "a", -1}, {bytes, "\xe9", "z", 1},
      {bytes, "a\0b"s, "a\0c"s, -1}, {bytes, "_", "a", -1}, {bytes, "file2", "file10", 1},
      // Letters fold to upper case, so "_" (95) moves from before "a" to after "A".
      {nocase, "abc", "ABC", 0}, {nocase, "b", "A", 1}, {nocase, "_", "a", 1},
      {natural, "file2", "file10", -1}, {natural, "a99999999999999999999999", "a100000000000000000000000", -1},
      {natural, "x12y3", "x12y2", 1}, {natural, "007", "8", -1}, {natural, "a01", "a1", -1},
      {natural, "a1b", "a1b", 0}, {natural, "a", "a1", -1}, {natural, "A10", "a2", -1}, {natural, "a10", "B2", 1},
      {natural_nocase, "a2", "A10", -1}, {natural_nocase, "File7", "fILE7", 0},
  };
  for (const Case& c : cases) {
    int got = c.cmp(c.a, c.b);
    EXPECT_EQ(c.sign, (got > 0) - (got < 0)) << c.a << " vs " << c.b;
  }
}

}  // namespace
