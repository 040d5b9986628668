// CRC-32 and MD5 against their published check values.
#include "base/digests.h"

#include <gtest/gtest.h>

#include <string>

TEST(Crc32, StandardCheckValue) {
  Crc32Table table = crc32_table_new(kCrc32Polynomial, true);
  EXPECT_EQ(0xCBF43926u, crc32_compute(table, "123456789"));
  EXPECT_EQ(0u, crc32_compute(table, ""));
  // The reflected table's first entries are the well-known ones.
  EXPECT_EQ(0x77073096u, table[1]);
  EXPECT_EQ(0xEDB88320u, table[128]);
  // Zero bytes are data.
  EXPECT_EQ(0xD202EF8Du, crc32_compute(table, std::string(1, '\0')));
}

TEST(Crc32, NonReflectedTable) {
  Crc32Table table = crc32_table_new(kCrc32Polynomial, false);
  EXPECT_EQ(0x04C11DB7u, table[1]);
  EXPECT_EQ(0x09823B6Eu, table[2]);
  // The same right-shifting update over the other table: not the standard sum.
  EXPECT_NE(0xCBF43926u, crc32_compute(table, "123456789"));
}

TEST(Md5, Rfc1321Suite) {
  EXPECT_EQ("d41d8cd98f00b204e9800998ecf8427e", md5_hex(""));
  EXPECT_EQ("0cc175b9c0f1b6a831c399e269772661", md5_hex("a"));
  EXPECT_EQ("900150983cd24fb0d6963f7d28e17f72", md5_hex("abc"));
  EXPECT_EQ("f96b697d7cb7938d525a2f31aaf161d0", md5_hex("message digest"));
  EXPECT_EQ("c3fcd3d76192e4007dfb496cca67e13b", md5_hex("abcdefghijklmnopqrstuvwxyz"));
  EXPECT_EQ("d174ab98d277d9f5a5611c2c9f419d9f",
            md5_hex("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789"));
  EXPECT_EQ("57edf4a22be3c955ac49da2e2107b67a",
            md5_hex("1234567890123456789012345678901234567890123456789012345678901234567890123456789"
                    "0"));
}

TEST(Md5, PaddingBoundaries) {
  // 55 bytes fit the length into one tail block, 56 need a second.
  EXPECT_EQ("ef1772b6dff9a122358552954ad0df65", md5_hex(std::string(55, 'a')));
  EXPECT_EQ("3b0c8ac703f828b04c6c197006d17218", md5_hex(std::string(56, 'a')));
  EXPECT_EQ("014842d480b571495a4a0363793f7367", md5_hex(std::string(64, 'a')));
}
