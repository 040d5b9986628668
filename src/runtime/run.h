// The processing loop: page contexts, the tag stack, node processing and
// tag dispatch, with the run-wide state they share.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "base/dynstring.h"
#include "base/memory_budget.h"
#include "base/random.h"
#include "page/page.h"
#include "page/tag.h"
#include "values/value.h"
#include "values/vartable.h"

// Output modes of a context.
enum OutputMode : uint8_t { OUTPUT_OFF = 0, OUTPUT_NORMAL = 1, OUTPUT_BINARY = 2 };
// Diagnostics switch of a context.
enum DebugMode : uint8_t { DEBUG_OFF = 0, DEBUG_ON = 1, DEBUG_ERRORS = 2 };

// One page being processed, or one piece of text processed on its own.
struct PageContext {
  PagePtr owner;              // keeps the page alive (an option's page lives in its root)
  const Page* page = nullptr;
  uint32_t current = kNoNode;  // the node to process next; kNoNode at the end
  bool stay = false;
  std::vector<uint32_t> tag_stack;  // node indices
  VarTablePtr saved_table;
  uint64_t start_ms = 0;
  std::string directory, file_name, full_path;
  uint8_t output_mode = OUTPUT_NORMAL;
  uint8_t debug = DEBUG_ON;
  bool local_scope = false;
  bool text_only = false;  // a context of process_text: shares the table
};

// Run-wide settings, filled at start-up.
struct Settings {
  std::string doc_root;     // web root, "/" separators, no trailing "/"
  std::string page_dir;     // page directory under doc_root, "/" at both ends
  std::string page_file;
  std::string program_dir;  // with a trailing "/"
  std::string config_path;  // kept for the run, never read
  std::string content_type = "text/html";
  std::string header_page = "header.cvm";
  std::string footer_page = "footer.cvm";
  bool cgi_mode = false;
  uint8_t default_output_mode = OUTPUT_NORMAL;
  uint8_t default_debug = DEBUG_ON;
};

// How a request is read and its response written: standard input and
// output for CGI and the command line, a FastCGI request's streams in the
// server.
struct RequestIO {
  // Up to `size` bytes of the request body; 0 at its end.
  size_t (*read)(void* context, char* buffer, size_t size) = nullptr;
  // Response bytes; false once the client has gone.
  bool (*write)(void* context, std::string_view bytes) = nullptr;
  void* context = nullptr;
  // The response goes to a FastCGI server, which takes its status from a
  // "Status:" header: a redirect and a page that failed carry one.
  bool status_lines = false;
};

// What a handler folder keeps for the length of a run (open files,
// connections, database connections, uploaded files): released, in the
// reverse order of the slots, when the run ends.
struct RunState {
  virtual ~RunState() = default;
};
enum RunStateSlot : uint8_t { STATE_UPLOADS, STATE_FILES, STATE_CONNECTIONS, STATE_DATABASE, STATE_COUNT };

// Bounds of one request, set by the administrator (environment variables
// for CGI, flags for the FastCGI server); 0 means no bound.
struct RunLimits {
  uint64_t time_ms = 0;        // wall time of the whole run
  uint64_t memory_bytes = 0;   // memory the run's values and buffers may hold
  uint64_t output_bytes = 0;   // the response body
  uint64_t page_bytes = 0;     // one page or included page file
  uint64_t post_bytes = 0;     // the request body
};

// Everything one request changes: made when the request starts and
// dropped when it ends, so that nothing of one request reaches the next.
struct Run {
  Settings settings;
  // Flags; `stop` is never cleared once raised.
  bool stop = false;
  bool flush_requested = false;
  bool header_discard = false;
  bool body_discard = false;
  bool abandon = false;
  uint32_t tags_processed = 0;
  // When not 0, the page stops once this many tags have run (fuzzing and
  // other harnesses that must end on pages that loop for ever).
  uint32_t tag_limit = 0;

  VarTablePtr names;  // the name table in force
  std::vector<std::unique_ptr<PageContext>> contexts;  // back() is current

  // Output and report buffers.
  DynStringPtr header, body, sql_stats, stats, errors;
  bool headers_sent = false;
  bool body_sent = false;

  // The program's arguments and the request's environment ("NAME=value").
  std::vector<std::string> argv;
  std::vector<std::string> env;
  RequestIO io;

  // Decimal mode and the decimal precision (CV-MATH), and the status of the
  // last arithmetic evaluation.
  NumberMode numbers;
  uint8_t eval_status = EVAL_OK;
  RandomState random;

  RunLimits limits;
  uint64_t start_ms = 0;  // the clock (now_ms) when the run started
  uint32_t next_time_check = 0;  // tags_processed when limits.time_ms is next looked at
  // What the run's values and buffers hold, counted while its pages run
  // (runtime/budget.h); bounded by limits.memory_bytes.
  MemoryBudget memory;
  uint64_t output_sent = 0;  // response body bytes written so far
  bool failed = false;       // an error report ended the page

  // Properties a reference computed (a type code, a size, a row count): the
  // value handed back stays valid until a few more have been computed.
  static constexpr uint32_t kPropertySlots = 8;
  Value properties[kPropertySlots];
  uint32_t next_property = 0;

  std::unique_ptr<RunState> states[STATE_COUNT];

  Run() = default;
  Run(const Run&) = delete;
  Run& operator=(const Run&) = delete;
  ~Run();
};

// Keeps a computed property in the run's slots and returns it.
Value* keep_property(Run& run, ValuePtr property);
// A variable of the request's environment; null when it is not set.
const char* run_env(const Run& run, std::string_view name);
// The run's state in `slot`, made on first use.
template <typename State>
State& run_state(Run& run, RunStateSlot slot) {
  if (!run.states[slot]) run.states[slot] = std::make_unique<State>();
  return static_cast<State&>(*run.states[slot]);
}

// Set from the environment at start-up (CVML_GENERAL_PATH=1): every option
// is processed as a page of its own, every expression as text, every block
// end found by walking, every name looked up afresh.  The compiled path must
// give the same output, headers and reports; tests run both.
extern bool general_path_only;

uint64_t now_ms();
PageContext* current_context(Run& run);
// The table in force, for reading, and for writing: a table still shared
// with a saved context is copied first, so contexts see copies on write.
VarTable& names_for_read(Run& run);
VarTable& names_for_write(Run& run);

// The 47 built-in rows in a new table.
bool tag_table_init(Run& run);
// The entry of a built-in tag (every table holds the same built-in rows).
const TagHandler* builtin_entry(uint8_t tag);

void context_push(Run& run);
void context_pop(Run& run);
void tag_stack_push(Run& run);
bool tag_stack_return(Run& run);
// Makes `page` the context's page, its first node the current one.
void install_page(Run& run, PageContext* ctx, PagePtr page);

// Nodes of a context.
inline bool node_is(const PageContext& ctx, uint32_t node, uint8_t tag) {
  return node != kNoNode && ctx.page->nodes[node].is_tag && ctx.page->nodes[node].tag == tag;
}
inline bool node_is_tag(const PageContext& ctx, uint32_t node) {
  return node != kNoNode && ctx.page->nodes[node].is_tag;
}
inline uint32_t node_line(const PageContext& ctx, uint32_t node) {
  return node == kNoNode ? 0 : ctx.page->nodes[node].line;
}
inline uint32_t next_node(const PageContext& ctx, uint32_t node) {
  return node == kNoNode || node + 1 >= ctx.page->size() ? kNoNode : node + 1;
}
// Where a block tag goes (see PageNode::jump): resolved by the compiler, or
// walked for on the general path.
uint32_t block_jump(const PageContext& ctx, uint32_t node);

// The main loop over every context.
void run_pages(Run& run);
// The output of one node of a page; false for an internal failure.
bool process_node(Run& run, const Page& page, uint32_t index, std::string& out);
// Processes the current node of the current context and advances it; the
// output goes to `out`, not to the body.  False for an internal failure.
bool process_current_node(Run& run, std::string& out);
// Processes text as a page of its own and returns its output.
std::string process_text(Run& run, std::string_view text);
// The value of a variable tag, or null when the name is not a variable.
ValuePtr call_variable_tag(Run& run, const ParsedTag& tag);

// Runs the block that the current node opens, from the node after it until
// its closing tag replaces the opening tag's stack entry, with the page body
// set aside: `capture` processes one node into the fresh body buffer, and
// what the block wrote comes back in `captured`.  Pages included by the
// block run to their end inside it.  False, with the current node back on
// the opening tag and nothing captured, when the page ends before the
// closing tag.
bool run_block_captured(Run& run, void (*capture)(Run&), std::string* captured);

// An option of the processed tag evaluated as an expression (see
// expr_evaluate); null when the tag has no such option.  Values the compiled
// path left unprinted are computed from their references' numbers.
ValuePtr option_evaluate(Run& run, const ParsedTag& tag, OptionKey name);

// A tag or a page node printed back as page text, with the name table's
// spelling of its name when the name is in the table.
void print_node(Run& run, const ParsedTag& tag, std::string& out);
void print_node(Run& run, const Page& page, uint32_t node, std::string& out);

// The compiled page of a file, or null when it cannot be read (a file that
// is not a regular file cannot).
PagePtr load_page(const std::string& path);
// Records the entry of a built-in tag for builtin_entry().
void set_builtin_entry(uint8_t tag, const TagHandler& entry);
