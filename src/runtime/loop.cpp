// The processing loop: contexts, the tag stack, node processing, dispatch.
#include "runtime/run.h"

#include <cctype>
#include <chrono>

#include "runtime/output.h"
#include "runtime/report.h"
#include "runtime/level4.h"
#include "base/nocase.h"

Engine engine;

void engine_reset() { engine = Engine{}; }

uint64_t now_ms() {
  using namespace std::chrono;
  static const steady_clock::time_point start = steady_clock::now();
  return static_cast<uint64_t>(duration_cast<milliseconds>(steady_clock::now() - start).count());
}

PageContext* current_context() {
  return engine.contexts.empty() ? nullptr : engine.contexts.back().get();
}

VarTable& names_for_read() { return *engine.names; }

VarTable& names_for_write() {
  // A context push shares the table with the saved one instead of copying
  // it; the copy is made here, on the first write after the push.
  if (engine.names.use_count() > 1) engine.names = vartable_copy(*engine.names);
  return *engine.names;
}

// ---------------------------------------------------------------------------
// Contexts and the tag stack

namespace {

std::unique_ptr<PageContext> new_context(const PageContext* parent) {
  auto ctx = std::make_unique<PageContext>();
  ctx->start_ms = now_ms();
  if (parent) {
    ctx->output_mode = parent->output_mode;
    ctx->debug = parent->debug;
  } else {
    ctx->output_mode = engine.settings.default_output_mode;
    ctx->debug = engine.settings.default_debug;
  }
  return ctx;
}

// Contexts of processed texts, kept when they end: an option processed on
// every pass of a loop then reuses one, with its path strings' storage,
// instead of allocating a context and three paths each time.
std::vector<std::unique_ptr<PageContext>> spare_contexts;
constexpr size_t kMaxSpareContexts = 32;

std::unique_ptr<PageContext> new_text_context(const PageContext* parent) {
  if (spare_contexts.empty()) {
    auto ctx = new_context(parent);
    ctx->text_only = true;
    if (parent) {
      ctx->directory = parent->directory;
      ctx->file_name = parent->file_name;
      ctx->full_path = parent->full_path;
    }
    return ctx;
  }
  std::unique_ptr<PageContext> ctx = std::move(spare_contexts.back());
  spare_contexts.pop_back();
  std::string directory = std::move(ctx->directory);
  std::string file_name = std::move(ctx->file_name);
  std::string full_path = std::move(ctx->full_path);
  *ctx = PageContext{};
  ctx->start_ms = now_ms();
  if (parent) {
    ctx->output_mode = parent->output_mode;
    ctx->debug = parent->debug;
    directory.assign(parent->directory);
    file_name.assign(parent->file_name);
    full_path.assign(parent->full_path);
  } else {
    ctx->output_mode = engine.settings.default_output_mode;
    ctx->debug = engine.settings.default_debug;
    directory.clear();
    file_name.clear();
    full_path.clear();
  }
  ctx->directory = std::move(directory);
  ctx->file_name = std::move(file_name);
  ctx->full_path = std::move(full_path);
  ctx->text_only = true;
  return ctx;
}

void keep_text_context(std::unique_ptr<PageContext> ctx) {
  if (spare_contexts.size() >= kMaxSpareContexts) return;
  // Let go of what the context shares with others now, not at its reuse.
  ctx->chain.reset();
  ctx->saved_table.reset();
  spare_contexts.push_back(std::move(ctx));
}

// Output buffers of processed texts, kept for reuse in the same way.
std::vector<DynStringPtr> spare_bodies;

DynStringPtr new_text_body() {
  static const DynStringPtr fresh = dyn_new();
  if (spare_bodies.empty() || !fresh) return dyn_new();
  DynStringPtr body = std::move(spare_bodies.back());
  spare_bodies.pop_back();
  *body = *fresh;  // the state of a new buffer
  return body;
}

void keep_text_body(DynStringPtr body) {
  if (body && spare_bodies.size() < kMaxSpareContexts) spare_bodies.push_back(std::move(body));
}

}  // namespace

void context_push() {
  PageContext* parent = current_context();
  // The parent keeps the table as it was; the new context works on a
  // copy, made lazily by names_for_write().
  if (parent) parent->saved_table = engine.names;
  engine.contexts.push_back(new_context(parent));
}

void context_pop() {
  if (engine.contexts.empty()) return;
  std::unique_ptr<PageContext> ctx = std::move(engine.contexts.back());
  engine.contexts.pop_back();
  PageContext* parent = current_context();
  if (ctx->text_only) {
    keep_text_context(std::move(ctx));
    return;
  }
  if (!parent) return;
  if (ctx->local_scope) engine.names = parent->saved_table;  // changes are dropped
  parent->saved_table.reset();
}

void tag_stack_push() {
  PageContext* ctx = current_context();
  if (ctx) ctx->tag_stack.push_back(ctx->current_node);
}

bool tag_stack_return() {
  PageContext* ctx = current_context();
  if (!ctx || ctx->tag_stack.empty()) return false;
  ctx->current_node = ctx->tag_stack.back();
  ctx->tag_stack.pop_back();
  ctx->stay = true;
  return true;
}

bool tag_is(const ParsedTag* node, std::string_view name) {
  return node && node->is_tag && equals_nocase(node->name, name);
}

const ParsedTag* find_block_end(const ParsedTag* from, std::string_view open, std::string_view close) {
  unsigned depth = 0;
  for (const ParsedTag* n = from; n; n = n->next) {
    if (!n->is_tag) continue;
    if (tag_is(n, close)) {
      if (depth == 0) return n;
      --depth;
    } else if (tag_is(n, open)) {
      ++depth;
    }
  }
  return nullptr;
}

bool run_block_captured(void (*capture)(), std::string* captured) {
  PageContext* ctx = current_context();
  const ParsedTag* self = ctx->current_node;
  tag_stack_push();
  size_t depth = ctx->tag_stack.size();
  DynStringPtr page_body = std::move(engine.body);
  engine.body = dyn_new();
  ctx->current_node = self->next;

  auto still_open = [&] { return ctx->tag_stack.size() >= depth && ctx->tag_stack[depth - 1] == self; };
  while (!engine.stop && ctx->current_node && still_open()) {
    capture();
    // A page included by that node runs to its end inside the block.
    while (!engine.stop && current_context() != ctx) {
      if (!current_context()->current_node) {
        if (current_context()->debug == DEBUG_ON) write_page_statistics();
        context_pop();
        continue;
      }
      capture();
    }
  }

  bool unclosed = still_open();
  if (ctx->tag_stack.size() >= depth) ctx->tag_stack.resize(depth - 1);
  ctx->stay = true;
  *captured = engine.body ? dyn_take(std::move(engine.body)) : std::string();
  engine.body = std::move(page_body);
  if (!ctx->current_node && unclosed) {
    ctx->current_node = self;
    captured->clear();
    return false;
  }
  return true;
}

// ---------------------------------------------------------------------------
// Processing

namespace {

bool option_text_plain(const std::string& text) {
  return !has_tag_start(names_for_read(), text);
}

bool options_are_plain(const ParsedTag& tag) {
  if (tag.options_plain < 0) {
    bool plain = true;
    for (const TagOption& opt : tag.options) {
      if (!option_text_plain(opt.name) || !option_text_plain(opt.value)) {
        plain = false;
        break;
      }
    }
    tag.options_plain = plain ? 1 : 0;
  }
  return tag.options_plain == 1;
}

void advance(PageContext* ctx) {
  if (ctx->stay)
    ctx->stay = false;
  else if (ctx->current_node)
    ctx->current_node = ctx->current_node->next;
}

// Appends a node's output to a text's buffer.  Most option texts have one
// node with output, which then becomes the buffer's content without a copy.
void put_output(DynString* body, std::string& out) {
  if (body && body->forward && body->pos == 0 && body->data.empty() && dyn_can_write(body)) {
    body->data.swap(out);
    body->pos = static_cast<uint32_t>(body->data.size());
    body->at_end = 0;
    return;
  }
  dyn_puts(body, out);
}

// Every level of tags inside option values is a context, a few C++ frames
// and a copy of the remaining text; deeper pages are refused before the
// stack or the memory runs out.
constexpr size_t kMaxContextDepth = 200;

// Runs a chain of option or sub-page text in a context of its own that
// shares the name table, collecting every output whatever the output mode.
std::string run_text_chain(const std::shared_ptr<const Chain>& chain) {
  if (engine.contexts.size() >= kMaxContextDepth) {
    const PageContext* outer = current_context();
    if (outer && outer->current_node)
      report_error(*outer->current_node, "Tags are nested more than 200 levels deep in option values and "
                                         "included pages.  See the Corvane documentation for details.");
    engine.stop = true;
    return {};
  }
  auto ctx = new_text_context(current_context());
  ctx->chain = chain;
  ctx->first_node = ctx->current_node = chain->head();
  PageContext* own = ctx.get();
  size_t depth = engine.contexts.size();
  engine.contexts.push_back(std::move(ctx));

  // Tags that write to the body themselves (CVBINARY ...) write into this
  // text's output while it is processed.
  DynStringPtr saved_body = std::move(engine.body);
  engine.body = new_text_body();

  std::string out;
  while (!engine.stop && !engine.abandon) {
    PageContext* cur = current_context();
    if (!cur->current_node) {
      if (cur == own) break;
      // A page included from inside this text has ended.
      if (cur->debug == DEBUG_ON) write_page_statistics();
      context_pop();
      continue;
    }
    if (!process_node(*cur->current_node, out)) {
      report_internal_error();
      engine.stop = true;
      break;
    }
    if (!out.empty()) put_output(engine.body.get(), out);
    advance(current_context());
  }
  while (engine.contexts.size() > depth + 1) {
    if (current_context()->debug == DEBUG_ON) write_page_statistics();
    context_pop();
  }
  context_pop();

  std::string result;
  if (!engine.abandon && engine.body) result = std::move(engine.body->data);
  keep_text_body(std::move(engine.body));
  engine.body = std::move(saved_body);
  return result;
}

}  // namespace

namespace {
std::string dispatch_from(const ParsedTag& tag, const ParsedTag& origin);
}  // namespace

std::string process_text(std::string_view text) {
  if (text.empty()) return {};
  if (!has_tag_start(names_for_read(), text)) return std::string(text);
  PageContext* ctx = current_context();
  uint32_t line = ctx && ctx->current_node ? ctx->current_node->line : 1;
  auto chain = std::make_shared<Chain>(tokenize_text(names_for_read(), text, line));
  return run_text_chain(chain);
}

std::string process_option_text(const std::string& text, std::shared_ptr<const Chain>& cache) {
  if (text.empty()) return {};
  if (!cache) {
    if (option_text_plain(text)) return text;
    PageContext* ctx = current_context();
    uint32_t line = ctx && ctx->current_node ? ctx->current_node->line : 1;
    cache = std::make_shared<Chain>(tokenize_text(names_for_read(), text, line));
  }
  return run_text_chain(cache);
}

bool process_node(const ParsedTag& node, std::string& out) {
  out.clear();
  if (!node.is_tag) {
    out = node.text;
    return true;
  }
  if (++engine.tags_processed > engine.tag_limit && engine.tag_limit) {
    engine.stop = true;
    return true;
  }
  if (options_are_plain(node)) {
    out = dispatch_from(node, node);
    return true;
  }
  ParsedTag processed;
  processed.line = node.line;
  processed.is_tag = true;
  processed.name = node.name;
  processed.options.reserve(node.options.size());
  for (const TagOption& opt : node.options) {
    if (engine.stop || engine.abandon) break;
    TagOption done;
    done.name = process_option_text(opt.name, opt.name_chain);
    if (engine.abandon) break;
    done.value = process_option_text(opt.value, opt.value_chain);
    processed.options.push_back(std::move(done));
  }
  if (!engine.abandon) out = dispatch_from(processed, node);
  return true;
}

bool process_current_node(std::string& out) {
  PageContext* ctx = current_context();
  out.clear();
  if (!ctx || !ctx->current_node) return true;
  bool ok = process_node(*ctx->current_node, out);
  advance(current_context());
  return ok;
}

namespace {

// Runs the handler of `tag`; `origin` is the page node it was processed
// from, which remembers where its name stands in the table.
std::string dispatch_from(const ParsedTag& tag, const ParsedTag& origin) {
  const TagHandler* entry = vartable_find_for(*engine.names, origin);
  if (!entry) {
    std::string printed;
    print_node(nullptr, tag, printed);
    return printed;
  }
  TagHandlerFn handler = entry->handler;
  if (handler == level4_handler) {
    std::string printed;
    level4_print(tag, printed);
    return printed;
  }
  ValuePtr result = handler ? handler(tag) : nullptr;
  if (!result) return {};
  if (result->type == VT_STRING && result->start == 0 && result->end == result->bytes.size())
    return std::move(result->bytes);
  return value_text(*result);
}

}  // namespace

std::string dispatch_tag(const ParsedTag& tag) { return dispatch_from(tag, tag); }

ValuePtr call_variable_tag(const ParsedTag& tag) {
  const TagHandler* entry = vartable_find(names_for_read(), tag.name);
  if (!entry || entry->kind != KIND_VARIABLE || !entry->handler) return nullptr;
  return entry->handler(tag);
}

// ---------------------------------------------------------------------------
// The main loop

namespace {

bool replace_buffer(DynStringPtr& buffer) {
  buffer = dyn_new();
  if (buffer) return true;
  report_internal_error();
  engine.stop = true;
  return false;
}

void after_node() {
  if (engine.abandon || engine.body_discard || engine.header_discard) {
    if (engine.abandon || engine.header_discard) replace_buffer(engine.header);
    if (engine.abandon || engine.body_discard) replace_buffer(engine.body);
    engine.abandon = engine.body_discard = engine.header_discard = false;
  }
  if (engine.flush_requested) {
    send_headers();
    send_body();
    replace_buffer(engine.header);
    replace_buffer(engine.body);
    engine.flush_requested = false;
  }
}

}  // namespace

void run_pages() {
  std::string out;
  while (PageContext* ctx = current_context()) {
    while (!engine.stop) {
      ctx = current_context();
      if (!ctx->current_node) break;
      if (!process_node(*ctx->current_node, out)) {
        report_internal_error();
        engine.stop = true;
        break;
      }
      ctx = current_context();
      if (!engine.abandon && !engine.body_discard && ctx->output_mode == OUTPUT_NORMAL && !out.empty())
        dyn_puts(engine.body.get(), out);
      after_node();
      advance(ctx);
    }
    ctx = current_context();
    if (ctx->debug == DEBUG_ON) write_page_statistics();
    context_pop();
  }
}
