// Output: header and body buffers, sending them, and the tags that shape
// the header block (CVMLMODE, CVHEADER, CVLOCATION, CVFLUSH).
#include "runtime/output.h"

#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdlib>

#include "base/encoders.h"
#include "base/nocase.h"
#include "runtime/budget.h"
#include "runtime/report.h"
#include "runtime/report_log.h"
#include "runtime/run.h"
#include "runtime/server_address.h"

void write_response(Run& run, std::string_view bytes) {
  if (run.io.write) run.io.write(run.io.context, bytes);
}

void body_append(Run& run, std::string_view bytes) {
  if (!run.body) run.body = dyn_new();
  dyn_puts(run.body.get(), bytes);
}

namespace {

// What may never reach a header line from page or request data.
constexpr std::string_view kLineBreaks("\r\n\0", 3);

std::string without(std::string_view text, std::string_view drop) {
  std::string out;
  out.reserve(text.size());
  for (char c : text) {
    if (drop.find(c) == std::string_view::npos) out += c;
  }
  return out;
}

bool starts_with_header(std::string_view line, std::string_view name) {
  return line.size() > name.size() && line[name.size()] == ':' && equals_nocase(line.substr(0, name.size()), name);
}

// For a FastCGI server: the header block with the status it needs first.
// A page that failed answers 500 whatever status it set itself; a redirect
// answers 302 unless the page set a status.
std::string with_status(const Run& run, std::string headers) {
  bool has_location = false, has_status = false;
  for (size_t at = 0; at < headers.size();) {
    size_t end = headers.find('\n', at);
    if (end == std::string::npos) end = headers.size();
    std::string_view line = std::string_view(headers).substr(at, end - at);
    if (starts_with_header(line, "Location")) has_location = true;
    if (starts_with_header(line, "Status")) {
      has_status = true;
      if (run.failed) {
        headers.erase(at, end + 1 - at);
        continue;
      }
    }
    at = end + 1;
  }
  if (run.failed) return "Status: 500 Internal Server Error\n" + headers;
  if (has_location && !has_status) return "Status: 302 Found\n" + headers;
  return headers;
}

}  // namespace

void send_headers(Run& run) {
  if (run.headers_sent) return;
  std::string block = run.header ? run.header->data : std::string();
  if (run.io.status_lines) {
    block = with_status(run, std::move(block));
  } else if (run.failed && report_mode() == REPORTS_LOG) {
    // In log mode a page that ended in an error says so to the server.
    block.insert(0, "Status: 500 Internal Server Error\n");
  }
  block += "Content-type: " + without(run.settings.content_type, kLineBreaks) + "\n\n";
  write_response(run, block);
  run.headers_sent = true;
}

void send_body(Run& run) {
  if (run.body && !run.body->data.empty()) {
    std::string_view bytes = run.body->data;
    bytes = bytes.substr(0, std::min<uint64_t>(bytes.size(), output_room(run)));
    write_response(run, bytes);
    run.output_sent += bytes.size();
    run.body_sent = true;
  } else if (!run.body_sent) {
    write_response(run, "\n");
    run.body_sent = true;
  }
}

void send_page(Run& run) {
  send_headers(run);
  send_body(run);
  send_reports(run);
}

// ---------------------------------------------------------------------------
// Helpers

namespace {

// Adds "line\n" to the header block.  The parts of every line are cleaned
// where they are made; this is the last guard for all of them.
void header_line(Run& run, std::string_view line) {
  if (!run.header) run.header = dyn_new();
  dyn_puts(run.header.get(), without(line, kLineBreaks) + "\n");
}

}  // namespace


// ---------------------------------------------------------------------------
// CVMLMODE type="normal|binary|off"

ValuePtr cvmlmode_handler(Run& run, const ParsedTag& tag) {
  const std::string* type = tag_option(tag, "type");
  if (!type) return report_failure(run, tag, option_required_message("CVMLMODE", "type"));
  PageContext* ctx = current_context(run);
  if (equals_nocase(*type, "normal")) ctx->output_mode = OUTPUT_NORMAL;
  else if (equals_nocase(*type, "binary")) ctx->output_mode = OUTPUT_BINARY;
  else if (equals_nocase(*type, "off")) ctx->output_mode = OUTPUT_OFF;
  else
    return report_failure(run, tag, "CVMLMODE requires the 'type' option to be 'normal', 'binary', or 'off'.  "
                     "See the Corvane documentation for details.");
  return value_new();
}

// ---------------------------------------------------------------------------
// CVHEADER type="cookie|content-type|rawheader" value=... name=...
//          encode="URL|Base64" expirationdate=...

ValuePtr cvheader_handler(Run& run, const ParsedTag& tag) {
  const std::string* type = tag_option(tag, "type");
  if (!type) return report_failure(run, tag, option_required_message("CVHEADER", "type"));
  const std::string* value = tag_option(tag, "value");
  if (!value) return report_failure(run, tag, option_required_message("CVHEADER", "value"));

  if (equals_nocase(*type, "cookie")) {
    const std::string* name = tag_option(tag, "name");
    if (!name)
      return report_failure(run, tag, "CVHEADER requires the 'name' option to be used when the 'type' option is "
                       "'cookie'.  See the Corvane documentation for details.");
    const std::string* encode = tag_option(tag, "encode");
    if (!encode)
      return report_failure(run, tag, "CVHEADER requires the 'encode' option to be used when the 'type' option is "
                       "'cookie'.  See the Corvane documentation for details.");
    std::string encoded;
    if (keyword_is(*encode, "URL"))
      encoded = url_encode(*value);
    else if (keyword_is(*encode, "Base64"))
      encoded = base64_encode(*value);
    else
      return report_failure(run, tag, "CVHEADER requires the 'encode' option to be 'URL' or 'Base64'.  "
                       "See the Corvane documentation for details.");
    std::string line = "Set-Cookie: " + without(*name, std::string_view(" \t\r\n\0", 5)) + "=" + encoded;
    if (const std::string* date = tag_option(tag, "expirationdate"))
      line += "; expires=" + without(*date, kLineBreaks);
    header_line(run, line);
  } else if (equals_nocase(*type, "content-type")) {
    run.settings.content_type = without(*value, kLineBreaks);
    current_context(run)->output_mode = OUTPUT_BINARY;
    run.body_discard = true;
  } else if (equals_nocase(*type, "rawheader")) {
    const std::string* name = tag_option(tag, "name");
    if (!name)
      return report_failure(run, tag, "CVHEADER requires the 'name' option to be used when the 'type' option is "
                       "'rawheader'.  See the Corvane documentation for details.");
    header_line(run, without(*name, kLineBreaks) + ": " + without(*value, kLineBreaks));
  } else {
    return report_failure(run, tag, "CVHEADER requires the 'type' option to be 'cookie', 'content-type', or "
                     "'rawheader'.  See the Corvane documentation for details.");
  }
  return value_new();
}

// ---------------------------------------------------------------------------
// CVLOCATION location=...

ValuePtr cvlocation_handler(Run& run, const ParsedTag& tag) {
  const std::string* location = tag_option(tag, "location");
  if (!location) return report_failure(run, tag, option_required_message("CVLOCATION", "location"));
  run.stop = true;
  // Line breaks and NUL bytes from the page never reach the header block.
  std::string target = without(*location, kLineBreaks);
  for (char& c : target) {
    if (c == '\\') c = '/';
  }
  PageContext* ctx = current_context(run);
  std::string dir;
  if (!resolve_page_directory(ctx->directory, target, &dir)) {
    header_line(run, "Location: " + target);
  } else {
    header_line(run, "Location: " + server_base_url(run) + dir + std::string(last_path_part(target)));
  }
  return value_new();
}

// ---------------------------------------------------------------------------
// CVFLUSH

ValuePtr cvflush_handler(Run& run, const ParsedTag&) {
  run.flush_requested = true;
  return value_new();
}
