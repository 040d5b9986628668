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
  explicit DecimalModeGuard(uint8_t mode) : saved(decimal_mode) { decimal_mode = mode; }
  ~DecimalModeGuard() { decimal_mode = saved; }
  uint8_t saved;
};

ValuePtr make_list(std::initializer_list<const char*> items) {
  ValuePtr v = value_new();
  v->type = VT_LIST;
  for (const char* s : items) v->list.push_back(value_from_string(s));
  return v;
}

ValuePtr make_hash(std::initializer_list<std::pair<const char*, const char*>> items) {
  ValuePtr h = value_new();
  h->type = VT_HASH;
  for (auto [k, val] : items) value_assign(hash_add_key(h.get(), k), value_from_string(val).get());
  return h;
}

std::string keys_of(const Value& hash) {
  std::string out;
  for (const ValueRow& row : hash.rows) out += row[0]->bytes + ",";
  return out;
}

TEST(ValueText, ScalarForms) {
  ValuePtr empty = value_new();
  EXPECT_EQ(VT_EMPTY, empty->type);
  EXPECT_EQ("", value_text(*empty));
  EXPECT_EQ("7", value_text(*value_from_integer(7)));
  EXPECT_EQ("-2147483648", value_text(*value_from_integer(INT32_MIN)));
  EXPECT_EQ("2.500000000000000", value_text(*value_from_number(2.5)));
  EXPECT_EQ("3.000000000000000", value_text(*value_from_number(3)));
  EXPECT_EQ("-0.000000000000000", value_text(*value_from_number(-0.0)));
  EXPECT_EQ("-1.25", value_text(*value_from_decimal(decimal_from_text("-1.25"))));
  ValuePtr s = value_to_string(*value_from_number(2.5));
  EXPECT_EQ(VT_STRING, s->type);
  EXPECT_EQ(0u, s->start);
  EXPECT_EQ(17u, s->end);
}

TEST(ValueText, StringRangeAndZeroPadding) {
  ValuePtr s = value_from_string("Hello");
  s->start = 1, s->end = 3;
  EXPECT_EQ("el", value_text(*s));
  EXPECT_EQ("Hello", value_element_text(*s));
  s->start = 3, s->end = 8;
  EXPECT_EQ("lo\0\0\0"s, value_text(*s));
  s->start = 7, s->end = 9;
  EXPECT_EQ("\0\0"s, value_text(*s));
  s->start = 4, s->end = 2;  // a reversed range selects nothing
  EXPECT_EQ("", value_text(*s));
  ValuePtr z = value_from_string("a\0b"s);
  EXPECT_EQ("a\0b"s, value_text(*z));
}

TEST(ValueText, ContainersAreUrlEncoded) {
  EXPECT_EQ("a%20b&c%26d&", value_text(*make_list({"a b", "c&d", ""})));
  EXPECT_EQ("a%26x&b%26y", value_text(*make_hash({{"b", "y"}, {"a", "x"}})));

  // A string element prints whole, whatever range it carries.
  ValuePtr list = make_list({"Hello"});
  list->list[0]->start = 1, list->list[0]->end = 2;
  EXPECT_EQ("Hello", value_text(*list));

  // Nested containers are encoded once more at each level.
  ValuePtr outer = make_list({"x"});
  outer->list.push_back(make_list({"1", "2"}));
  EXPECT_EQ("x&1%262", value_text(*outer));

  ValuePtr array = value_to_array(*make_list({"p q", "r"}));
  EXPECT_EQ("p%2520q%26r", value_text(*array));
}

TEST(FormatNumber, FastPathMatchesPrintf) {
  std::mt19937_64 rng(12345);
  std::vector<double> samples = {0, 1, -1, 999999999999999, -999999999999999, 1e15, -1e15,
                                 1e16, 123456789012345.0, 4503599627370496.0, 0.5, -0.5,
                                 1e-20, 1.7976931348623157e308, -4.9e-324, INFINITY, -INFINITY};
  for (int i = 0; i < 20000; i++) {
    samples.push_back(static_cast<double>(static_cast<int64_t>(rng() % 2000000000000000ULL) - 1000000000000000LL));
    samples.push_back(static_cast<double>(static_cast<int32_t>(rng())));
    samples.push_back(std::ldexp(static_cast<double>(rng() >> 11), static_cast<int>(rng() % 120) - 60));
    samples.push_back(static_cast<double>(rng() % 1000000) / 1000);  // ties in the last digit
    uint64_t bits = rng();
    double any;
    std::memcpy(&any, &bits, sizeof any);
    samples.push_back(any);  // any bit pattern, NaN included
  }
  char buf[400];
  for (double d : samples) {
    std::snprintf(buf, sizeof buf, "%.15lf", d);
    ASSERT_EQ(std::string(buf), format_number(d)) << d;
  }
  EXPECT_EQ("-9223372036854775808", format_integer(INT64_MIN));
}

TEST(ValueNumber, FloatMode) {
  DecimalModeGuard mode(0);
  auto num = [](ValuePtr v) { ValuePtr n = value_to_number(*v); EXPECT_EQ(VT_NUMBER, n->type); return n->number; };
  EXPECT_EQ(12, num(value_from_string("  12abc")));
  EXPECT_EQ(0, num(value_from_string("abc")));
  EXPECT_EQ(-0.5, num(value_from_string("-.5")));
  EXPECT_EQ(1, num(value_from_string("1e5")));  // no exponents
  EXPECT_EQ(0, num(value_from_string("inf")));
  EXPECT_EQ(0, num(value_from_string("0x10")));
  EXPECT_EQ(4, num(value_from_string("4\0" "5"s)));  // stops at a zero byte
  EXPECT_EQ(7, num(value_from_integer(7)));
  EXPECT_EQ(0, num(value_new()));
  // The integer part of a decimal only.
  EXPECT_EQ(-12, num(value_from_decimal(decimal_from_text("-12.75"))));
  EXPECT_EQ(3, num(make_list({"3", "4"})));
  EXPECT_EQ(0, num(make_list({})));
  EXPECT_EQ(9, num(make_hash({{"b", "1"}, {"a", "9"}})));
  // A string reads its selected range.
  ValuePtr s = value_from_string("x42y");
  s->start = 1, s->end = 3;
  EXPECT_EQ(42, num(std::move(s)));
}

TEST(ValueNumber, DecimalMode) {
  DecimalModeGuard mode(1);
  auto dec = [](ValuePtr v) {
    ValuePtr n = value_to_number(*v);
    EXPECT_EQ(VT_DECIMAL, n->type);
    return decimal_to_text(n->decimal);
  };
  EXPECT_EQ("12", dec(value_from_string("  12abc")));
  EXPECT_EQ("0", dec(value_from_string("abc")));
  EXPECT_EQ("-12.75", dec(value_from_decimal(decimal_from_text("-12.75"))));
  EXPECT_EQ("2.500000000000000", dec(value_from_number(2.5)));
  EXPECT_EQ("-7", dec(value_from_integer(-7)));
  EXPECT_EQ("0", dec(value_new()));
}

TEST(ValueConvert, ListHashArray) {
  ValuePtr hash = make_hash({{"b", "2"}, {"a", "1"}});
  ValuePtr list = value_to_list(*hash);
  ASSERT_EQ(2u, list->list.size());
  EXPECT_EQ("1&2", value_text(*list));  // keys dropped, key order kept

  ValuePtr array = value_to_array(*hash);
  EXPECT_EQ(VT_ARRAY, array->type);
  EXPECT_EQ(2u, array->columns);
  EXPECT_EQ("a", array->rows[0][0]->bytes);

  ValuePtr rows = value_to_list(*array);
  EXPECT_EQ(VT_LIST, rows->list[1]->type);
  EXPECT_EQ("b&2", value_text(*rows->list[1]));

  ValuePtr from_list = value_to_hash(*make_list({"b", "B", "a"}));
  EXPECT_EQ("a,b,B,", keys_of(*from_list));  // stable: b before B
  EXPECT_EQ(VT_EMPTY, from_list->rows[0][1]->type);

  // Three columns: the value is a list of columns 1 onwards.
  ValuePtr wide = value_to_array(*make_list({"k", "x", "y"}));
  ValuePtr wide_hash = value_to_hash(*wide);
  EXPECT_EQ(VT_LIST, wide_hash->rows[0][1]->type);
  EXPECT_EQ("x&y", value_text(*wide_hash->rows[0][1]));

  EXPECT_EQ(0u, value_to_hash(*value_new())->rows.size());
  ValuePtr scalar = value_to_hash(*value_from_integer(5));
  EXPECT_EQ("5,", keys_of(*scalar));
  EXPECT_EQ(2u, scalar->columns);

  ValuePtr one = value_to_array(*value_from_number(1));
  EXPECT_EQ(1u, one->rows.size());
  EXPECT_EQ(1u, one->columns);
  EXPECT_EQ(VT_NUMBER, one->rows[0][0]->type);
  EXPECT_EQ(0u, value_to_list(*value_new())->list.size());
}

TEST(ValueAssign, RangeReplacement) {
  ValuePtr s = value_from_string("Hello");
  s->start = 1, s->end = 3;
  ASSERT_TRUE(value_assign(s.get(), value_from_string("ipp").get()));
  EXPECT_EQ("Hipplo", s->bytes);
  EXPECT_EQ(1u, s->start);
  EXPECT_EQ(3u, s->end);

  ValuePtr t = value_from_string("Hello");
  t->start = 7, t->end = 7;
  ASSERT_TRUE(value_assign(t.get(), value_from_integer(42).get()));
  EXPECT_EQ("Hello\0\0" "42"s, t->bytes);

  // The source contributes its string form; the derived value goes.
  ValuePtr u = value_from_string("abcdef");
  u->start = 2, u->end = 10;
  u->derived = value_from_integer(6);
  ASSERT_TRUE(value_assign(u.get(), value_from_number(1).get()));
  EXPECT_EQ("ab1.000000000000000", u->bytes);
  EXPECT_EQ(nullptr, u->derived);

  // A range start far past the bytes is refused rather than zero-filled.
  ValuePtr far = value_from_string("abc");
  far->start = 3000000000u, far->end = 3000000000u;
  EXPECT_FALSE(value_assign(far.get(), value_from_string("x").get()));
  EXPECT_EQ("abc", far->bytes);
  far->start = 1;
  EXPECT_GT(value_text(*far).size(), 2u);
  EXPECT_LT(value_text(*far).size(), 100000000u);
}

TEST(ValueAssign, ScalarsReplaceEachOther) {
  ValuePtr v = value_from_integer(5);
  v->derived = value_from_integer(1);
  ASSERT_TRUE(value_assign(v.get(), value_from_number(1.5).get()));
  EXPECT_EQ(VT_NUMBER, v->type);
  EXPECT_EQ("1.500000000000000", value_text(*v));
  EXPECT_EQ(nullptr, v->derived);
  ASSERT_TRUE(value_assign(v.get(), value_new().get()));
  EXPECT_EQ(VT_EMPTY, v->type);
  EXPECT_EQ("", value_text(*v));
  ASSERT_TRUE(value_assign(v.get(), value_from_decimal(decimal_from_text("2.25")).get()));
  EXPECT_EQ("2.25", value_text(*v));
  ASSERT_TRUE(value_assign(v.get(), value_from_integer(-3).get()));
  EXPECT_EQ("-3", value_text(*v));
}

TEST(ValueAssign, WholeAssignmentAndAliasing) {
  ValuePtr v = value_from_integer(3);
  EXPECT_FALSE(value_assign(nullptr, v.get()));
  EXPECT_FALSE(value_assign(v.get(), nullptr));
  EXPECT_TRUE(value_assign(v.get(), v.get()));
  EXPECT_EQ(3, v->integer);

  // A ranged string source arrives as its range, selected whole.
  ValuePtr src = value_from_string("Hello");
  src->start = 1, src->end = 4;
  ValuePtr dest = make_list({"x"});
  dest->aux_text = "kept";
  ASSERT_TRUE(value_assign(dest.get(), src.get()));
  EXPECT_EQ(VT_STRING, dest->type);
  EXPECT_EQ("ell", dest->bytes);
  EXPECT_EQ(0u, dest->start);
  EXPECT_EQ(3u, dest->end);
  EXPECT_TRUE(dest->list.empty());
  EXPECT_EQ("kept", dest->aux_text);

  // An element assigned to its own list.
  ValuePtr parent = make_list({"a"});
  parent->list.push_back(make_list({"b", "c"}));
  ASSERT_TRUE(value_assign(parent.get(), parent->list[1].get()));
  EXPECT_EQ("b&c", value_text(*parent));

  // A hash value assigned to the hash.
  ValuePtr hash = make_hash({{"k", "v"}});
  ASSERT_TRUE(value_assign(hash.get(), hash_find(hash.get(), "k")));
  EXPECT_EQ(VT_STRING, hash->type);
  EXPECT_EQ("v", hash->bytes);

  // The derived value itself as the source.
  ValuePtr owner = value_from_string("abc");
  owner->derived = value_from_integer(3);
  ASSERT_TRUE(value_assign(owner.get(), owner->derived.get()));
  EXPECT_EQ(VT_INTEGER, owner->type);
  EXPECT_EQ(3, owner->integer);
  EXPECT_EQ("", owner->bytes);
}

TEST(ValueCopy, DeepAndIndependent) {
  ValuePtr hash = make_hash({{"a", "1"}});
  hash->aux_text = "scratch";
  hash->derived = value_from_integer(1);
  ValuePtr copy = value_copy(*hash);
  value_assign(hash_find(copy.get(), "a"), value_from_string("2").get());
  EXPECT_EQ("a%261", value_text(*hash));
  EXPECT_EQ("a%262", value_text(*copy));
  EXPECT_EQ("", copy->aux_text);
  EXPECT_EQ(nullptr, copy->derived);

  ValuePtr s = value_from_string("Hello");
  s->start = 1, s->end = 3;
  ValuePtr sc = value_copy(*s);
  EXPECT_EQ("el", value_text(*sc));

  ValuePtr d = value_from_decimal(decimal_from_text("1.5"));
  ValuePtr dc = value_copy(*d);
  d->decimal = decimal_from_text("9");
  EXPECT_EQ("1.5", value_text(*dc));

  value_clear(*hash);
  EXPECT_EQ(VT_EMPTY, hash->type);
  EXPECT_TRUE(hash->rows.empty());
  EXPECT_EQ(nullptr, hash->derived);
}

TEST(Hash, AddAndFind) {
  ValuePtr h = value_new();
  h->type = VT_HASH;
  Value* b = hash_add_key(h.get(), "b");
  Value* upper_a = hash_add_key(h.get(), "A");
  value_assign(upper_a, value_from_string("upper").get());
  Value* lower_a = hash_add_key(h.get(), "a");
  value_assign(lower_a, value_from_string("lower").get());
  ASSERT_NE(nullptr, b);
  EXPECT_EQ("A,a,b,", keys_of(*h));
  EXPECT_EQ(2u, h->columns);

  EXPECT_EQ("lower", value_text(*hash_find_exact(h.get(), "a")));
  EXPECT_EQ("upper", value_text(*hash_find_exact(h.get(), "A")));
  Value* either = hash_find(h.get(), "a");
  ASSERT_NE(nullptr, either);
  EXPECT_TRUE(value_text(*either) == "lower" || value_text(*either) == "upper");
  EXPECT_EQ(nullptr, hash_find(h.get(), "c"));
  EXPECT_EQ(nullptr, hash_find_exact(h.get(), "B"));
  EXPECT_NE(nullptr, hash_find(h.get(), "B"));

  ValuePtr not_hash = make_list({"a"});
  EXPECT_EQ(nullptr, hash_add_key(not_hash.get(), "a"));
  EXPECT_EQ(nullptr, hash_find(not_hash.get(), "a"));
  EXPECT_EQ(nullptr, hash_add_key(nullptr, "a"));
}

TEST(Compare, BytesAndNatural) {
  EXPECT_LT(compare_bytes("", "a"), 0);
  EXPECT_EQ(0, compare_bytes("", ""));
  EXPECT_LT(compare_bytes("ab", "abc"), 0);
  EXPECT_LT(compare_bytes("B", "a"), 0);
  EXPECT_GT(compare_bytes("\xe9", "z"), 0);  // unsigned bytes
  EXPECT_LT(compare_bytes("a\0b"s, "a\0c"s), 0);
  EXPECT_EQ(0, compare_bytes_nocase("abc", "ABC"));
  EXPECT_GT(compare_bytes_nocase("b", "A"), 0);
  // Letters fold to upper case, so "_" (95) moves from before "a" to after "A".
  EXPECT_LT(compare_bytes("_", "a"), 0);
  EXPECT_GT(compare_bytes_nocase("_", "a"), 0);

  EXPECT_LT(compare_natural("file2", "file10"), 0);
  EXPECT_GT(compare_bytes("file2", "file10"), 0);
  EXPECT_LT(compare_natural("a99999999999999999999999", "a100000000000000000000000"), 0);
  EXPECT_GT(compare_natural("x12y3", "x12y2"), 0);
  EXPECT_LT(compare_natural("007", "8"), 0);
  EXPECT_LT(compare_natural("a01", "a1"), 0);  // equal numbers: plain order decides
  EXPECT_EQ(0, compare_natural("a1b", "a1b"));
  EXPECT_LT(compare_natural("a", "a1"), 0);
  EXPECT_LT(compare_natural("A10", "a2"), 0);
  EXPECT_GT(compare_natural("a10", "B2"), 0);
  EXPECT_LT(compare_natural_nocase("a2", "A10"), 0);
  EXPECT_EQ(0, compare_natural_nocase("File7", "fILE7"));
}

}  // namespace

namespace {

// Reading digits back must round exactly like strtod, whether the number
// is short enough for the quick reading or not.
TEST(ValueNumber, ParseMatchesStrtod) {
  std::mt19937_64 rng(7);
  std::vector<std::string> samples = {"0", "000", "0.000000000000000", ".5", "5.", "123456789012345",
                                      "1234567890123456", "999999999999999.9", "0.1", "0.3",
                                      "31.625000000000000", "0.0000000000000000000001",
                                      "0.00000000000000000000001", "9007199254740993"};
  char buf[64];
  for (int i = 0; i < 20000; i++) {
    int digits = static_cast<int>(rng() % 20) + 1;
    int point = static_cast<int>(rng() % (digits + 1));
    std::string s;
    for (int k = 0; k < digits; k++) {
      if (k == point) s += '.';
      s += static_cast<char>('0' + rng() % 10);
    }
    samples.push_back(s);
    std::snprintf(buf, sizeof buf, "%.15lf", static_cast<double>(rng() % 100000000) / 1024);
    samples.push_back(buf);
  }
  for (const std::string& s : samples) {
    double expected = std::strtod(s.c_str(), nullptr);
    ASSERT_EQ(expected, parse_unsigned_decimal(s)) << s;
    ASSERT_EQ(-expected, parse_unsigned_decimal(s, true)) << s;
  }
}

}  // namespace
