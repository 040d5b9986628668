// The general path: option text processed as a page of its own, and block
// ends found by walking.
#include "runtime/general.h"

#include "runtime/report.h"

namespace {

// Contexts of processed texts, kept when they end: an option processed on
// every pass of a loop then reuses one, with its path strings' storage,
// instead of allocating a context and three paths each time.
std::vector<std::unique_ptr<PageContext>> spare_contexts;
constexpr size_t kMaxSpareContexts = 32;

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
// and a compiled copy of the remaining text; deeper pages are refused before
// the stack or the memory runs out.
constexpr size_t kMaxContextDepth = 200;

void advance(PageContext* ctx) {
  if (ctx->stay)
    ctx->stay = false;
  else
    ctx->current = next_node(*ctx, ctx->current);
}

// Runs `text` in a context of its own that shares the name table,
// collecting every output whatever the output mode.
std::string run_text(Run& run, const Page& text, PagePtr owner) {
  if (run.contexts.size() >= kMaxContextDepth) {
    const PageContext* outer = current_context(run);
    if (outer && outer->current != kNoNode) {
      ParsedTag original;
      node_as_tag(*outer->page, outer->current, original);
      report_error(run, original, "Tags are nested more than 200 levels deep in option values and "
                             "included pages.  See the Corvane documentation for details.");
    }
    run.stop = true;
    return {};
  }
  auto ctx = new_text_context(run, current_context(run));
  ctx->owner = std::move(owner);
  ctx->page = &text;
  ctx->current = text.size() ? 0 : kNoNode;
  PageContext* own = ctx.get();
  size_t depth = run.contexts.size();
  run.contexts.push_back(std::move(ctx));

  // Tags that write to the body themselves (CVBINARY ...) write into this
  // text's output while it is processed.
  DynStringPtr saved_body = std::move(run.body);
  // The page's body comes back even when an allocation failure ends the run
  // from inside this text, so that the output so far is sent.
  struct BodyBack {
    Run& run;
    DynStringPtr& saved;
    ~BodyBack() {
      if (saved) run.body = std::move(saved);
    }
  } body_back{run, saved_body};
  run.body = new_text_body();

  std::string out;
  while (!run.stop && !run.abandon) {
    PageContext* cur = current_context(run);
    if (cur->current == kNoNode) {
      if (cur == own) break;
      // A page included from inside this text has ended.
      if (cur->debug == DEBUG_ON) write_page_statistics(run);
      context_pop(run);
      continue;
    }
    if (!process_node(run, *cur->page, cur->current, out)) {
      report_internal_error(run);
      run.stop = true;
      break;
    }
    if (!out.empty()) put_output(run.body.get(), out);
    advance(current_context(run));
  }
  while (run.contexts.size() > depth + 1) {
    if (current_context(run)->debug == DEBUG_ON) write_page_statistics(run);
    context_pop(run);
  }
  context_pop(run);

  std::string result;
  if (!run.abandon && run.body) result = std::move(run.body->data);
  keep_text_body(std::move(run.body));
  run.body = std::move(saved_body);
  return result;
}

bool is(const Page& page, uint32_t node, uint8_t tag) {
  return page.nodes[node].is_tag && page.nodes[node].tag == tag;
}

uint32_t walk_next_branch(const Page& page, uint32_t from) {
  unsigned depth = 0;
  for (uint32_t n = from + 1; n < page.size(); n++) {
    if (!page.nodes[n].is_tag) continue;
    if (is(page, n, TAG_CVIF)) {
      ++depth;
    } else if (depth > 0) {
      if (is(page, n, TAG_CLOSE_CVIF)) --depth;
    } else if (is(page, n, TAG_CVELSEIF) || is(page, n, TAG_CVELSE) || is(page, n, TAG_CLOSE_CVIF)) {
      return n;
    }
  }
  return kNoNode;
}

uint32_t walk_counted(const Page& page, uint32_t from, uint8_t open, uint8_t close) {
  unsigned depth = 0;
  for (uint32_t n = from + 1; n < page.size(); n++) {
    if (is(page, n, close)) {
      if (depth == 0) return n;
      --depth;
    } else if (is(page, n, open)) {
      ++depth;
    }
  }
  return kNoNode;
}

uint32_t walk_while(const Page& page, uint32_t from) {
  for (uint32_t n = from + 1; n < page.size(); n++) {
    if (is(page, n, TAG_CLOSE_CVWHILE)) return n;
    if (is(page, n, TAG_CVWHILE)) return n + 1 < page.size() ? n + 1 : kNoNode;
  }
  return kNoNode;
}

}  // namespace

std::unique_ptr<PageContext> new_text_context(Run& run, const PageContext* parent) {
  std::unique_ptr<PageContext> ctx;
  if (spare_contexts.empty()) {
    ctx = std::make_unique<PageContext>();
  } else {
    ctx = std::move(spare_contexts.back());
    spare_contexts.pop_back();
    std::string directory = std::move(ctx->directory);
    std::string file_name = std::move(ctx->file_name);
    std::string full_path = std::move(ctx->full_path);
    std::vector<uint32_t> stack = std::move(ctx->tag_stack);
    *ctx = PageContext{};
    ctx->directory = std::move(directory);
    ctx->file_name = std::move(file_name);
    ctx->full_path = std::move(full_path);
    ctx->tag_stack = std::move(stack);
    ctx->tag_stack.clear();
  }
  ctx->start_ms = now_ms();
  if (parent) {
    ctx->output_mode = parent->output_mode;
    ctx->debug = parent->debug;
    ctx->directory.assign(parent->directory);
    ctx->file_name.assign(parent->file_name);
    ctx->full_path.assign(parent->full_path);
  } else {
    ctx->output_mode = run.settings.default_output_mode;
    ctx->debug = run.settings.default_debug;
    ctx->directory.clear();
    ctx->file_name.clear();
    ctx->full_path.clear();
  }
  ctx->text_only = true;
  return ctx;
}

void keep_text_context(std::unique_ptr<PageContext> ctx) {
  if (spare_contexts.size() >= kMaxSpareContexts) return;
  // Let go of what the context shares with others now, not at its reuse.
  ctx->owner.reset();
  ctx->saved_table.reset();
  spare_contexts.push_back(std::move(ctx));
}

std::string process_page_text(Run& run, const Page& text) {
  if (text.size() == 0) return {};
  return run_text(run, text, nullptr);
}

std::string process_text(Run& run, std::string_view text) {
  if (text.empty()) return {};
  if (!has_tag_start(text)) return std::string(text);
  PageContext* ctx = current_context(run);
  uint32_t line = ctx ? node_line(*ctx, ctx->current) : 1;
  if (ctx && ctx->current == kNoNode) line = 1;
  PagePtr page = compile_page(text, line);
  const Page& compiled = *page;
  return run_text(run, compiled, std::move(page));
}

uint32_t walk_block_jump(const Page& page, uint32_t node) {
  switch (page.nodes[node].tag) {
    case TAG_CVIF:
    case TAG_CVELSEIF:
    case TAG_CVELSE: return walk_next_branch(page, node);
    case TAG_CVFOR: return walk_counted(page, node, TAG_CVFOR, TAG_CLOSE_CVFOR);
    case TAG_CVDIRECT: return walk_counted(page, node, TAG_CVDIRECT, TAG_CLOSE_CVDIRECT);
    case TAG_CVWHILE: return walk_while(page, node);
    default: return kNoNode;
  }
}
