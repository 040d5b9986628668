// Output: header and body buffers, sending them, and the tags that shape
// the header block (CVMLMODE, CVHEADER, CVLOCATION, CVFLUSH).
#include "runtime/output.h"

#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdlib>

#include "runtime/run.h"
#include "runtime/report.h"
#include "base/encoders.h"
#include "base/nocase.h"
#include "runtime/run.h"
#include "runtime/report.h"
#include "runtime/server_address.h"
#include "base/encoders.h"
#include "base/nocase.h"

void write_stdout(std::string_view bytes) {
  // Written straight to the descriptor: the bytes go out exactly as they
  // are, with no translation and no buffering left behind at exit.
  while (!bytes.empty()) {
    ssize_t n = ::write(STDOUT_FILENO, bytes.data(), bytes.size());
    if (n < 0) {
      if (errno == EINTR) continue;
      return;  // the client has gone; nothing more can be delivered
    }
    bytes.remove_prefix(static_cast<size_t>(n));
  }
}

void body_append(std::string_view bytes) {
  if (!engine.body) engine.body = dyn_new();
  dyn_puts(engine.body.get(), bytes);
}

void send_headers() {
  if (engine.headers_sent) return;
  std::string block = engine.header ? engine.header->data : std::string();
  block += "Content-type: " + engine.settings.content_type + "\n\n";
  write_stdout(block);
  engine.headers_sent = true;
}

void send_body() {
  if (engine.body && !engine.body->data.empty()) {
    write_stdout(engine.body->data);
    engine.body_sent = true;
  } else if (!engine.body_sent) {
    write_stdout("\n");
    engine.body_sent = true;
  }
}

void send_page() {
  send_headers();
  send_body();
  send_reports();
}

// ---------------------------------------------------------------------------
// Helpers

namespace {

std::string without(std::string_view text, std::string_view drop) {
  std::string out;
  out.reserve(text.size());
  for (char c : text) {
    if (drop.find(c) == std::string_view::npos) out += c;
  }
  return out;
}

void header_line(std::string_view line) {
  if (!engine.header) engine.header = dyn_new();
  dyn_puts(engine.header.get(), line);
}

}  // namespace

std::string_view last_path_part(std::string_view path) {
  size_t slash = path.rfind('/');
  return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

bool resolve_page_directory(std::string_view directory, std::string_view target, std::string* result) {
  std::string dir(directory);
  size_t begin = 0;
  for (size_t slash; (slash = target.find('/', begin)) != std::string_view::npos; begin = slash + 1) {
    std::string_view part = target.substr(begin, slash - begin);
    if (part.empty()) {
      dir = "/";
    } else if (part == "..") {
      // Drop the last directory: keep up to and including the "/" before it.
      size_t end = dir.size() && dir.back() == '/' ? dir.size() - 1 : dir.size();
      size_t cut = dir.rfind('/', end == 0 ? 0 : end - 1);
      dir = cut == std::string::npos || end == 0 ? "/" : dir.substr(0, cut + 1);
    } else if (part == ".") {
      continue;
    } else if (part.back() == ':' && slash + 1 < target.size() && target[slash + 1] == '/') {
      return false;  // a scheme: the target is absolute
    } else {
      dir += part;
      dir += '/';
    }
  }
  *result = std::move(dir);
  return true;
}

// ---------------------------------------------------------------------------
// CVMLMODE type="normal|binary|off"

ValuePtr cvmlmode_handler(const ParsedTag& tag) {
  const std::string* type = tag_option(tag, "type");
  if (!type) return report_failure(tag, option_required_message("CVMLMODE", "type"));
  PageContext* ctx = current_context();
  if (equals_nocase(*type, "normal")) ctx->output_mode = OUTPUT_NORMAL;
  else if (equals_nocase(*type, "binary")) ctx->output_mode = OUTPUT_BINARY;
  else if (equals_nocase(*type, "off")) ctx->output_mode = OUTPUT_OFF;
  else
    return report_failure(tag, "CVMLMODE requires the 'type' option to be 'normal', 'binary', or 'off'.  "
                     "See the Corvane documentation for details.");
  return value_new();
}

// ---------------------------------------------------------------------------
// CVHEADER type="cookie|content-type|rawheader" value=... name=...
//          encode="URL|Base64" expirationdate=...

ValuePtr cvheader_handler(const ParsedTag& tag) {
  const std::string* type = tag_option(tag, "type");
  if (!type) return report_failure(tag, option_required_message("CVHEADER", "type"));
  const std::string* value = tag_option(tag, "value");
  if (!value) return report_failure(tag, option_required_message("CVHEADER", "value"));

  if (equals_nocase(*type, "cookie")) {
    const std::string* name = tag_option(tag, "name");
    if (!name)
      return report_failure(tag, "CVHEADER requires the 'name' option to be used when the 'type' option is "
                       "'cookie'.  See the Corvane documentation for details.");
    const std::string* encode = tag_option(tag, "encode");
    if (!encode)
      return report_failure(tag, "CVHEADER requires the 'encode' option to be used when the 'type' option is "
                       "'cookie'.  See the Corvane documentation for details.");
    std::string encoded;
    if (keyword_is(*encode, "URL"))
      encoded = url_encode(*value);
    else if (keyword_is(*encode, "Base64"))
      encoded = base64_encode(*value);
    else
      return report_failure(tag, "CVHEADER requires the 'encode' option to be 'URL' or 'Base64'.  "
                       "See the Corvane documentation for details.");
    std::string line = "Set-Cookie: " + without(*name, " \t\r\n") + "=" + encoded;
    if (const std::string* date = tag_option(tag, "expirationdate"))
      line += "; expires=" + without(*date, "\r\n");
    header_line(line + "\n");
  } else if (equals_nocase(*type, "content-type")) {
    engine.settings.content_type = without(*value, "\r\n");
    current_context()->output_mode = OUTPUT_BINARY;
    engine.body_discard = true;
  } else if (equals_nocase(*type, "rawheader")) {
    const std::string* name = tag_option(tag, "name");
    if (!name)
      return report_failure(tag, "CVHEADER requires the 'name' option to be used when the 'type' option is "
                       "'rawheader'.  See the Corvane documentation for details.");
    header_line(without(*name, "\r\n") + ": " + without(*value, "\r\n") + "\n");
  } else {
    return report_failure(tag, "CVHEADER requires the 'type' option to be 'cookie', 'content-type', or "
                     "'rawheader'.  See the Corvane documentation for details.");
  }
  return value_new();
}

// ---------------------------------------------------------------------------
// CVLOCATION location=...

ValuePtr cvlocation_handler(const ParsedTag& tag) {
  const std::string* location = tag_option(tag, "location");
  if (!location) return report_failure(tag, option_required_message("CVLOCATION", "location"));
  engine.stop = true;
  // Line breaks and NUL bytes from the page never reach the header block.
  std::string target = without(*location, std::string_view("\r\n\0", 3));
  for (char& c : target) {
    if (c == '\\') c = '/';
  }
  PageContext* ctx = current_context();
  std::string dir;
  if (!resolve_page_directory(ctx->directory, target, &dir)) {
    header_line("Location: " + target + "\n");
  } else {
    header_line("Location: " + server_base_url() + dir + std::string(last_path_part(target)) + "\n");
  }
  return value_new();
}

// ---------------------------------------------------------------------------
// CVFLUSH

ValuePtr cvflush_handler(const ParsedTag&) {
  engine.flush_requested = true;
  return value_new();
}
