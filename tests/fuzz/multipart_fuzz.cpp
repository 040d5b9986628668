// Fuzz target for multipart/form-data bodies: the boundary of a
// Content-Type and the parts of a body.
//
// Input: Content-Type value, "\n", body (any bytes).  Checks that every
// part lies inside the body and that the parser keeps to its part bound.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "runtime/multipart.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view input(reinterpret_cast<const char*>(data), size);
  size_t nl = input.find('\n');
  std::string_view content_type = input.substr(0, nl);
  std::string_view body = nl == std::string_view::npos ? std::string_view() : input.substr(nl + 1);

  is_multipart_form(content_type);
  std::string boundary = multipart_boundary(content_type);
  if (boundary.size() > 70) std::abort();
  // A short boundary of the body's own bytes reaches the deeper paths more
  // often than one the fuzzer must first guess.
  for (const std::string& b : {boundary, std::string("b")}) {
    MultipartForm form = parse_multipart(body, b, 8);
    if (form.parts.size() > 8) std::abort();
    for (const MultipartPart& part : form.parts) {
      if (part.data.data() < body.data() || part.data.data() + part.data.size() > body.data() + body.size())
        std::abort();
      if (part.filename.find_first_of("/\\") != std::string::npos) std::abort();
    }
  }
  return 0;
}
