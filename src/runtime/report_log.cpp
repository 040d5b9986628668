// Reports written to the server's error log instead of the page.
#include "runtime/report_log.h"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <ctime>

#include "runtime/run.h"

namespace {

ReportMode mode_in_force = REPORTS_PAGE;

// Bytes that could end or forge a log line, or drive a terminal, as \xHH.
void append_clean(std::string& out, std::string_view text) {
  static const char kHex[] = "0123456789abcdef";
  for (char c : text) {
    unsigned char b = static_cast<unsigned char>(c);
    if ((b < 0x20 && b != '\t') || b == 0x7f) {
      out += "\\x";
      out += kHex[b >> 4];
      out += kHex[b & 15];
    } else {
      out += c;
    }
  }
}

// The request as the server received it: REQUEST_URI, else the script's
// name and the query string, else the page's path.
std::string request_uri(const Run& run) {
  if (const char* uri = run_env(run, "REQUEST_URI"); uri && *uri) return uri;
  std::string uri;
  if (const char* script = run_env(run, "SCRIPT_NAME")) uri = script;
  if (const char* query = run_env(run, "QUERY_STRING"); query && *query) uri += std::string("?") + query;
  if (uri.empty()) uri = run.settings.doc_root + run.settings.page_dir + run.settings.page_file;
  return uri;
}

void append_lines(std::string& out, const std::string& prefix, const DynStringPtr& buffer) {
  if (!buffer) return;
  std::string_view rest = buffer->data;
  while (!rest.empty()) {
    size_t feed = rest.find('\n');
    std::string_view line = rest.substr(0, feed);
    rest = feed == std::string_view::npos ? std::string_view() : rest.substr(feed + 1);
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    if (line.empty()) continue;
    out += prefix;
    append_clean(out, line);
    out += '\n';
  }
}

}  // namespace

void set_report_mode(ReportMode mode) { mode_in_force = mode; }
ReportMode report_mode() { return mode_in_force; }

ReportMode report_mode_from_environment() {
  const char* value = std::getenv("CVML_REPORTS");
  return value && std::string_view(value) == "log" ? REPORTS_LOG : REPORTS_PAGE;
}

std::string report_notice(const Run& run) {
  std::string notice = "An error occurred while this page was being processed.  The details are in the server's "
                       "error log.\n";
  return run.settings.cgi_mode ? "<hr>\n" + notice : notice;
}

std::string report_log_text(const Run& run, std::string_view time_stamp) {
  std::string prefix(time_stamp);
  prefix += " cvml: ";
  append_clean(prefix, request_uri(run));
  prefix += ": ";
  std::string out;
  append_lines(out, prefix, run.sql_stats);
  append_lines(out, prefix, run.stats);
  append_lines(out, prefix, run.errors);
  return out;
}

void log_reports(Run& run) {
  std::time_t now = std::time(nullptr);
  std::tm local{};
  char stamp[64] = "";
  if (::localtime_r(&now, &local)) std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S %z", &local);
  std::string text = report_log_text(run, stamp);
  std::string_view rest = text;
  // One write for the whole report where the log takes it, so that the
  // lines of two requests do not interleave.
  while (!rest.empty()) {
    ssize_t n = ::write(STDERR_FILENO, rest.data(), rest.size());
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    rest.remove_prefix(static_cast<size_t>(n));
  }
}
