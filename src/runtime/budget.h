// The budget of one request: memory, output, page files and the POST body,
// their defaults and the CGI environment variables that set them.
//
// The FastCGI server fills RunLimits from its flags; a CGI run takes them
// from limits_from_environment().  Exceeding a limit ends the page with an
// error report that names the limit; the output so far is sent.
#pragma once

#include <cstdint>
#include <string>

#include "runtime/run.h"

// Defaults, far above what a normal page needs.
constexpr uint64_t kDefaultMaxMemory = uint64_t{128} << 20;  // CVML_MAX_MEMORY
constexpr uint64_t kDefaultMaxOutput = uint64_t{256} << 20;  // CVML_MAX_OUTPUT
constexpr uint64_t kDefaultMaxPage = uint64_t{16} << 20;     // CVML_MAX_PAGE

// A size as the variables take it: decimal bytes, optionally followed by K,
// M or G (powers of 1024); 0 means no bound.  False for anything else.
bool parse_size(const char* text, uint64_t* bytes);
// The defaults with CVML_MAX_MEMORY, CVML_MAX_OUTPUT, CVML_MAX_PAGE and
// CVML_MAX_UPLOAD (the POST body) applied; a value that is not a size keeps
// its default.  The time limit is the FastCGI server's: 0 here.
RunLimits limits_from_environment();

// Puts the run's memory budget in force on this thread for the life of
// the scope (declared after the Run, so that it ends before the Run is
// taken apart).
struct RunMemoryScope {
  explicit RunMemoryScope(Run& run);
  MemoryBudgetScope scope;
};

// Called after every node of the main loop: memory counted past the budget
// (GMP's growth is counted after the fact) and output past its limit end
// the page with a report.  Output past the limit is cut off at the limit.
void enforce_run_limits(Run& run);
// After std::bad_alloc ended the run's work: lifts the memory budget so the
// report and the response can be made, then reports the memory limit (or
// the system's refusal) at the node that was running.
void report_memory_failure(Run& run);
// Bytes of the response body that may still be written; UINT64_MAX when
// there is no bound.
uint64_t output_room(const Run& run);

// The size of the page file at `path` when it is more than the page limit
// allows, else 0.
uint64_t page_file_too_large(const Run& run, const std::string& path);
// "<what> is N bytes, more than the limit of M bytes for a page (CVML_MAX_PAGE)."
std::string page_limit_message(const std::string& what, uint64_t size, uint64_t limit);
