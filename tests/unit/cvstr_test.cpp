// The CV-STR function table: every name is found by the halving search in
// any case, and nothing else is.
#include "functions/cvstr.h"

#include <gtest/gtest.h>

#include <cctype>
#include <string>
#include <utility>

TEST(CvstrTable, EveryNameFindsItsCode) {
  const std::pair<const char*, int> rows[] = {
      {"ascii", 0},      {"base64", 20},         {"chr", 1},        {"compare", 2},    {"crc32", 3},
      {"explode", 4},    {"find", 5},            {"htmlsafe", 22},  {"implode", 6},    {"lowercase", 7},
      {"ltrim", 8},      {"md5sum", 9},          {"parsepage", 10}, {"querysafe", 11}, {"regex", 12},
      {"reverse", 13},   {"rtrim", 14},          {"singlespace", 15}, {"sort", 16},    {"stripnewlines", 21},
      {"stripwhitespace", 17}, {"uniqueID", 18}, {"uppercase", 19}, {"url", 23}};
  for (const auto& [name, code] : rows) {
    EXPECT_EQ(code, cvstr_function_code(name)) << name;
    std::string upper = name;
    for (char& c : upper) c = char(std::toupper(static_cast<unsigned char>(c)));
    EXPECT_EQ(code, cvstr_function_code(upper)) << upper;
  }
  EXPECT_EQ(5, cvstr_function_code("Find"));
  EXPECT_EQ(18, cvstr_function_code("uniqueid"));
}

TEST(CvstrTable, OtherNamesAreNotFound) {
  for (const char* name : {"finds", "", "a", "zzz", "url ", "upper", "md5", "strip"})
    EXPECT_EQ(-1, cvstr_function_code(name)) << name;
  EXPECT_EQ(-1, cvstr_function_code(std::string("url\0", 4)));
}
