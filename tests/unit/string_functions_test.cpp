// The CV-STR byte operations: the four orderings with their exact results,
// sorting, white space, splitting, searching and quoting.
#include "functions/string_functions.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

using namespace std::string_literals;

TEST(StrCompare, EmptyStringsFirstInEveryOrdering) {
  for (bool natural : {false, true}) {
    for (bool fold : {false, true}) {
      EXPECT_EQ(0, str_compare("", "", fold, natural));
      EXPECT_EQ(1, str_compare("a", "", fold, natural));
      EXPECT_EQ(-1, str_compare("", "a", fold, natural));
    }
  }
}

TEST(StrCompare, BytesReturnTheDifference) {
  EXPECT_EQ(-1, str_compare_bytes("abc", "abd", false));
  EXPECT_EQ(-1, str_compare_bytes("a", "ab", false));
  EXPECT_EQ(1, str_compare_bytes("ab", "a", false));
  EXPECT_EQ(32, str_compare_bytes("abc", "ABC", false));
  EXPECT_EQ(0, str_compare_bytes("abc", "ABC", true));
  // Bytes compare unsigned; only a to z fold.
  EXPECT_EQ(0xE9 - 0x41, str_compare_bytes("a\xE9", "aA", false));
  EXPECT_EQ('[' - '{', str_compare_bytes("[", "{", true));
  // Zero bytes are data here.
  EXPECT_EQ('b' - 'c', str_compare_bytes("a\0b"s, "a\0c"s, false));
}

TEST(StrCompare, NaturalNumbersAndCharacters) {
  EXPECT_EQ(-1, str_compare_natural("a2", "a10", false));
  EXPECT_EQ(1, str_compare_natural("a10", "a2", false));
  EXPECT_EQ(-1, str_compare_natural("abc", "abd", false));
  // The walk stops where the first string ends: its zero byte minus "c".
  EXPECT_EQ(-'c', str_compare_natural("ab", "abc", false));
  EXPECT_EQ('I' - 'i', str_compare_natural("Item2", "item10", false));
  EXPECT_EQ(-1, str_compare_natural("Item2", "item10", true));
  // The walk ends at a zero byte.
  EXPECT_EQ(0, str_compare_natural("a\0b"s, "a\0c"s, false));
}

TEST(StrCompare, NaturalQuirksStayInBounds) {
  // Equal numbers advance both sides by the first string's digit count.
  EXPECT_EQ(0, str_compare_natural("x01", "x1", false));
  EXPECT_EQ(0, str_compare_natural("0001", "1", false));
  // A non-digit in the second string reads as 0: not symmetric.
  EXPECT_EQ(1, str_compare_natural("5", "x", false));
  EXPECT_EQ(0, str_compare_natural("0", "x", false));
  EXPECT_EQ('x' - '0', str_compare_natural("x", "0", false));
  EXPECT_EQ(1, str_compare_natural("99999999999999999999999", "1", false));
}

TEST(StrSort, OrdersIndicesByTheChosenComparison) {
  std::vector<size_t> order;
  str_sort_indices({"x10", "x9", "x1"}, false, true, order);
  EXPECT_EQ((std::vector<size_t>{2, 1, 0}), order);
  str_sort_indices({"x10", "x9", "x1"}, false, false, order);
  EXPECT_EQ((std::vector<size_t>{2, 0, 1}), order);
  str_sort_indices({"b", "B", "a"}, true, false, order);
  EXPECT_EQ((std::vector<size_t>{2, 0, 1}), order);
  // A non-transitive mix still yields a permutation.
  std::vector<std::string> mixed = {"0", "x", "5", "", "0x", "x0", "10", "01", "a", "0"};
  str_sort_indices(mixed, false, true, order);
  std::vector<size_t> sorted = order;
  std::sort(sorted.begin(), sorted.end());
  for (size_t i = 0; i < sorted.size(); i++) EXPECT_EQ(i, sorted[i]);
}

TEST(StrWhitespace, SinglespaceTrimAndRemove) {
  EXPECT_EQ("a b\nc", str_singlespace("  a \t b  \r\n\r\n   c  "));
  EXPECT_EQ("a b", str_singlespace("a\0\0b"s));
  EXPECT_EQ("", str_singlespace(" \t\r\n"));
  std::string s = "  a b  ";
  str_ltrim(s);
  EXPECT_EQ("a b  ", s);
  str_rtrim(s);
  EXPECT_EQ("a b", s);
  s = "\t a \n";
  str_ltrim(s);
  str_rtrim(s);
  EXPECT_EQ("\t a \n", s);
  EXPECT_EQ("ab", str_remove_bytes("a\r\n b\t\0"s, " \t\0\r\n"s));
}

TEST(StrCase, OnlyAsciiLetters) {
  std::string s = "aZ\xE9[1";
  str_uppercase(s);
  EXPECT_EQ("AZ\xE9[1", s);
  str_lowercase(s);
  EXPECT_EQ("az\xE9[1", s);
}

TEST(StrExplode, PiecesAndTheRest) {
  EXPECT_EQ((std::vector<std::string>{"a", "b", ""}), str_explode("a,b,", ",", false));
  EXPECT_EQ((std::vector<std::string>{""}), str_explode("", ",", false));
  EXPECT_EQ((std::vector<std::string>{"a,b"}), str_explode("a,b", "", false));
  EXPECT_EQ((std::vector<std::string>{"aXb", "c"}), str_explode("aXbxc", "x", false));
  EXPECT_EQ((std::vector<std::string>{"a", "b", "c"}), str_explode("aXbxc", "x", true));
  EXPECT_EQ((std::vector<std::string>{"", "", ""}), str_explode("::::", "::", false));
}

TEST(StrFind, PositionsAndMisses) {
  EXPECT_EQ(2, str_find("hello", "l", false));
  EXPECT_EQ(-1, str_find("hello", "", false));
  EXPECT_EQ(-1, str_find("", "a", false));
  EXPECT_EQ(-1, str_find("Hello", "hE", false));
  EXPECT_EQ(0, str_find("Hello", "hE", true));
  EXPECT_EQ(2, str_find("a\0b"s, "b", false));
}

TEST(StrQuoting, DoublingAndEscaping) {
  EXPECT_EQ("it''s", quote_double("it's", '\'', 0));
  EXPECT_EQ(" ", quote_double("", '\'', QUOTE_NOTNULL));
  EXPECT_EQ("", quote_double("", '\'', 0));
  EXPECT_EQ("a\"\"b'\0"s, quote_double("a\"b'", '"', QUOTE_APPEND_NUL));
  EXPECT_EQ("&lt;a href=&quot;x&quot;&gt;&amp;'&lt;/a&gt;", str_htmlsafe("<a href=\"x\">&'</a>"));
}
