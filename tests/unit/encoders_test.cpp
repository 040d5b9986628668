// Tests for URL encoding and decoding and for Base64.
#include "base/encoders.h"

#include <gtest/gtest.h>

#include <string>

using namespace std::string_literals;

namespace {

std::string repeat(std::string_view s, size_t n) {
  std::string out;
  for (size_t i = 0; i < n; ++i) out.append(s);
  return out;
}

TEST(UrlEncode, EscapesAllButTheSafeSet) {
  EXPECT_EQ("%20*-._%7E%FF", url_encode(" *-._~\xff"));
  EXPECT_EQ("azAZ09", url_encode("azAZ09"));
  EXPECT_EQ("", url_encode(""));
  EXPECT_EQ("a%2Fb%3D%26%25%2B", url_encode("a/b=&%+"));
  EXPECT_EQ("%00x%0A%80", url_encode("\0x\n\x80"s));
}

TEST(UrlDecode, PercentPlusAndShortEscapes) {
  EXPECT_EQ("AJ \0%4"s, url_decode("%41%4a+%zz%4"));
  EXPECT_EQ("100%", url_decode("100%"));
  EXPECT_EQ("@\x04", url_decode("%4g%g4"));
  EXPECT_EQ("\xff\xab", url_decode("%fF%Ab"));
  EXPECT_EQ("plain text", url_decode("plain text"));
  EXPECT_EQ("a  b", url_decode("a++b"));
  // Decoded bytes are not decoded again.
  EXPECT_EQ("%41", url_decode("%2541"));
}

TEST(UrlDecode, ZeroBytesAreDataButStopAnEscape) {
  EXPECT_EQ("%\0AB"s, url_decode("%\0AB"s));
  EXPECT_EQ("%A\0"s, url_decode("%A\0"s));
  EXPECT_EQ("a\0b "s, url_decode("a\0b+"s));
}

TEST(UrlRoundTrip, EveryByte) {
  std::string all;
  for (int i = 0; i < 256; ++i) all.push_back(static_cast<char>(i));
  EXPECT_EQ(all, url_decode(url_encode(all)));
}

TEST(Base64, Rfc4648Vectors) {
  EXPECT_EQ("", base64_encode(""));
  EXPECT_EQ("Zg==", base64_encode("f"));
  EXPECT_EQ("Zm8=", base64_encode("fo"));
  EXPECT_EQ("Zm9v", base64_encode("foo"));
  EXPECT_EQ("Zm9vYg==", base64_encode("foob"));
  EXPECT_EQ("Zm9vYmE=", base64_encode("fooba"));
  EXPECT_EQ("Zm9vYmFy", base64_encode("foobar"));
  EXPECT_EQ("foobar", base64_decode("Zm9vYmFy"));
  EXPECT_EQ("fooba", base64_decode("Zm9vYmE="));
  EXPECT_EQ("f", base64_decode("Zg=="));
  EXPECT_EQ("+/8=", base64_encode("\xfb\xff"));
}

TEST(Base64, RoundTripsShortBinaryInputs) {
  std::string bytes = "\0\xff\x80\x01\x7f"s;
  for (size_t n = 0; n <= bytes.size(); ++n) {
    std::string in = bytes.substr(0, n);
    EXPECT_EQ(in, base64_decode(base64_encode(in))) << "length " << n;
    EXPECT_EQ((n + 2) / 3 * 4, base64_encode(in).size());
  }
}

TEST(Base64, LineBreakBeforeGroupsPastColumn76) {
  // 57 bytes fill exactly one 76-character line: no break.
  EXPECT_EQ(repeat("YWFh", 19), base64_encode(std::string(57, 'a'), "\r\n"));
  EXPECT_EQ(repeat("YWFh", 19) + "\r\nYQ==", base64_encode(std::string(58, 'a'), "\r\n"));
  EXPECT_EQ(repeat("YWFh", 19) + "\r\n" + repeat("YWFh", 19),
            base64_encode(std::string(114, 'a'), "\r\n"));
  EXPECT_EQ(repeat("YWFh", 19) + "\n" + repeat("YWFh", 19) + "\nYWE=",
            base64_encode(std::string(116, 'a'), "\n"));
  // Without a break text the output is one line.
  EXPECT_EQ(repeat("YWFh", 20), base64_encode(std::string(60, 'a')));
}

TEST(Base64, DecodingSkipsJunkAndTakesMissingPadding) {
  EXPECT_EQ("foobar", base64_decode("Zm9v\r\nYmFy"));
  EXPECT_EQ("foob", base64_decode(" Z m 9 v Y g "));
  EXPECT_EQ("foob", base64_decode("Zm9vYg"));
  EXPECT_EQ("fooba", base64_decode("Zm9vYmE"));
  EXPECT_EQ("foo", base64_decode("Zm9vY"));  // a single left-over is dropped
  EXPECT_EQ("f", base64_decode("Z\0g=="s));
  EXPECT_EQ("", base64_decode("=*!"));
  // "=" in the middle is skipped too, so the groups run on.
  EXPECT_EQ(base64_decode("Zm9vYmFy"), base64_decode("Zm9=vYm=Fy"));
  std::string long_text(200, 'x');
  EXPECT_EQ(long_text, base64_decode(base64_encode(long_text, "\r\n")));
}

}  // namespace
