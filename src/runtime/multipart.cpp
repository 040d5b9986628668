// multipart/form-data parsing: delimiter lines, part headers and the
// Content-Disposition parameters a form sends.
#include "runtime/multipart.h"

#include <string.h>

#include <algorithm>
#include <cctype>

namespace {

// Longest header block of one part; a browser sends two short lines.
constexpr size_t kMaxPartHeader = 16384;

char lower(char c) { return static_cast<char>(std::tolower(static_cast<unsigned char>(c))); }

bool equals_nocase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    if (lower(a[i]) != lower(b[i])) return false;
  }
  return true;
}

std::string_view trim(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t')) s.remove_suffix(1);
  return s;
}

// Position of `needle` in `haystack` from `from`, or npos; linear time
// whatever the input (glibc's memmem).
size_t find_bytes(std::string_view haystack, std::string_view needle, size_t from) {
  if (from > haystack.size() || haystack.size() - from < needle.size()) return std::string_view::npos;
  const void* hit = ::memmem(haystack.data() + from, haystack.size() - from, needle.data(), needle.size());
  return hit ? static_cast<size_t>(static_cast<const char*>(hit) - haystack.data()) : std::string_view::npos;
}

// One parameter list of a header value: "form-data; name=\"a\"; filename=b".
// Calls `take(name, value)` for each parameter after the first item.
template <typename F>
void each_parameter(std::string_view value, F take) {
  size_t i = value.find(';');
  while (i != std::string_view::npos && i < value.size()) {
    ++i;
    while (i < value.size() && (value[i] == ' ' || value[i] == '\t')) ++i;
    size_t eq = i;
    while (eq < value.size() && value[eq] != '=' && value[eq] != ';') ++eq;
    std::string_view name = trim(value.substr(i, eq - i));
    std::string text;
    if (eq < value.size() && value[eq] == '=') {
      size_t j = eq + 1;
      while (j < value.size() && (value[j] == ' ' || value[j] == '\t')) ++j;
      if (j < value.size() && value[j] == '"') {
        // A quoted string, to the next double quote: browsers send a double
        // quote inside a name as "%22" and backslashes as they are (a
        // Windows path in a file name), so a backslash escapes nothing.
        for (++j; j < value.size() && value[j] != '"'; ++j) text += value[j];
        i = value.find(';', j);
      } else {
        size_t end = value.find(';', j);
        text = trim(value.substr(j, end == std::string_view::npos ? std::string_view::npos : end - j));
        i = end;
      }
    } else {
      i = eq < value.size() ? eq : std::string_view::npos;
    }
    take(name, std::move(text));
  }
}

// The file name without the directories some clients send before it.
std::string base_name(std::string name) {
  size_t cut = name.find_last_of("/\\");
  return cut == std::string::npos ? name : name.substr(cut + 1);
}

// Reads the header block of a part (already cut out, without the blank
// line); false when no Content-Disposition names a form-data field.
bool read_part_headers(std::string_view block, MultipartPart* part) {
  bool named = false;
  while (!block.empty()) {
    size_t eol = block.find('\n');
    std::string_view line = block.substr(0, eol);
    block.remove_prefix(eol == std::string_view::npos ? block.size() : eol + 1);
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    size_t colon = line.find(':');
    if (colon == std::string_view::npos) continue;
    std::string_view name = trim(line.substr(0, colon));
    std::string_view value = trim(line.substr(colon + 1));
    if (equals_nocase(name, "Content-Disposition")) {
      std::string_view kind = trim(value.substr(0, value.find(';')));
      if (!equals_nocase(kind, "form-data")) return false;
      each_parameter(value, [&](std::string_view key, std::string text) {
        if (equals_nocase(key, "name")) {
          part->name = std::move(text);
          named = true;
        } else if (equals_nocase(key, "filename")) {
          part->is_file = true;
          part->filename = base_name(std::move(text));
        }
      });
    } else if (equals_nocase(name, "Content-Type")) {
      part->content_type = value;
    }
  }
  return named;
}

}  // namespace

bool is_multipart_form(std::string_view content_type) {
  std::string_view kind = trim(content_type.substr(0, content_type.find(';')));
  return equals_nocase(kind, "multipart/form-data");
}

std::string multipart_boundary(std::string_view content_type) {
  std::string boundary;
  each_parameter(content_type, [&](std::string_view key, std::string text) {
    if (boundary.empty() && equals_nocase(key, "boundary")) boundary = std::move(text);
  });
  if (boundary.size() > 70) return std::string();
  for (char c : boundary) {
    if (c == '\r' || c == '\n' || c == '\0') return std::string();
  }
  return boundary;
}

namespace {

// The next delimiter line at or after `from`: "--boundary" at the start of
// the body or of a line, then "--", or optional padding and a line break,
// or the end of the body (a delimiter cut short).  A line that merely
// begins with the delimiter is data.  Returns the position of its "-".
size_t find_delimiter(std::string_view body, std::string_view delimiter, size_t from) {
  for (;;) {
    size_t at;
    if (from == 0 && body.substr(0, delimiter.size()) == delimiter) {
      at = 0;
    } else {
      size_t nl = find_bytes(body, "\n" + std::string(delimiter), from == 0 ? 0 : from - 1);
      if (nl == std::string_view::npos) return std::string_view::npos;
      at = nl + 1;
    }
    size_t pos = at + delimiter.size();
    if (body.substr(pos, 2) == "--" || pos + 1 >= body.size()) return at;
    while (pos < body.size() && (body[pos] == ' ' || body[pos] == '\t')) ++pos;
    if (pos < body.size() && body[pos] == '\r') ++pos;
    if (pos >= body.size() || body[pos] == '\n') return at;
    from = at + 1;
  }
}

}  // namespace

MultipartForm parse_multipart(std::string_view body, std::string_view boundary, size_t max_parts) {
  MultipartForm form;
  if (boundary.empty()) {
    form.status = MULTIPART_MALFORMED;
    return form;
  }
  const std::string delimiter = "--" + std::string(boundary);

  size_t at = find_delimiter(body, delimiter, 0);
  for (;;) {
    if (at == std::string_view::npos) {
      form.status = MULTIPART_TRUNCATED;
      return form;
    }
    // `at` is on a delimiter: "--" closes the body, else a line break
    // (after optional padding) opens the next part.
    size_t pos = at + delimiter.size();
    if (body.substr(pos, 2) == "--") return form;
    while (pos < body.size() && (body[pos] == ' ' || body[pos] == '\t')) ++pos;
    if (pos < body.size() && body[pos] == '\r') ++pos;
    if (pos >= body.size()) {
      form.status = MULTIPART_TRUNCATED;
      return form;
    }
    ++pos;  // the line feed

    // Header block: up to the first empty line.
    size_t header_end, data_start;
    if (body.substr(pos, 2) == "\r\n" || body.substr(pos, 1) == "\n") {
      header_end = pos;  // no headers at all
      data_start = pos + (body[pos] == '\r' ? 2 : 1);
    } else {
      std::string_view window = body.substr(0, std::min(body.size(), pos + kMaxPartHeader + 4));
      size_t crlf = find_bytes(window, "\r\n\r\n", pos);
      size_t lf = find_bytes(window, "\n\n", pos);
      if (crlf == std::string_view::npos && lf == std::string_view::npos) {
        form.status = body.size() - pos > kMaxPartHeader ? MULTIPART_MALFORMED : MULTIPART_TRUNCATED;
        return form;
      }
      if (crlf != std::string_view::npos && (lf == std::string_view::npos || crlf < lf)) {
        header_end = crlf;
        data_start = crlf + 4;
      } else {
        header_end = lf;
        data_start = lf + 2;
      }
    }

    // The data runs to the line break before the next delimiter.
    size_t next = find_delimiter(body, delimiter, data_start);
    if (next == std::string_view::npos) {
      form.status = MULTIPART_TRUNCATED;
      return form;
    }
    size_t data_end = next > data_start ? next - 1 : data_start;  // drop the line feed
    if (data_end > data_start && body[data_end - 1] == '\r') --data_end;

    MultipartPart part;
    if (read_part_headers(body.substr(pos, header_end - pos), &part)) {
      if (form.parts.size() >= max_parts) {
        form.status = MULTIPART_TOO_MANY;
        return form;
      }
      part.data = body.substr(data_start, data_end - data_start);
      form.parts.push_back(std::move(part));
    }
    at = next;
  }
}
