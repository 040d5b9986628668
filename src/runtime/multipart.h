// multipart/form-data bodies, as browsers send forms with file fields:
// the boundary from the Content-Type, and the parts of a body.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

struct MultipartPart {
  std::string name;          // the field name
  bool is_file = false;      // the part carried a filename parameter
  std::string filename;      // as sent, without any directory part
  std::string content_type;  // the part's Content-Type, empty when absent
  std::string_view data;     // the part's bytes, inside the parsed body
};

enum MultipartStatus {
  MULTIPART_OK,         // every part up to the closing boundary
  MULTIPART_TRUNCATED,  // the body ended inside a part: that part is dropped
  MULTIPART_MALFORMED,  // a delimiter or header block that cannot be read
  MULTIPART_TOO_MANY,   // more parts than the caller allows
};

struct MultipartForm {
  std::vector<MultipartPart> parts;  // complete parts, in body order
  MultipartStatus status = MULTIPART_OK;
};

// True for a Content-Type of multipart/form-data (any case, any parameters).
bool is_multipart_form(std::string_view content_type);
// The boundary parameter of such a Content-Type, unquoted; empty when it is
// missing or not a valid boundary (1 to 70 characters, no line breaks).
std::string multipart_boundary(std::string_view content_type);
// Cuts `body` at the boundary's delimiter lines.  Lines may end in CR LF or
// LF alone.  Parts without a form-data name are skipped.  Keeps at most
// `max_parts` parts; the parts returned always ended at a delimiter.
MultipartForm parse_multipart(std::string_view body, std::string_view boundary, size_t max_parts);
