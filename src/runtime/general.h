// The general path: an option's text processed as a page of its own in a
// context of its own, and block ends found by walking the page.
//
// This is the engine's plain form of every step; the compiled path
// (runtime/execute.h) takes shortcuts only where it gives the same result,
// and falls back to these functions everywhere else.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "runtime/run.h"

// Processes a compiled piece of text (an option's name or value) as a page
// of its own and returns its output.
std::string process_page_text(Run& run, const Page& text);
// Where a block tag goes, found by walking forward from it as the block
// tags do (see PageNode::jump).
uint32_t walk_block_jump(const Page& page, uint32_t node);

// Contexts of processed texts are kept when they end and reused.
std::unique_ptr<PageContext> new_text_context(Run& run, const PageContext* parent);
void keep_text_context(std::unique_ptr<PageContext> ctx);
