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

#include "runtime/execute.h"
#include "runtime/general.h"
#include "runtime/level4.h"
#include "runtime/output.h"
#include "runtime/report.h"

Engine engine;
bool general_path_only = false;

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

void install_page(PageContext* ctx, PagePtr page) {
  ctx->page = page.get();
  ctx->current = page->size() ? 0 : kNoNode;
  ctx->owner = std::move(page);
}

void tag_stack_push() {
  PageContext* ctx = current_context();
  if (ctx) ctx->tag_stack.push_back(ctx->current);
}

bool tag_stack_return() {
  PageContext* ctx = current_context();
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
void process_options(const Page& page, uint32_t index, ParsedTag& tag) {
  const PageNode& node = page.nodes[index];
  tag.options.clear();
  tag.refs.clear();
  for (uint32_t k = 0; k < node.option_count; k++) {
    if (engine.stop || engine.abandon) break;
    const PageOption& option = page.options[node.first_option() + k];
    TagOption& done = tag.options.emplace_back();
    done.source = &option;
    done.page = &page;
    if (option.name_form == FORM_LITERAL) {
      done.name.assign(page.text(option.name));
      done.atom = option.atom;
    } else {
      done.name = process_page_text(option_name_page(page, option, node.line));
    }
    if (engine.abandon) {
      tag.options.pop_back();
      break;
    }
    if (option.value_form == FORM_LITERAL) {
      done.value.assign(page.text(option.value));
      continue;
    }
    const Page& value = option_value_page(page, option, node.line);
    if (option.value_form == FORM_REFERENCES && !general_path_only && take_references(value, tag, done))
      continue;
    done.value = process_page_text(value);
  }
}

// Runs the handler of a processed tag; `page` and `index` name the node it
// was processed from.
void dispatch(const Page& page, uint32_t index, const ParsedTag& tag, std::string& out) {
  const PageNode& node = page.nodes[index];
  const TagHandler* entry = node.tag != TAG_OTHER && !general_path_only
                                ? builtin_entry(node.tag)
                                : find_page_name(page, node.span.at);
  if (!entry) {
    print_tag(tag, nullptr, out);
    return;
  }
  if (entry->kind == KIND_VARIABLE) {
    if (tag.options.empty() && !general_path_only && print_variable(*entry, tag.name, out)) return;
    level4_print(tag, out);
    return;
  }
  ValuePtr result = entry->handler ? entry->handler(tag) : nullptr;
  if (!result) return;
  if (result->type == VT_STRING && result->start == 0 && result->end == result->bytes.size())
    out = std::move(result->bytes);
  else
    out = value_text(*result);
}

}  // namespace

bool process_node(const Page& page, uint32_t index, std::string& out) {
  out.clear();
  const PageNode& node = page.nodes[index];
  if (!node.is_tag) {
    out.assign(page.text(node.span));
    return true;
  }
  if (++engine.tags_processed > engine.tag_limit && engine.tag_limit) {
    engine.stop = true;
    return true;
  }
  if (!general_path_only) {
    if (FastHandlerFn fast = fast_handler(node.tag)) {
      FastArgs args;
      if (fast_options(page, index, args)) {
        if (fast(args)) return true;
        ScratchTag scratch_tag;
        fast_to_tag(args, scratch_tag.tag);
        dispatch(page, index, scratch_tag.tag, out);
        return true;
      }
    }
  }
  ScratchTag scratch_tag;
  ParsedTag& tag = scratch_tag.tag;
  tag.line = node.line;
  tag.is_tag = true;
  tag.name = page.node_name(index);
  process_options(page, index, tag);
  if (!engine.abandon) dispatch(page, index, tag, out);
  return true;
}

bool process_current_node(std::string& out) {
  PageContext* ctx = current_context();
  out.clear();
  if (!ctx || ctx->current == kNoNode) return true;
  bool ok = process_node(*ctx->page, ctx->current, out);
  advance(current_context());
  return ok;
}

ValuePtr call_variable_tag(const ParsedTag& tag) {
  const TagHandler* entry = vartable_find(names_for_read(), tag.name);
  if (!entry || entry->kind != KIND_VARIABLE) return nullptr;
  return level4_handler(tag);
}

bool run_block_captured(void (*capture)(), std::string* captured) {
  PageContext* ctx = current_context();
  uint32_t self = ctx->current;
  tag_stack_push();
  size_t depth = ctx->tag_stack.size();
  DynStringPtr page_body = std::move(engine.body);
  engine.body = dyn_new();
  ctx->current = next_node(*ctx, self);

  auto still_open = [&] { return ctx->tag_stack.size() >= depth && ctx->tag_stack[depth - 1] == self; };
  while (!engine.stop && ctx->current != kNoNode && still_open()) {
    capture();
    // A page included by that node runs to its end inside the block.
    while (!engine.stop && current_context() != ctx) {
      if (current_context()->current == kNoNode) {
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
      if (ctx->current == kNoNode) break;
      if (!process_node(*ctx->page, ctx->current, out)) {
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

void print_node(const ParsedTag& tag, std::string& out) {
  print_tag(tag, tag.is_tag ? vartable_stored_name(*engine.names, tag.name) : nullptr, out);
}

void print_node(const Page& page, uint32_t node, std::string& out) {
  const std::string* stored =
      page.nodes[node].is_tag ? vartable_stored_name(*engine.names, page.node_name(node)) : nullptr;
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
