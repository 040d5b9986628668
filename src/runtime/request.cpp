// The request as variables: ASCII, CGI, ARGV, HTTPGET, HTTPPOST, HTTPCOOKIE.
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>

#include "runtime/run.h"
#include "runtime/report.h"
#include "runtime/request.h"
#include "base/encoders.h"
#include "runtime/run.h"
#include "runtime/report.h"
#include "runtime/request.h"
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

void set_variable(Run& run, const char* name, ValuePtr value) {
  TagHandler entry = make_variable_entry();
  entry.variable = std::move(value);
  vartable_set(names_for_write(run), name, std::move(entry));
}

// The rows a hash gets from adding the keys one after another, each after
// the equal keys already present; built by a stable sort so that a request
// with a million pairs costs n log n, not n squared.
ValuePtr hash_of_pairs(std::vector<RequestPair> pairs) {
  std::stable_sort(pairs.begin(), pairs.end(), [](const RequestPair& a, const RequestPair& b) {
    return compare_bytes_nocase(a.key, b.key) < 0;
  });
  ValuePtr hash = value_new();
  value_set_type(*hash, VT_HASH);
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
std::vector<RequestPair> bounded_pairs(Run& run, std::string_view text, bool cookies, const char* part) {
  std::vector<RequestPair> pairs = cookies ? parse_cookies(text, kMaxRequestPairs + 1)
                                           : parse_pairs(text, kMaxRequestPairs + 1);
  if (pairs.size() > kMaxRequestPairs) {
    pairs.resize(kMaxRequestPairs);
    report_diagnostic(run, std::string("Warning:  The ") + part + " holds more than " +
                      std::to_string(kMaxRequestPairs) + " pairs; only the first " +
                      std::to_string(kMaxRequestPairs) + " were kept.\n");
  }
  return pairs;
}

std::string read_post_body(Run& run, size_t length) {
  std::string body;
  char chunk[65536];
  while (body.size() < length && run.io.read) {
    size_t want = std::min(sizeof chunk, length - body.size());
    size_t got = run.io.read(run.io.context, chunk, want);
    if (got == 0) break;
    body.append(chunk, got);
  }
  return body;
}

// A length as the request states it: decimal digits after optional white
// space and sign; anything else, or a negative number, means nothing to read.
size_t content_length(Run& run) {
  const char* text = run_env(run, "CONTENT_LENGTH");
  if (!text) text = run_env(run, "HTTP_CONTENT_LENGTH");
  if (!text) return 0;
  errno = 0;
  long long n = std::strtoll(text, nullptr, 10);
  return n > 0 ? static_cast<size_t>(n) : 0;
}

bool is_post(Run& run) {
  const char* method = run_env(run, "REQUEST_METHOD");
  if (!method) return false;
  std::string_view m(method);
  return m.size() == 4 && std::toupper(static_cast<unsigned char>(m[0])) == 'P' &&
         std::toupper(static_cast<unsigned char>(m[1])) == 'O' &&
         std::toupper(static_cast<unsigned char>(m[2])) == 'S' &&
         std::toupper(static_cast<unsigned char>(m[3])) == 'T';
}

}  // namespace

void request_variables(Run& run) {
  ValuePtr ascii = value_new();
  value_set_type(*ascii, VT_LIST);
  ascii->list.reserve(256);
  for (int i = 0; i < 256; ++i) ascii->list.push_back(value_from_string(std::string(1, static_cast<char>(i))));
  set_variable(run, "ASCII", std::move(ascii));

  std::vector<RequestPair> environment;
  environment.reserve(run.env.size());
  for (const std::string& entry : run.env) {
    size_t eq = entry.find('=');
    environment.push_back({entry.substr(0, eq), eq == std::string::npos ? std::string() : entry.substr(eq + 1)});
  }
  set_variable(run, "CGI", hash_of_pairs(std::move(environment)));

  ValuePtr args = value_new();
  value_set_type(*args, VT_LIST);
  for (const std::string& a : run.argv) args->list.push_back(value_from_string(a));
  set_variable(run, "ARGV", std::move(args));

  // Pairs are stored newest first, so equal keys stand in reverse order.
  const char* query = run_env(run, "QUERY_STRING");
  if (query && *query) {
    std::vector<RequestPair> pairs = bounded_pairs(run, query, false, "query string");
    std::reverse(pairs.begin(), pairs.end());
    set_variable(run, "HTTPGET", hash_of_pairs(std::move(pairs)));
  }

  if (is_post(run)) {
    size_t length = content_length(run);
    uint64_t limit = run.limits.post_bytes;
    std::string body;
    if (limit && length > limit)
      report_diagnostic(run, "Warning:  The POST body of " + std::to_string(length) + " bytes is larger than the upload "
                        "limit of " + std::to_string(limit) + " bytes (CVML_MAX_UPLOAD); it was not read.\n");
    else
      body = read_post_body(run, length);
    const char* type = run_env(run, "CONTENT_TYPE");
    if (!body.empty() && type && is_multipart_form(type)) {
      std::vector<RequestPair> pairs;
      ValuePtr files = multipart_request(run, body, type, &pairs);
      if (files) set_variable(run, "HTTPFILES", std::move(files));
      std::reverse(pairs.begin(), pairs.end());
      if (!pairs.empty()) set_variable(run, "HTTPPOST", hash_of_pairs(std::move(pairs)));
    } else if (!body.empty()) {
      std::vector<RequestPair> pairs = bounded_pairs(run, body, false, "POST body");
      std::reverse(pairs.begin(), pairs.end());
      set_variable(run, "HTTPPOST", hash_of_pairs(std::move(pairs)));
    }
  }

  const char* cookie = run_env(run, "HTTP_COOKIE");
  if (cookie && *cookie) set_variable(run, "HTTPCOOKIE", hash_of_pairs(bounded_pairs(run, cookie, true, "cookie header")));
}
