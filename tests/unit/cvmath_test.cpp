// Tests of the CV-MATH operation table search.
#include "functions/cvmath.h"

#include <gtest/gtest.h>

#include <utility>

namespace {

// Every name with its code, in the order operations are documented, which
// is not sorted order: a misplaced row would hide names from the search.
const std::pair<const char*, int> kDocumented[] = {
    {"abs", 0},        {"arccos", 1},      {"arccosh", 2},     {"arccot", 3},   {"arccoth", 4},
    {"arccsc", 5},     {"arccsch", 6},     {"arcsec", 7},      {"arcsech", 8},  {"arcsin", 9},
    {"arcsinh", 10},   {"arctan", 11},     {"arctan2", 12},    {"arctanh", 13}, {"ceil", 14},
    {"cos", 15},       {"cosh", 16},       {"cot", 17},        {"coth", 18},    {"csc", 19},
    {"csch", 20},      {"deg2rad", 21},    {"disable", 22},    {"enable", 23},  {"exp", 24},
    {"factorial", 25}, {"floor", 26},      {"ldexp", 27},      {"log10", 28},   {"loge", 29},
    {"logn", 30},      {"baseconvert", 31}, {"ncr", 36},       {"npr", 37},     {"pi", 38},
    {"polar2rect", 39}, {"pow", 40},       {"pow10", 41},      {"rad2deg", 42}, {"rand", 43},
    {"rect2polar", 44}, {"round", 45},     {"sec", 46},        {"sech", 47},    {"setprecision", 48},
    {"sin", 49},       {"sinh", 50},       {"sqrt", 51},       {"tan", 53},     {"tanh", 54},
};

TEST(CvmathOperations, EveryNameFindsItsCode) {
  for (auto [name, code] : kDocumented) EXPECT_EQ(code, cvmath_operation_code(name)) << name;
}

TEST(CvmathOperations, CaseIsIgnoredAndNearNamesMiss) {
  EXPECT_EQ(51, cvmath_operation_code("SQRT"));
  EXPECT_EQ(31, cvmath_operation_code("BaseConvert"));
  for (const char* name : {"", "a", "arc", "arctan3", "sqr", "sqrtt", "pow1", "tanhh", "zzz", "log"})
    EXPECT_EQ(-1, cvmath_operation_code(name)) << name;
}

}  // namespace
