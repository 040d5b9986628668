// URL encoding and decoding, Base64 encoding and decoding.
#include "base/encoders.h"

#include <array>
#include <cstdint>

namespace {

constexpr char kHexUpper[] = "0123456789ABCDEF";
constexpr char kBase64Alphabet[] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr size_t kBase64LineLength = 76;

// Bytes that travel through a URL unchanged.
constexpr std::array<bool, 256> kUrlSafe = [] {
  std::array<bool, 256> safe{};
  for (int c = '0'; c <= '9'; ++c) safe[c] = true;
  for (int c = 'A'; c <= 'Z'; ++c) safe[c] = true;
  for (int c = 'a'; c <= 'z'; ++c) safe[c] = true;
  safe['*'] = safe['-'] = safe['.'] = safe['_'] = true;
  return safe;
}();

// Value of a hexadecimal digit; anything else counts as 0.
constexpr std::array<uint8_t, 256> kHexValue = [] {
  std::array<uint8_t, 256> v{};
  for (int c = '0'; c <= '9'; ++c) v[c] = static_cast<uint8_t>(c - '0');
  for (int c = 'A'; c <= 'F'; ++c) v[c] = static_cast<uint8_t>(c - 'A' + 10);
  for (int c = 'a'; c <= 'f'; ++c) v[c] = static_cast<uint8_t>(c - 'a' + 10);
  return v;
}();

// Six-bit value of a Base64 character, or -1 for a byte to skip.
constexpr std::array<int8_t, 256> kBase64Value = [] {
  std::array<int8_t, 256> v{};
  for (auto& x : v) x = -1;
  for (int i = 0; i < 64; ++i) v[static_cast<uint8_t>(kBase64Alphabet[i])] = static_cast<int8_t>(i);
  return v;
}();

uint8_t byte_at(std::string_view s, size_t i) { return static_cast<uint8_t>(s[i]); }

}  // namespace

std::string url_encode(std::string_view bytes) {
  size_t unsafe = 0;
  for (char c : bytes) unsafe += !kUrlSafe[static_cast<uint8_t>(c)];
  // Most texts need no escaping at all; they are copied as they stand.
  if (unsafe == 0) return std::string(bytes);
  std::string out;
  out.reserve(bytes.size() + 2 * unsafe);
  for (char c : bytes) {
    uint8_t b = static_cast<uint8_t>(c);
    if (kUrlSafe[b]) {
      out.push_back(c);
    } else {
      out.push_back('%');
      out.push_back(kHexUpper[b >> 4]);
      out.push_back(kHexUpper[b & 15]);
    }
  }
  return out;
}

std::string url_decode(std::string_view text) {
  if (text.find_first_of("%+") == std::string_view::npos) return std::string(text);
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    char c = text[i];
    if (c == '+') {
      out.push_back(' ');
    } else if (c == '%' && i + 2 < text.size() && text[i + 1] != '\0' && text[i + 2] != '\0') {
      out.push_back(static_cast<char>(kHexValue[byte_at(text, i + 1)] << 4 |
                                      kHexValue[byte_at(text, i + 2)]));
      i += 2;
    } else {
      // A "%" cut short is kept, and the characters after it read as usual.
      out.push_back(c);
    }
  }
  return out;
}

std::string base64_encode(std::string_view bytes, std::string_view line_break) {
  size_t groups = (bytes.size() + 2) / 3;
  size_t breaks = groups > 0 ? (groups - 1) / (kBase64LineLength / 4) : 0;
  std::string out;
  out.reserve(groups * 4 + breaks * line_break.size());
  size_t line = 0;
  for (size_t i = 0; i < bytes.size(); i += 3) {
    // The break goes before a group, so the text never ends with one.
    if (line >= kBase64LineLength) {
      out.append(line_break);
      line = 0;
    }
    size_t left = bytes.size() - i;
    uint32_t v = uint32_t{byte_at(bytes, i)} << 16;
    if (left > 1) v |= uint32_t{byte_at(bytes, i + 1)} << 8;
    if (left > 2) v |= byte_at(bytes, i + 2);
    out.push_back(kBase64Alphabet[v >> 18 & 63]);
    out.push_back(kBase64Alphabet[v >> 12 & 63]);
    out.push_back(left > 1 ? kBase64Alphabet[v >> 6 & 63] : '=');
    out.push_back(left > 2 ? kBase64Alphabet[v & 63] : '=');
    line += 4;
  }
  return out;
}

std::string base64_decode(std::string_view text) {
  std::string out;
  out.reserve(text.size() / 4 * 3 + 2);
  uint32_t acc = 0;
  int count = 0;
  for (char c : text) {
    int8_t v = kBase64Value[static_cast<uint8_t>(c)];
    if (v < 0) continue;
    acc = acc << 6 | static_cast<uint32_t>(v);
    if (++count == 4) {
      out.push_back(static_cast<char>(acc >> 16));
      out.push_back(static_cast<char>(acc >> 8 & 255));
      out.push_back(static_cast<char>(acc & 255));
      acc = 0;
      count = 0;
    }
  }
  // Two left-over characters carry one byte, three carry two; one alone
  // does not make a byte and is dropped.
  if (count == 2) {
    out.push_back(static_cast<char>(acc >> 4));
  } else if (count == 3) {
    out.push_back(static_cast<char>(acc >> 10));
    out.push_back(static_cast<char>(acc >> 2 & 255));
  }
  return out;
}
