// CRC-32 tables and checksums, and the MD5 message digest.
#include "base/digests.h"

#include <cstring>

namespace {

uint32_t reverse_bits(uint32_t v, int width) {
  uint32_t r = 0;
  for (int i = 0; i < width; i++) {
    r = (r << 1) | (v & 1);
    v >>= 1;
  }
  return r;
}

// ---------------------------------------------------------------------------
// MD5: the four rounds of 16 steps over 64-byte blocks, little-endian words.

constexpr uint32_t kSine[64] = {
    0xd76aa478, 0xe8c7b756, 0x242070db, 0xc1bdceee, 0xf57c0faf, 0x4787c62a, 0xa8304613, 0xfd469501,
    0x698098d8, 0x8b44f7af, 0xffff5bb1, 0x895cd7be, 0x6b901122, 0xfd987193, 0xa679438e, 0x49b40821,
    0xf61e2562, 0xc040b340, 0x265e5a51, 0xe9b6c7aa, 0xd62f105d, 0x02441453, 0xd8a1e681, 0xe7d3fbc8,
    0x21e1cde6, 0xc33707d6, 0xf4d50d87, 0x455a14ed, 0xa9e3e905, 0xfcefa3f8, 0x676f02d9, 0x8d2a4c8a,
    0xfffa3942, 0x8771f681, 0x6d9d6122, 0xfde5380c, 0xa4beea44, 0x4bdecfa9, 0xf6bb4b60, 0xbebfbc70,
    0x289b7ec6, 0xeaa127fa, 0xd4ef3085, 0x04881d05, 0xd9d4d039, 0xe6db99e5, 0x1fa27cf8, 0xc4ac5665,
    0xf4292244, 0x432aff97, 0xab9423a7, 0xfc93a039, 0x655b59c3, 0x8f0ccc92, 0xffeff47d, 0x85845dd1,
    0x6fa87e4f, 0xfe2ce6e0, 0xa3014314, 0x4e0811a1, 0xf7537e82, 0xbd3af235, 0x2ad7d2bb, 0xeb86d391};

constexpr int kShift[64] = {7, 12, 17, 22, 7, 12, 17, 22, 7, 12, 17, 22, 7, 12, 17, 22,
                            5, 9,  14, 20, 5, 9,  14, 20, 5, 9,  14, 20, 5, 9,  14, 20,
                            4, 11, 16, 23, 4, 11, 16, 23, 4, 11, 16, 23, 4, 11, 16, 23,
                            6, 10, 15, 21, 6, 10, 15, 21, 6, 10, 15, 21, 6, 10, 15, 21};

uint32_t rotate_left(uint32_t x, int n) { return (x << n) | (x >> (32 - n)); }

void md5_block(uint32_t state[4], const uint8_t* block) {
  uint32_t m[16];
  for (int i = 0; i < 16; i++)
    m[i] = uint32_t(block[i * 4]) | uint32_t(block[i * 4 + 1]) << 8 | uint32_t(block[i * 4 + 2]) << 16 |
           uint32_t(block[i * 4 + 3]) << 24;
  uint32_t a = state[0], b = state[1], c = state[2], d = state[3];
  for (int i = 0; i < 64; i++) {
    uint32_t f;
    int g;
    if (i < 16) {
      f = (b & c) | (~b & d);
      g = i;
    } else if (i < 32) {
      f = (d & b) | (~d & c);
      g = (5 * i + 1) % 16;
    } else if (i < 48) {
      f = b ^ c ^ d;
      g = (3 * i + 5) % 16;
    } else {
      f = c ^ (b | ~d);
      g = (7 * i) % 16;
    }
    uint32_t next = b + rotate_left(a + f + kSine[i] + m[g], kShift[i]);
    a = d;
    d = c;
    c = b;
    b = next;
  }
  state[0] += a;
  state[1] += b;
  state[2] += c;
  state[3] += d;
}

}  // namespace

Crc32Table crc32_table_new(uint32_t polynomial, bool reflect) {
  Crc32Table table{};
  for (uint32_t i = 0; i < 256; i++) {
    uint32_t r = (reflect ? reverse_bits(i, 8) : i) << 24;
    for (int bit = 0; bit < 8; bit++) r = (r & 0x80000000u) ? (r << 1) ^ polynomial : r << 1;
    table[i] = reflect ? reverse_bits(r, 32) : r;
  }
  return table;
}

uint32_t crc32_compute(const Crc32Table& table, std::string_view bytes) {
  uint32_t crc = 0xFFFFFFFFu;
  for (unsigned char b : bytes) crc = (crc >> 8) ^ table[(crc ^ b) & 0xFF];
  return ~crc;
}

std::array<uint8_t, 16> md5_digest(std::string_view bytes) {
  uint32_t state[4] = {0x67452301, 0xefcdab89, 0x98badcfe, 0x10325476};
  size_t full = bytes.size() / 64 * 64;
  for (size_t at = 0; at < full; at += 64) md5_block(state, reinterpret_cast<const uint8_t*>(bytes.data()) + at);

  // The tail, a 0x80 byte, zeros up to 56 mod 64, and the bit length.
  uint8_t tail[128] = {};
  size_t rest = bytes.size() - full;
  if (rest) std::memcpy(tail, bytes.data() + full, rest);
  tail[rest] = 0x80;
  size_t tail_size = rest < 56 ? 64 : 128;
  uint64_t bits = uint64_t(bytes.size()) * 8;
  for (int i = 0; i < 8; i++) tail[tail_size - 8 + i] = uint8_t(bits >> (8 * i));
  for (size_t at = 0; at < tail_size; at += 64) md5_block(state, tail + at);

  std::array<uint8_t, 16> digest{};
  for (int i = 0; i < 16; i++) digest[i] = uint8_t(state[i / 4] >> (8 * (i % 4)));
  return digest;
}

std::string md5_hex(std::string_view bytes) {
  static constexpr char kHex[] = "0123456789abcdef";
  std::string out;
  for (uint8_t b : md5_digest(bytes)) {
    out += kHex[b >> 4];
    out += kHex[b & 15];
  }
  return out;
}
