// Text encoders shared across the engine: URL encoding and decoding, Base64.
#pragma once

#include <string>
#include <string_view>

// Keeps "*", "-", ".", digits, letters and "_"; every other byte becomes
// "%XX" with upper-case hexadecimal digits.
std::string url_encode(std::string_view bytes);
// "+" becomes a space; "%" and two more characters becomes the byte of those
// two hexadecimal digits (a non-digit counts as 0); a "%" with fewer than two
// characters after it, or with a zero byte among them, is kept.  Other zero
// bytes are data.
std::string url_decode(std::string_view text);
// Standard alphabet with "=" fill; `line_break` is inserted before a group
// whenever the current line has reached 76 characters.
std::string base64_encode(std::string_view bytes, std::string_view line_break = {});
// Skips every character outside the alphabet (zero bytes included).
std::string base64_decode(std::string_view text);
