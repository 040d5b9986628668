// The processing loop: page contexts, the tag stack, node processing and
// tag dispatch, with the run-wide state they share.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "page/tokenizer.h"
#include "base/dynstring.h"
#include "values/value.h"
#include "values/vartable.h"

// Output modes of a context.
enum OutputMode : uint8_t { OUTPUT_OFF = 0, OUTPUT_NORMAL = 1, OUTPUT_BINARY = 2 };
// Diagnostics switch of a context.
enum DebugMode : uint8_t { DEBUG_OFF = 0, DEBUG_ON = 1, DEBUG_ERRORS = 2 };

// One page being processed, or one piece of text processed on its own.
struct PageContext {
  std::shared_ptr<const Chain> chain;  // owns the nodes
  const ParsedTag* first_node = nullptr;
  const ParsedTag* current_node = nullptr;
  bool stay = false;
  std::vector<const ParsedTag*> tag_stack;
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

struct Engine {
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

  // The program's arguments and environment, kept for the run.
  std::vector<std::string> argv;
  std::vector<std::string> envp;
};

extern Engine engine;

// Clears every flag, buffer and context: a fresh engine for one run.
void engine_reset();
uint64_t now_ms();
PageContext* current_context();
// The table in force, for reading, and for writing: a table still shared
// with a saved context is copied first, so contexts see copies on write.
VarTable& names_for_read();
VarTable& names_for_write();

// The 47 built-in rows (those whose handlers exist) in a new table.
bool tag_table_init();

void context_push();
void context_pop();
void tag_stack_push();
bool tag_stack_return();

// The main loop over every context.
void run_pages();
// The output of one node; false for an internal failure.
bool process_node(const ParsedTag& node, std::string& out);
// Processes text as a page of its own and returns its output.
std::string process_text(std::string_view text);
// Same, for an option text whose parsed form the caller remembers.
std::string process_option_text(const std::string& text, std::shared_ptr<const Chain>& cache);
// Processes the current node of the current context and advances it; the
// output goes to `out`, not to the body.  False for an internal failure.
bool process_current_node(std::string& out);
std::string dispatch_tag(const ParsedTag& tag);
// The value of a variable tag, or null when the name is not a variable.
ValuePtr call_variable_tag(const ParsedTag& tag);

// Block walks shared by block handlers: the first node from `from` on
// (`from` included) that is a tag named `close` while the nesting of
// `open`/`close` tags is zero.
const ParsedTag* find_block_end(const ParsedTag* from, std::string_view open, std::string_view close);
bool tag_is(const ParsedTag* node, std::string_view name);

// Runs the block that the current node opens, from the node after it until
// its closing tag replaces the opening tag's stack entry, with the page body
// set aside: `capture` processes one node into the fresh body buffer, and
// what the block wrote comes back in `captured`.  Pages included by the
// block run to their end inside it.  False, with `current_node` back on the
// opening tag and nothing captured, when the chain ends before the closing
// tag.
bool run_block_captured(void (*capture)(), std::string* captured);
