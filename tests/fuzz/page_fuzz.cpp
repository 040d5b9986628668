// Fuzz target for whole pages: the input is a page file, run from start-up
// to the last byte of output as the program would run it from a shell.
//
// Pages may loop for ever, so each run stops after a bounded number of tags.
// Pages run with the fuzzer's working directory and may read files through
// CVINCLUDE.  Inputs that name the tags that change files, sleep or open
// connections (CVFILE, CV-API, CVWEB) are skipped, so a run cannot delete
// files or stall; a page that builds such a name in a variable and runs it
// with CVINCLUDE var= could still reach them, so fuzz as an unprivileged user.
#include <fcntl.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "program/startup.h"

namespace {

// Enough for loops to run a while, few enough that a run stays fast.
constexpr uint32_t kTagLimit = 3000;

std::string scratch_dir;
std::string page_path;

void remove_scratch() {
  ::unlink(page_path.c_str());
  ::rmdir(scratch_dir.c_str());
}

bool names_side_effect_tag(std::string_view text) {
  std::string lower(text);
  for (char& c : lower) c = static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
  for (std::string_view name : {"cvfile", "cv-api", "cvweb"}) {
    if (lower.find(name) != std::string::npos) return true;
  }
  return false;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  char dir_template[] = "/tmp/cvml_page_fuzz_XXXXXX";
  if (!::mkdtemp(dir_template)) std::abort();
  scratch_dir = dir_template;
  page_path = scratch_dir + "/page.cvm";
  std::atexit(remove_scratch);
  set_tag_limit_for_runs(kTagLimit);
  for (const char* name : {"DOCUMENT_ROOT", "QUERY_STRING", "HTTP_COOKIE", "REQUEST_METHOD"}) ::unsetenv(name);
  ::setenv("QUERY_STRING", "a=1&b=two&a=3", 1);
  ::setenv("HTTP_COOKIE", "c=4; d", 1);
  int null_out = ::open("/dev/null", O_WRONLY);
  if (null_out < 0) std::abort();
  ::dup2(null_out, STDOUT_FILENO);
  ::close(null_out);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (names_side_effect_tag(std::string_view(reinterpret_cast<const char*>(data), size))) return 0;
  FILE* f = std::fopen(page_path.c_str(), "wb");
  if (!f) return 0;
  size_t written = std::fwrite(data, 1, size, f);
  std::fclose(f);
  if (written != size) return 0;

  char* envp[] = {const_cast<char*>("QUERY_STRING=a=1&b=two&a=3"), const_cast<char*>("HTTP_COOKIE=c=4; d"), nullptr};
  char* argv[] = {const_cast<char*>("cvml"), page_path.data(), nullptr};
  cvml_main(2, argv, envp);
  return 0;
}
