// Program entry: mode decision, page location, start-up and the request.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// Runs one request: the whole life of the process.  Always returns 0.
int cvml_main(int argc, char** argv, char** envp);
// For harnesses that run many pages in one process (fuzzing): every later
// cvml_main stops its page after this many tags; 0, the default, is no limit.
void set_tag_limit_for_runs(uint32_t limit);

bool cgi_setup();
void config_setup(std::string_view program_path);
void defaults_setup();
bool engine_init();
void request_variables();

// Path helpers: "a/b/c.cvm" has the directory part "a/b/" and the file part
// "c.cvm".  resolve_path joins a relative path to an absolute base,
// removing "." and ".." segments; false when ".." climbs above the root.
std::string directory_part(std::string_view path);
std::string file_part(std::string_view path);
bool resolve_path(std::string_view base, std::string_view relative, std::string* result);

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
