// The request as variables: ASCII, CGI, ARGV, HTTPGET, HTTPPOST, HTTPCOOKIE.
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>

#include "runtime/run.h"
#include "runtime/report.h"
#include "program/startup.h"
#include "base/encoders.h"
#include "runtime/run.h"
#include "runtime/report.h"
#include "program/startup.h"
#include "runtime/multipart.h"
#include "runtime/uploads.h"
#include "base/encoders.h"

std::vector<RequestPair> parse_pairs(std::string_view text, size_t max_pairs) {
  std::vector<RequestPair> pairs;
  size_t begin = 0;
  while (pairs.size() < max_pairs) {
    size_t amp = text.find('&', begin);
    std::string_view piece = text.substr(begin, amp == std::string_view::npos ? std::string_view::npos : amp - begin);
    size_t eq = piece.find('=');
    RequestPair pair;
    pair.key = url_decode(piece.substr(0, eq));
    if (eq != std::string_view::npos) pair.value = url_decode(piece.substr(eq + 1));
    pairs.push_back(std::move(pair));
    if (amp == std::string_view::npos) break;
    begin = amp + 1;
  }
  return pairs;
}

std::vector<RequestPair> parse_cookies(std::string_view text, size_t max_pairs) {
  std::vector<RequestPair> pairs;
  size_t i = 0, n = text.size();
  auto is_sep = [](char c) { return c == '=' || c == ' ' || c == ';'; };
  while (pairs.size() < max_pairs) {
    while (i < n && is_sep(text[i])) ++i;
    if (i >= n) break;
    size_t key_start = i;
    while (i < n && !is_sep(text[i])) ++i;
    RequestPair pair;
    pair.key = std::string(text.substr(key_start, i - key_start));
    while (i < n && text[i] == ' ') ++i;
    if (i < n && text[i] == '=') {
      ++i;
      while (i < n && text[i] == ' ') ++i;
      size_t value_start = i;
      while (i < n && text[i] != ';') ++i;
      pair.value = std::string(text.substr(value_start, i - value_start));
    }
    pairs.push_back(std::move(pair));
  }
  return pairs;
}

namespace {

void set_variable(const char* name, ValuePtr value) {
  TagHandler entry = make_variable_entry();
  entry.variable = std::move(value);
  vartable_set(names_for_write(), name, std::move(entry));
}

// The rows a hash gets from adding the keys one after another, each after
// the equal keys already present; built by a stable sort so that a request
// with a million pairs costs n log n, not n squared.
ValuePtr hash_of_pairs(std::vector<RequestPair> pairs) {
  std::stable_sort(pairs.begin(), pairs.end(), [](const RequestPair& a, const RequestPair& b) {
    return compare_bytes_nocase(a.key, b.key) < 0;
  });
  ValuePtr hash = value_new();
  hash->type = VT_HASH;
  hash->columns = 2;
  hash->rows.reserve(pairs.size());
  for (RequestPair& p : pairs) {
    ValueRow row;
    row.push_back(value_from_string(std::move(p.key)));
    row.push_back(value_from_string(std::move(p.value)));
    hash->rows.push_back(std::move(row));
  }
  return hash;
}

// Parses one part of the request, keeping at most kMaxRequestPairs pairs;
// a longer part leaves a warning for the error report.
std::vector<RequestPair> bounded_pairs(std::string_view text, bool cookies, const char* part) {
  std::vector<RequestPair> pairs = cookies ? parse_cookies(text, kMaxRequestPairs + 1)
                                           : parse_pairs(text, kMaxRequestPairs + 1);
  if (pairs.size() > kMaxRequestPairs) {
    pairs.resize(kMaxRequestPairs);
    report_diagnostic(std::string("Warning:  The ") + part + " holds more than " +
                      std::to_string(kMaxRequestPairs) + " pairs; only the first " +
                      std::to_string(kMaxRequestPairs) + " were kept.\n");
  }
  return pairs;
}

std::string read_post_body(size_t length) {
  std::string body;
  char chunk[65536];
  while (body.size() < length) {
    size_t want = std::min(sizeof chunk, length - body.size());
    ssize_t got = ::read(STDIN_FILENO, chunk, want);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    body.append(chunk, static_cast<size_t>(got));
  }
  return body;
}

// A length as the request states it: decimal digits after optional white
// space and sign; anything else, or a negative number, means nothing to read.
size_t content_length() {
  const char* text = std::getenv("CONTENT_LENGTH");
  if (!text) text = std::getenv("HTTP_CONTENT_LENGTH");
  if (!text) return 0;
  errno = 0;
  long long n = std::strtoll(text, nullptr, 10);
  return n > 0 ? static_cast<size_t>(n) : 0;
}

bool is_post() {
  const char* method = std::getenv("REQUEST_METHOD");
  if (!method) return false;
  std::string_view m(method);
  return m.size() == 4 && std::toupper(static_cast<unsigned char>(m[0])) == 'P' &&
         std::toupper(static_cast<unsigned char>(m[1])) == 'O' &&
         std::toupper(static_cast<unsigned char>(m[2])) == 'S' &&
         std::toupper(static_cast<unsigned char>(m[3])) == 'T';
}

}  // namespace

void request_variables() {
  ValuePtr ascii = value_new();
  ascii->type = VT_LIST;
  ascii->list.reserve(256);
  for (int i = 0; i < 256; ++i) ascii->list.push_back(value_from_string(std::string(1, static_cast<char>(i))));
  set_variable("ASCII", std::move(ascii));

  std::vector<RequestPair> environment;
  environment.reserve(engine.envp.size());
  for (const std::string& entry : engine.envp) {
    size_t eq = entry.find('=');
    environment.push_back({entry.substr(0, eq), eq == std::string::npos ? std::string() : entry.substr(eq + 1)});
  }
  set_variable("CGI", hash_of_pairs(std::move(environment)));

  ValuePtr args = value_new();
  args->type = VT_LIST;
  for (const std::string& a : engine.argv) args->list.push_back(value_from_string(a));
  set_variable("ARGV", std::move(args));

  // Pairs are stored newest first, so equal keys stand in reverse order.
  const char* query = std::getenv("QUERY_STRING");
  if (query && *query) {
    std::vector<RequestPair> pairs = bounded_pairs(query, false, "query string");
    std::reverse(pairs.begin(), pairs.end());
    set_variable("HTTPGET", hash_of_pairs(std::move(pairs)));
  }

  if (is_post()) {
    size_t length = content_length(), limit = upload_limit();
    std::string body;
    if (length > limit)
      report_diagnostic("Warning:  The POST body of " + std::to_string(length) + " bytes is larger than the upload "
                        "limit of " + std::to_string(limit) + " bytes (CVML_MAX_UPLOAD); it was not read.\n");
    else
      body = read_post_body(length);
    const char* type = std::getenv("CONTENT_TYPE");
    if (!body.empty() && type && is_multipart_form(type)) {
      std::vector<RequestPair> pairs;
      ValuePtr files = multipart_request(body, type, &pairs);
      if (files) set_variable("HTTPFILES", std::move(files));
      std::reverse(pairs.begin(), pairs.end());
      if (!pairs.empty()) set_variable("HTTPPOST", hash_of_pairs(std::move(pairs)));
    } else if (!body.empty()) {
      std::vector<RequestPair> pairs = bounded_pairs(body, false, "POST body");
      std::reverse(pairs.begin(), pairs.end());
      set_variable("HTTPPOST", hash_of_pairs(std::move(pairs)));
    }
  }

  const char* cookie = std::getenv("HTTP_COOKIE");
  if (cookie && *cookie) set_variable("HTTPCOOKIE", hash_of_pairs(bounded_pairs(cookie, true, "cookie header")));
}
