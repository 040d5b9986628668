// The processing loop: contexts, the tag stack, node processing, dispatch.
//
// A tag node's options are processed first, then the tag is dispatched by
// its name.  How an option is processed is decided per option: text
// without tags is its own processed form; text made of bare references to
// variables is formed on the compiled path (runtime/execute.cpp); anything
// else is processed as a page of its own on the general path
// (runtime/general.cpp).
#include "runtime/run.h"

#include <chrono>

#include "runtime/budget.h"
#include "runtime/execute.h"
#include "runtime/general.h"
#include "runtime/level4.h"
#include "runtime/output.h"
#include "runtime/report.h"

bool general_path_only = false;

Run::~Run() {
  // What the handler folders hold goes first, newest kind first; then the
  // contexts, whose tables and pages may be shared with what went before.
  for (int slot = STATE_COUNT; slot-- > 0;) states[slot].reset();
  contexts.clear();
}

Value* keep_property(Run& run, ValuePtr property) {
  Value& slot = run.properties[run.next_property++ % Run::kPropertySlots];
  slot = std::move(*property);
  return &slot;
}

const char* run_env(const Run& run, std::string_view name) {
  for (const std::string& entry : run.env) {
    if (entry.size() > name.size() && entry[name.size()] == '=' && entry.compare(0, name.size(), name) == 0)
      return entry.c_str() + name.size() + 1;
  }
  return nullptr;
}

uint64_t now_ms() {
  using namespace std::chrono;
  static const steady_clock::time_point start = steady_clock::now();
  return static_cast<uint64_t>(duration_cast<milliseconds>(steady_clock::now() - start).count());
}

PageContext* current_context(Run& run) {
  return run.contexts.empty() ? nullptr : run.contexts.back().get();
}

VarTable& names_for_read(Run& run) { return *run.names; }

VarTable& names_for_write(Run& run) {
  // A context push shares the table with the saved one instead of copying
  // it; the copy is made here, on the first write after the push.
  if (run.names.use_count() > 1) run.names = vartable_copy(*run.names);
  return *run.names;
}

// ---------------------------------------------------------------------------
// Contexts and the tag stack

std::unique_ptr<PageContext> new_context(Run& run, const PageContext* parent) {
  auto ctx = std::make_unique<PageContext>();
  ctx->start_ms = now_ms();
  if (parent) {
    ctx->output_mode = parent->output_mode;
    ctx->debug = parent->debug;
  } else {
    ctx->output_mode = run.settings.default_output_mode;
    ctx->debug = run.settings.default_debug;
  }
  return ctx;
}

void context_push(Run& run) {
  PageContext* parent = current_context(run);
  // The parent keeps the table as it was; the new context works on a
  // copy, made lazily by names_for_write(run).
  if (parent) parent->saved_table = run.names;
  run.contexts.push_back(new_context(run, parent));
}

void context_pop(Run& run) {
  if (run.contexts.empty()) return;
  std::unique_ptr<PageContext> ctx = std::move(run.contexts.back());
  run.contexts.pop_back();
  PageContext* parent = current_context(run);
  if (ctx->text_only) {
    keep_text_context(std::move(ctx));
    return;
  }
  if (!parent) return;
  if (ctx->local_scope) run.names = parent->saved_table;  // changes are dropped
  parent->saved_table.reset();
}

void install_page(Run&, PageContext* ctx, PagePtr page) {
  ctx->page = page.get();
  ctx->current = page->size() ? 0 : kNoNode;
  ctx->owner = std::move(page);
}

void tag_stack_push(Run& run) {
  PageContext* ctx = current_context(run);
  if (ctx) ctx->tag_stack.push_back(ctx->current);
}

bool tag_stack_return(Run& run) {
  PageContext* ctx = current_context(run);
  if (!ctx || ctx->tag_stack.empty()) return false;
  ctx->current = ctx->tag_stack.back();
  ctx->tag_stack.pop_back();
  ctx->stay = true;
  return true;
}

uint32_t block_jump(const PageContext& ctx, uint32_t node) {
  if (node == kNoNode) return kNoNode;
  return general_path_only ? walk_block_jump(*ctx.page, node) : ctx.page->nodes[node].jump;
}

// ---------------------------------------------------------------------------
// Processing a node

namespace {

// One processed tag per level of nested processing, reused so that a tag
// processed on every pass of a loop allocates nothing once warm.
struct TagScratch {
  std::vector<std::unique_ptr<ParsedTag>> tags;
  size_t depth = 0;
};
TagScratch scratch;

struct ScratchTag {
  ParsedTag& tag;
  ScratchTag() : tag(take()) {}
  ~ScratchTag() { scratch.depth--; }
  static ParsedTag& take() {
    if (scratch.depth == scratch.tags.size()) scratch.tags.push_back(std::make_unique<ParsedTag>());
    return *scratch.tags[scratch.depth++];
  }
};

void advance(PageContext* ctx) {
  if (ctx->stay)
    ctx->stay = false;
  else
    ctx->current = next_node(*ctx, ctx->current);
}

// The processed options of a tag node, in order, as far as processing got
// before `stop` or `abandon` was raised.
void process_options(Run& run, const Page& page, uint32_t index, ParsedTag& tag) {
  const PageNode& node = page.nodes[index];
  tag.options.clear();
  tag.refs.clear();
  for (uint32_t k = 0; k < node.option_count; k++) {
    if (run.stop || run.abandon) break;
    const PageOption& option = page.options[node.first_option() + k];
    TagOption& done = tag.options.emplace_back();
    done.source = &option;
    done.page = &page;
    if (option.name_form == FORM_LITERAL) {
      done.name.assign(page.text(option.name));
      done.atom = option.atom;
    } else {
      done.name = process_page_text(run, option_name_page(page, option, node.line));
    }
    if (run.abandon) {
      tag.options.pop_back();
      break;
    }
    if (option.value_form == FORM_LITERAL) {
      done.value.assign(page.text(option.value));
      continue;
    }
    const Page& value = option_value_page(page, option, node.line);
    if (option.value_form == FORM_REFERENCES && !general_path_only && take_references(run, value, tag, done))
      continue;
    done.value = process_page_text(run, value);
  }
}

// Runs the handler of a processed tag; `page` and `index` name the node it
// was processed from.
void dispatch(Run& run, const Page& page, uint32_t index, const ParsedTag& tag, std::string& out) {
  const PageNode& node = page.nodes[index];
  const TagHandler* entry = node.tag != TAG_OTHER && !general_path_only
                                ? builtin_entry(node.tag)
                                : find_page_name(run, page, node.span.at);
  if (!entry) {
    print_tag(tag, nullptr, out);
    return;
  }
  if (entry->kind == KIND_VARIABLE) {
    if (tag.options.empty() && !general_path_only && print_variable(run, *entry, tag.name, out)) return;
    level4_print(run, tag, out);
    return;
  }
  ValuePtr result = entry->handler ? entry->handler(run, tag) : nullptr;
  if (!result) return;
  if (result->type == VT_STRING && result->start == 0 && result->end == result->bytes.size())
    out = std::move(result->bytes);
  else
    out = value_text(*result);
}

// The run's wall-time bound, looked at every 64 tags or so: past it, the
// page ends with an error report at the tag about to run.
bool past_time_limit(Run& run, const Page& page, uint32_t index) {
  if (!run.limits.time_ms || run.tags_processed < run.next_time_check) return false;
  run.next_time_check = run.tags_processed + 64;
  if (now_ms() - run.start_ms <= run.limits.time_ms) return false;
  ParsedTag tag;
  tag.line = page.nodes[index].line;
  tag.is_tag = true;
  tag.name = page.node_name(index);
  uint64_t ms = run.limits.time_ms;
  std::string limit = ms % 1000 ? std::to_string(ms) + " milliseconds"
                    : ms == 1000  ? std::string("1 second")
                                  : std::to_string(ms / 1000) + " seconds";
  report_error(run, tag, "The request ran longer than its time limit of " + limit + " (--max-time).");
  return true;
}

}  // namespace

bool process_node(Run& run, const Page& page, uint32_t index, std::string& out) {
  out.clear();
  const PageNode& node = page.nodes[index];
  if (!node.is_tag) {
    out.assign(page.text(node.span));
    return true;
  }
  if (++run.tags_processed > run.tag_limit && run.tag_limit) {
    run.stop = true;
    return true;
  }
  if (past_time_limit(run, page, index)) return true;
  if (!general_path_only) {
    if (FastHandlerFn fast = fast_handler(node.tag)) {
      FastArgs args;
      if (fast_options(run, page, index, args)) {
        if (fast(run, args)) return true;
        ScratchTag scratch_tag;
        fast_to_tag(args, scratch_tag.tag);
        dispatch(run, page, index, scratch_tag.tag, out);
        return true;
      }
    }
  }
  ScratchTag scratch_tag;
  ParsedTag& tag = scratch_tag.tag;
  tag.line = node.line;
  tag.is_tag = true;
  tag.name = page.node_name(index);
  process_options(run, page, index, tag);
  if (!run.abandon) dispatch(run, page, index, tag, out);
  return true;
}

bool process_current_node(Run& run, std::string& out) {
  PageContext* ctx = current_context(run);
  out.clear();
  if (!ctx || ctx->current == kNoNode) return true;
  bool ok = process_node(run, *ctx->page, ctx->current, out);
  advance(current_context(run));
  return ok;
}

ValuePtr call_variable_tag(Run& run, const ParsedTag& tag) {
  const TagHandler* entry = vartable_find(names_for_read(run), tag.name);
  if (!entry || entry->kind != KIND_VARIABLE) return nullptr;
  return level4_handler(run, tag);
}

bool run_block_captured(Run& run, void (*capture)(Run&), std::string* captured) {
  PageContext* ctx = current_context(run);
  uint32_t self = ctx->current;
  tag_stack_push(run);
  size_t depth = ctx->tag_stack.size();
  DynStringPtr page_body = std::move(run.body);
  // Back in place also when an allocation failure ends the run in the block.
  struct BodyBack {
    Run& run;
    DynStringPtr& saved;
    ~BodyBack() {
      if (saved) run.body = std::move(saved);
    }
  } body_back{run, page_body};
  run.body = dyn_new();
  ctx->current = next_node(*ctx, self);

  auto still_open = [&] { return ctx->tag_stack.size() >= depth && ctx->tag_stack[depth - 1] == self; };
  while (!run.stop && ctx->current != kNoNode && still_open()) {
    capture(run);
    // A page included by that node runs to its end inside the block.
    while (!run.stop && current_context(run) != ctx) {
      if (current_context(run)->current == kNoNode) {
        if (current_context(run)->debug == DEBUG_ON) write_page_statistics(run);
        context_pop(run);
        continue;
      }
      capture(run);
    }
  }

  bool unclosed = still_open();
  if (ctx->tag_stack.size() >= depth) ctx->tag_stack.resize(depth - 1);
  ctx->stay = true;
  *captured = run.body ? dyn_take(std::move(run.body)) : std::string();
  run.body = std::move(page_body);
  if (ctx->current == kNoNode && unclosed) {
    ctx->current = self;
    captured->clear();
    return false;
  }
  return true;
}

// ---------------------------------------------------------------------------
// The main loop

namespace {

bool replace_buffer(Run& run, DynStringPtr& buffer) {
  buffer = dyn_new();
  if (buffer) return true;
  report_internal_error(run);
  run.stop = true;
  return false;
}

void after_node(Run& run) {
  enforce_run_limits(run);
  if (run.abandon || run.body_discard || run.header_discard) {
    if (run.abandon || run.header_discard) replace_buffer(run, run.header);
    if (run.abandon || run.body_discard) replace_buffer(run, run.body);
    run.abandon = run.body_discard = run.header_discard = false;
  }
  if (run.flush_requested) {
    send_headers(run);
    send_body(run);
    replace_buffer(run, run.header);
    replace_buffer(run, run.body);
    run.flush_requested = false;
  }
}

}  // namespace

void run_pages(Run& run) {
  std::string out;
  while (PageContext* ctx = current_context(run)) {
    while (!run.stop) {
      ctx = current_context(run);
      if (ctx->current == kNoNode) break;
      if (!process_node(run, *ctx->page, ctx->current, out)) {
        report_internal_error(run);
        run.stop = true;
        break;
      }
      ctx = current_context(run);
      if (!run.abandon && !run.body_discard && ctx->output_mode == OUTPUT_NORMAL && !out.empty())
        dyn_puts(run.body.get(), out);
      after_node(run);
      advance(ctx);
    }
    ctx = current_context(run);
    if (ctx->debug == DEBUG_ON) write_page_statistics(run);
    context_pop(run);
  }
}

void print_node(Run& run, const ParsedTag& tag, std::string& out) {
  print_tag(tag, tag.is_tag ? vartable_stored_name(*run.names, tag.name) : nullptr, out);
}

void print_node(Run& run, const Page& page, uint32_t node, std::string& out) {
  const std::string* stored =
      page.nodes[node].is_tag ? vartable_stored_name(*run.names, page.node_name(node)) : nullptr;
  print_page_node(page, node, stored, out);
}

namespace {
TagHandler builtin_rows[TAG_COUNT];
}

void set_builtin_entry(uint8_t tag, const TagHandler& entry) {
  if (tag < TAG_COUNT) {
    builtin_rows[tag].kind = entry.kind;
    builtin_rows[tag].tag_class = entry.tag_class;
    builtin_rows[tag].handler = entry.handler;
  }
}

const TagHandler* builtin_entry(uint8_t tag) {
  return tag < TAG_COUNT && builtin_rows[tag].handler ? &builtin_rows[tag] : nullptr;
}
