// The request as variables: command line, environment, query string, POST
// body (forms and multipart forms) and cookies.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

struct Run;

// Creates the request variables (ASCII, CGI, ARGV, HTTPGET, HTTPPOST,
// HTTPFILES, HTTPCOOKIE) from the run's arguments, environment and body.
void request_variables(Run& run);

// Request pairs ("a=1&b=2"), URL-decoded, in the order they appear (the
// request variables store them newest first).
struct RequestPair {
  std::string key, value;
};
// Both stop after `max_pairs` pairs (a request's variables are bounded:
// see kMaxRequestPairs).
std::vector<RequestPair> parse_pairs(std::string_view text, size_t max_pairs = SIZE_MAX);
std::vector<RequestPair> parse_cookies(std::string_view text, size_t max_pairs = SIZE_MAX);
// Pairs kept from one part of a request (query string, POST body, cookies);
// each pair costs a few hundred bytes as variables, so a hostile request of
// millions of pairs is cut here, with a warning in the error report.
constexpr size_t kMaxRequestPairs = 100000;
