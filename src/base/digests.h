// Checksums and digests: CRC-32 over a table for any polynomial, and MD5.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

using Crc32Table = std::array<uint32_t, 256>;

// The standard polynomial of CV-STR "crc32".
constexpr uint32_t kCrc32Polynomial = 0x04C11DB7;

// The lookup table for `polynomial`; with `reflect` every index is
// bit-reversed before and every entry after the shifting, which gives the
// usual right-shifting CRC-32.
Crc32Table crc32_table_new(uint32_t polynomial, bool reflect);
// Starts at 0xFFFFFFFF, updates right-shifting through `table`, and returns
// the complement; no bytes give 0.
uint32_t crc32_compute(const Crc32Table& table, std::string_view bytes);

// The 16-byte MD5 digest of `bytes`.
std::array<uint8_t, 16> md5_digest(std::string_view bytes);
// The digest as 32 lower-case hexadecimal digits.
std::string md5_hex(std::string_view bytes);
