// The budget of one request: limits from the environment, the memory
// budget in force while the pages run, and the checks after each node.
#include "runtime/budget.h"

#include <sys/stat.h>

#include <cstdlib>
#include <new>

#include "runtime/report.h"
#include "runtime/uploads.h"

namespace {

void apply(const char* name, uint64_t* field) {
  uint64_t bytes;
  if (parse_size(std::getenv(name), &bytes)) *field = bytes;
}

MemoryBudget* fresh_budget(Run& run) {
  run.memory = MemoryBudget{};
  uint64_t limit = run.limits.memory_bytes;
  run.memory.limit = limit > uint64_t{INT64_MAX} ? INT64_MAX : static_cast<int64_t>(limit);
  return &run.memory;
}

// Files `message` as an error of the node that is running (or that ran
// last), or as a line of the error report when no page is running.
void report_at_current(Run& run, const std::string& message) {
  PageContext* ctx = current_context(run);
  if (!ctx) {
    report_diagnostic(run, "Error:  " + message + "\n");
    run.failed = true;
    run.stop = true;
    return;
  }
  ParsedTag tag;
  if (ctx->page && ctx->current != kNoNode) node_as_tag(*ctx->page, ctx->current, tag);
  report_error(run, tag, message);
}

std::string memory_message(uint64_t limit) {
  return "The page needed more memory than its limit of " + std::to_string(limit) +
         " bytes allows (CVML_MAX_MEMORY).";
}

}  // namespace

bool parse_size(const char* text, uint64_t* bytes) {
  if (!text || *text < '0' || *text > '9') return false;
  uint64_t n = 0;
  const char* p = text;
  for (; *p >= '0' && *p <= '9'; ++p) {
    if (n > (UINT64_MAX - 9) / 10) return false;
    n = n * 10 + static_cast<uint64_t>(*p - '0');
  }
  int shift = 0;
  switch (*p) {
    case 'k': case 'K': shift = 10; ++p; break;
    case 'm': case 'M': shift = 20; ++p; break;
    case 'g': case 'G': shift = 30; ++p; break;
    default: break;
  }
  if (*p != '\0' || n > (UINT64_MAX >> shift)) return false;
  *bytes = n << shift;
  return true;
}

RunLimits limits_from_environment() {
  RunLimits limits;
  limits.memory_bytes = kDefaultMaxMemory;
  limits.output_bytes = kDefaultMaxOutput;
  limits.page_bytes = kDefaultMaxPage;
  limits.post_bytes = upload_limit();
  apply("CVML_MAX_MEMORY", &limits.memory_bytes);
  apply("CVML_MAX_OUTPUT", &limits.output_bytes);
  apply("CVML_MAX_PAGE", &limits.page_bytes);
  return limits;
}

RunMemoryScope::RunMemoryScope(Run& run) : scope(fresh_budget(run)) {}

void enforce_run_limits(Run& run) {
  if (run.stop) return;
  MemoryBudget& memory = run.memory;
  if (memory.limit && memory.held > memory.limit) {
    memory.exceeded = true;
    report_at_current(run, memory_message(run.limits.memory_bytes));
    return;
  }
  uint64_t room = output_room(run);
  if (run.body && run.body->data.size() > room) {
    run.body->data.resize(room);
    run.body->pos = static_cast<uint32_t>(room);
    report_at_current(run, "The page's output reached its limit of " + std::to_string(run.limits.output_bytes) +
                               " bytes (CVML_MAX_OUTPUT); the rest was left out.");
  }
}

void report_memory_failure(Run& run) {
  bool budget = run.memory.exceeded;
  run.memory.limit = 0;  // counted from here on, never refused
  try {
    // The report names the page's own tag, not the text of one of its
    // options that happened to be running.
    while (run.contexts.size() > 1 && current_context(run)->text_only) context_pop(run);
    report_at_current(run, budget ? memory_message(run.limits.memory_bytes)
                                  : "The system could not provide the memory the page needed.");
  } catch (const std::bad_alloc&) {
    // Not even the report could be made; the page still ends.
  }
  run.failed = true;
  run.stop = true;
}

uint64_t output_room(const Run& run) {
  uint64_t limit = run.limits.output_bytes;
  if (limit == 0) return UINT64_MAX;
  return run.output_sent >= limit ? 0 : limit - run.output_sent;
}

uint64_t page_file_too_large(const Run& run, const std::string& path) {
  struct stat info;
  uint64_t limit = run.limits.page_bytes;
  if (limit == 0 || ::stat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) return 0;
  uint64_t size = static_cast<uint64_t>(info.st_size);
  return size > limit ? size : 0;
}

std::string page_limit_message(const std::string& what, uint64_t size, uint64_t limit) {
  return what + " is " + std::to_string(size) + " bytes, more than the limit of " + std::to_string(limit) +
         " bytes for a page (CVML_MAX_PAGE).";
}
