// Tests for request parsing (query pairs, cookies) and the path helpers.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "runtime/output.h"
#include "runtime/request.h"

using namespace std::string_literals;

namespace {

// Pairs as "key=value" texts, "|"-joined, so one comparison shows them all.
std::string joined(const std::vector<RequestPair>& pairs) {
  std::string out;
  for (const RequestPair& p : pairs) {
    if (!out.empty()) out += '|';
    out += p.key + "=" + p.value;
  }
  return out;
}

std::string resolved(std::string_view base, std::string_view relative) {
  std::string out;
  return resolve_path(base, relative, &out) ? out : "(fails)";
}

std::string page_dir(std::string_view directory, std::string_view target) {
  std::string out;
  return resolve_page_directory(directory, target, &out) ? out : "(absolute)";
}

TEST(ParsePairs, MissingAndEmptyValues) {
  EXPECT_EQ("a=1|b=|c=", joined(parse_pairs("a=1&b&c=")));
  // Only the first "=" splits; an empty piece is a pair with an empty key.
  EXPECT_EQ("a==b|=v|=", joined(parse_pairs("a==b&=v&")));
  EXPECT_EQ("=|=|=", joined(parse_pairs("&&")));
  EXPECT_EQ(1u, parse_pairs("").size());
}

TEST(ParsePairs, StopAtTheBound) {
  EXPECT_EQ("a=1|b=", joined(parse_pairs("a=1&b&c=3", 2)));
  EXPECT_EQ("x=1", joined(parse_cookies("x=1; y=2; z", 1)));
  EXPECT_EQ(0u, parse_pairs("a=1", 0).size());
}

TEST(ParsePairs, KeysAndValuesAreDecoded) {
  EXPECT_EQ("k y=a b|A=jj @", joined(parse_pairs("k+y=a%20b&%41=%6A%6a+%4g")));
  // A "%" with fewer than two characters after it stays as written.
  EXPECT_EQ("d=%4|e=%", joined(parse_pairs("d=%4&e=%")));
  // Decoded separators are data, not separators.
  EXPECT_EQ("a&b=c=d", joined(parse_pairs("a%26b=c%3Dd")));
  std::vector<RequestPair> pairs = parse_pairs("z=%00x");
  ASSERT_EQ(1u, pairs.size());
  EXPECT_EQ("\0x"s, pairs[0].value);
}

TEST(ParsePairs, RepeatedKeysKeepTheirOrder) {
  // request_variables reverses them; the parser keeps the request's order.
  EXPECT_EQ("a=1|a=2|A=3", joined(parse_pairs("a=1&a=2&A=3")));
}

TEST(ParseCookies, KeyWithoutValue) {
  EXPECT_EQ("x=1|y=", joined(parse_cookies("x=1; y")));
  EXPECT_EQ("x=1|y=", joined(parse_cookies("x=1;y;")));
}

TEST(ParseCookies, SeparatorsAndSpaces) {
  // Runs of "=", " " and ";" before a key are skipped; spaces around "="
  // are dropped, spaces inside and after the value are kept.
  EXPECT_EQ("z=two words |w=|k==v", joined(parse_cookies(" ;; z = two words ;=w;k==v")));
  EXPECT_EQ("a=|b=", joined(parse_cookies("a b")));
  EXPECT_EQ("", joined(parse_cookies("")));
  EXPECT_EQ("", joined(parse_cookies(" =;= ;")));
  // Nothing is URL-decoded.
  EXPECT_EQ("e=%41+b", joined(parse_cookies("e=%41+b")));
}

TEST(PathParts, DirectoryAndFile) {
  EXPECT_EQ("a/b/", directory_part("a/b/c.cvm"));
  EXPECT_EQ("c.cvm", file_part("a/b/c.cvm"));
  EXPECT_EQ("", directory_part("c.cvm"));
  EXPECT_EQ("c.cvm", file_part("c.cvm"));
  EXPECT_EQ("/site/", directory_part("/site/"));
  EXPECT_EQ("", file_part("/site/"));
  EXPECT_EQ("", directory_part(""));
}

TEST(ResolvePath, DotSegmentsAndRoot) {
  EXPECT_EQ("/a/b/d/", resolved("/a/b", "c/../d"));
  EXPECT_EQ("/a/", resolved("/a/b/", "./.."));
  EXPECT_EQ("/x/y/", resolved("/", "x//./y/"));
  EXPECT_EQ("/", resolved("", ""));
  EXPECT_EQ("/", resolved("/a", ".."));
  EXPECT_EQ("(fails)", resolved("/a", "../.."));
  EXPECT_EQ("(fails)", resolved("/", ".."));
}

TEST(ResolvePageDirectory, RelativeTargets) {
  EXPECT_EQ("/a/other/", page_dir("/a/b/", "../other/page.cvm"));
  EXPECT_EQ("/a/b/", page_dir("/a/b/", "page.cvm"));
  EXPECT_EQ("/a/b/", page_dir("/a/b/", "./page.cvm"));
  EXPECT_EQ("/a/b/c/", page_dir("/a/b/", "c/page.cvm"));
  // Only components followed by "/" are walked.
  EXPECT_EQ("/a/b/", page_dir("/a/b/", ".."));
  // ".." stops at the root.
  EXPECT_EQ("/", page_dir("/a/", "../../../p"));
}

TEST(ResolvePageDirectory, EmptyComponentsRestartAtRoot) {
  EXPECT_EQ("/x/", page_dir("/a/b/", "/x/y.cvm"));
  EXPECT_EQ("/y/", page_dir("/a/b/", "x//y/page.cvm"));
  EXPECT_EQ("/", page_dir("/a/b/", "/page.cvm"));
}

TEST(ResolvePageDirectory, SchemesMakeTargetsAbsolute) {
  EXPECT_EQ("(absolute)", page_dir("/a/", "http://host/p.cvm"));
  EXPECT_EQ("(absolute)", page_dir("/a/", "x/ftp://host/"));
  // A colon without "//" after it is an ordinary component.
  EXPECT_EQ("/a/c:/", page_dir("/a/", "c:/x"));
  EXPECT_EQ("/a/", page_dir("/a/", "mailto:x"));
}

}  // namespace
