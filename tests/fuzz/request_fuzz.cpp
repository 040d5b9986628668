// Fuzz target for the request: query pairs, cookies and a POST body, parsed
// on their own and then through the whole start-up of a run.
//
// Input: query string, "\n", cookie header, "\n", POST body (any bytes).
// A missing "\n" leaves the later parts empty.
#include <fcntl.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "program/startup.h"
#include "runtime/request.h"
#include "base/encoders.h"

namespace {

std::string scratch_dir;
std::string page_path;
std::string body_path;

// The page prints every request variable in each of its forms.
const char kPage[] =
    "<CVDEBUG type=\"error\">"
    "<HTTPGET>|<HTTPGET getsizey>|<HTTPGET hash=\"a\">|<HTTPGET element=\"[0][1]\">\n"
    "<HTTPPOST>|<HTTPPOST getsizey>|<HTTPPOST hash=\"a\">\n"
    "<HTTPCOOKIE>|<HTTPCOOKIE getsizey>|<HTTPCOOKIE hash=\"a\">\n"
    "<CGI hash=\"QUERY_STRING\">|<ARGV getsizex>\n";

void remove_scratch() {
  ::unlink(page_path.c_str());
  ::unlink(body_path.c_str());
  ::rmdir(scratch_dir.c_str());
}

bool write_file(const std::string& path, std::string_view bytes) {
  FILE* f = std::fopen(path.c_str(), "wb");
  if (!f) return false;
  bool ok = std::fwrite(bytes.data(), 1, bytes.size(), f) == bytes.size();
  return std::fclose(f) == 0 && ok;
}

size_t count_of(std::string_view text, char c) {
  size_t n = 0;
  for (char x : text) n += x == c;
  return n;
}

void check_pairs(std::string_view text) {
  std::vector<RequestPair> pairs = parse_pairs(text);
  if (pairs.size() != count_of(text, '&') + 1) __builtin_trap();
  for (const RequestPair& p : pairs) {
    if (p.key.size() + p.value.size() > text.size()) __builtin_trap();
  }
}

void check_cookies(std::string_view text) {
  size_t total = 0;
  for (const RequestPair& p : parse_cookies(text)) {
    if (p.key.empty()) __builtin_trap();  // separators are skipped before a key
    total += p.key.size() + p.value.size();
  }
  if (total > text.size()) __builtin_trap();
}

// One run of the program as a web server would start it for a POST.
void run_request(const std::string& query, const std::string& cookie, std::string_view body, bool long_length) {
  if (!write_file(body_path, body)) return;
  int in = ::open(body_path.c_str(), O_RDONLY);
  if (in < 0) return;
  int saved_stdin = ::dup(STDIN_FILENO);
  ::dup2(in, STDIN_FILENO);
  ::close(in);

  // Environment values end at a zero byte; the rest of such a part is lost,
  // as it would be in a real environment.
  ::setenv("QUERY_STRING", query.c_str(), 1);
  ::setenv("HTTP_COOKIE", cookie.c_str(), 1);
  ::setenv("REQUEST_METHOD", "POST", 1);
  // Sometimes the stated length exceeds the data: reading stops at the end.
  std::string length = std::to_string(body.size() + (long_length ? 1000 : 0));
  ::setenv("CONTENT_LENGTH", length.c_str(), 1);

  std::string q = "QUERY_STRING=" + query, c = "HTTP_COOKIE=" + cookie;
  char* envp[] = {q.data(), c.data(), const_cast<char*>("REQUEST_METHOD=POST"), const_cast<char*>("NO_EQUALS"),
                  nullptr};
  char* argv[] = {const_cast<char*>("cvml"), page_path.data(), nullptr};
  cvml_main(2, argv, envp);

  ::dup2(saved_stdin, STDIN_FILENO);
  ::close(saved_stdin);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  char dir_template[] = "/tmp/cvml_request_fuzz_XXXXXX";
  if (!::mkdtemp(dir_template)) std::abort();
  scratch_dir = dir_template;
  page_path = scratch_dir + "/page.cvm";
  body_path = scratch_dir + "/body";
  if (!write_file(page_path, kPage)) std::abort();
  std::atexit(remove_scratch);
  ::unsetenv("DOCUMENT_ROOT");
  ::unsetenv("HTTP_CONTENT_LENGTH");
  // The pages' output is of no interest; the fuzzer reports on stderr.
  int null_out = ::open("/dev/null", O_WRONLY);
  if (null_out < 0) std::abort();
  ::dup2(null_out, STDOUT_FILENO);
  ::close(null_out);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view input(reinterpret_cast<const char*>(data), size);
  size_t first = input.find('\n');
  size_t second = first == std::string_view::npos ? first : input.find('\n', first + 1);
  std::string_view query = input.substr(0, first);
  std::string_view cookie = first == std::string_view::npos ? std::string_view() : input.substr(first + 1, second - first - 1);
  std::string_view body = second == std::string_view::npos ? std::string_view() : input.substr(second + 1);

  check_pairs(query);
  check_pairs(body);
  check_cookies(cookie);
  for (std::string_view part : {query, cookie, body}) {
    if (url_decode(part).size() > part.size()) __builtin_trap();
  }

  run_request(std::string(query.substr(0, query.find('\0'))), std::string(cookie.substr(0, cookie.find('\0'))), body,
              size % 2 == 1);
  return 0;
}
