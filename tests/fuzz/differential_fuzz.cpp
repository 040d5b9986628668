// Differential fuzz target: every page runs twice, once as the engine runs
// pages and once on its general path alone (CVML_GENERAL_PATH=1), and the
// two responses (headers, body and reports) must be the same bytes.
//
// Timings in the statistics are masked.  Pages that name tags whose output
// depends on the clock, on chance or on the world outside (the time, random
// numbers, files, connections, databases) are skipped, as are pages that
// would touch the file system.
#include <fcntl.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <regex>
#include <string>
#include <string_view>

#include "program/startup.h"

namespace {

constexpr uint32_t kTagLimit = 3000;

std::string scratch_dir, page_path, out_path;

void remove_scratch() {
  ::unlink(page_path.c_str());
  ::unlink(out_path.c_str());
  ::rmdir(scratch_dir.c_str());
}

bool names_outside_tag(std::string_view text) {
  std::string lower(text);
  for (char& c : lower) c = static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
  for (std::string_view name : {"cvfile", "cv-api", "cvweb", "cvquery", "cv-rowseek", "cv-time", "rand",
                                "uniqueid"}) {
    if (lower.find(name) != std::string::npos) return true;
  }
  return false;
}

// Runs the page with standard output in a file and returns what was written.
std::string run(bool general) {
  if (general)
    ::setenv("CVML_GENERAL_PATH", "1", 1);
  else
    ::unsetenv("CVML_GENERAL_PATH");
  int out = ::open(out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  if (out < 0) std::abort();
  int saved = ::dup(STDOUT_FILENO);
  ::dup2(out, STDOUT_FILENO);
  ::close(out);
  char* envp[] = {const_cast<char*>("QUERY_STRING=a=1&b=two&a=3"), const_cast<char*>("HTTP_COOKIE=c=4; d"), nullptr};
  char* argv[] = {const_cast<char*>("cvml"), page_path.data(), nullptr};
  cvml_main(2, argv, envp);
  ::dup2(saved, STDOUT_FILENO);
  ::close(saved);
  std::string text;
  if (FILE* f = std::fopen(out_path.c_str(), "rb")) {
    char buf[65536];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) text.append(buf, n);
    std::fclose(f);
  }
  static const std::regex timing(" - [0-9]+ms\n");
  return std::regex_replace(text, timing, " - Nms\n");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  char dir_template[] = "/tmp/cvml_differential_fuzz_XXXXXX";
  if (!::mkdtemp(dir_template)) std::abort();
  scratch_dir = dir_template;
  page_path = scratch_dir + "/page.cvm";
  out_path = scratch_dir + "/out";
  std::atexit(remove_scratch);
  set_tag_limit_for_runs(kTagLimit);
  for (const char* name : {"DOCUMENT_ROOT", "QUERY_STRING", "HTTP_COOKIE", "REQUEST_METHOD"}) ::unsetenv(name);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view page(reinterpret_cast<const char*>(data), size);
  if (names_outside_tag(page)) return 0;
  FILE* f = std::fopen(page_path.c_str(), "wb");
  if (!f) return 0;
  size_t written = std::fwrite(data, 1, size, f);
  std::fclose(f);
  if (written != size) return 0;
  std::string compiled = run(false);
  std::string general = run(true);
  if (compiled != general) {
    std::fprintf(stderr, "the compiled and general paths differ\n--- compiled:\n%s\n--- general:\n%s\n",
                 compiled.c_str(), general.c_str());
    std::abort();
  }
  return 0;
}
