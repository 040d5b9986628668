// Regex matching: group depths from the pattern, capture records, the
// result tree, and failures (bad patterns, runaway backtracking).
#include "values/regex.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace std::string_literals;

namespace {

using Depths = std::vector<uint32_t>;

// The tree in a compact form: text or "start-end", children in brackets.
std::string describe(const Value& list, bool ranges) {
  std::string out = "[";
  for (size_t i = 0; i < list.list.size(); i++) {
    const Value& e = *list.list[i];
    if (i) out += ",";
    if (ranges)
      out += std::to_string(e.list[0]->integer) + "-" + std::to_string(e.list[1]->integer);
    else
      out += e.list[0]->bytes;
    out += describe(*e.list.back(), ranges);
  }
  return out + "]";
}

}  // namespace

TEST(RegexDepths, FollowCapturingParentheses) {
  EXPECT_EQ((Depths{0, 1, 2, 2, 3, 1}), regex_group_depths("(a(b)(c(d)))e(f)"));
  // Non-capturing groups and lookarounds do not count; named groups do.
  EXPECT_EQ((Depths{0, 1, 1}), regex_group_depths("(?:a(b))(?=y)(?<n>x)(?<=z)"));
  EXPECT_EQ((Depths{0, 1, 2}), regex_group_depths("(?'a'x(?P<b>y))(?P=b)"));
}

TEST(RegexDepths, SkipLiteralParentheses) {
  EXPECT_EQ((Depths{0}), regex_group_depths("[]()]\\(\\)"));
  EXPECT_EQ((Depths{0}), regex_group_depths("[^]a(][[:alpha:]()]"));
  EXPECT_EQ((Depths{0, 1}), regex_group_depths("\\Q(a)\\E(b)"));
  EXPECT_EQ((Depths{0, 1}), regex_group_depths("(?#(c)(a)"));
  // Unbalanced text does not upset the walk.
  EXPECT_EQ((Depths{0, 1}), regex_group_depths("))(a"));
}

TEST(RegexMatch, RecordsSkipUnsetGroups) {
  std::vector<RegexCapture> caps;
  ASSERT_EQ(REGEX_MATCH, regex_match("(a(b)?)(c)", "xac", &caps));
  ASSERT_EQ(4u, caps.size());
  EXPECT_TRUE(caps[0].capturing);
  EXPECT_EQ(1u, caps[0].start);
  EXPECT_EQ(3u, caps[0].end);
  EXPECT_FALSE(caps[2].capturing);
  EXPECT_EQ(2u, caps[2].depth);
  EXPECT_EQ("[ac[a[],c[]]]", describe(*regex_result_tree(caps, "xac", false), false));
}

TEST(RegexMatch, NestedTreeOfValuesAndRanges) {
  std::vector<RegexCapture> caps;
  ASSERT_EQ(REGEX_MATCH, regex_match("((a)(b))c(d)?", "abc", &caps));
  EXPECT_EQ("[abc[ab[a[],b[]]]]", describe(*regex_result_tree(caps, "abc", false), false));
  EXPECT_EQ("[0-3[0-2[0-1[],1-2[]]]]", describe(*regex_result_tree(caps, "abc", true), true));
  // After a deeper group, a shallower one returns to its own level.
  ASSERT_EQ(REGEX_MATCH, regex_match("(x(y(z)))(w)", "xyzw", &caps));
  EXPECT_EQ("[xyzw[xyz[yz[z[]]],w[]]]", describe(*regex_result_tree(caps, "xyzw", false), false));
}

TEST(RegexMatch, ZeroBytesAreData) {
  std::vector<RegexCapture> caps;
  ASSERT_EQ(REGEX_MATCH, regex_match("a\0(b)"s, "xa\0b"s, &caps));
  EXPECT_EQ(1u, caps[0].start);
  EXPECT_EQ(4u, caps[0].end);
  EXPECT_EQ(3u, caps[1].start);
}

TEST(RegexMatch, NoMatchAndFailures) {
  std::vector<RegexCapture> caps;
  EXPECT_EQ(REGEX_NO_MATCH, regex_match("x", "abc", &caps));
  EXPECT_EQ(REGEX_FAILED, regex_match("(", "abc", &caps));
  EXPECT_EQ(REGEX_FAILED, regex_match("a{2,1}", "abc", &caps));
  // Catastrophic backtracking ends at the match limit instead of hanging.
  EXPECT_EQ(REGEX_FAILED, regex_match("(a|aa)+(b|c)+$", std::string(60, 'a') + "!", &caps));
}

TEST(RegexMatch, BranchResetFallsBackToFlatDepths) {
  std::vector<RegexCapture> caps;
  ASSERT_EQ(REGEX_MATCH, regex_match("(?|(a)|(b))(c)", "bc", &caps));
  ASSERT_EQ(3u, caps.size());
  EXPECT_EQ("[bc[b[],c[]]]", describe(*regex_result_tree(caps, "bc", false), false));
}
