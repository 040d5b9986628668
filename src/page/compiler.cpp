// The page compiler: built-in ids, block ends and option forms, resolved
// once per page, and the compiled forms of option values made on first use.
//
// Block ends follow the walks the block tags make: a CVIF, CVELSEIF or
// CVELSE goes to the next CVELSEIF, CVELSE or /CVIF at its own nesting
// level; a CVFOR or CVDIRECT to its closing tag, counting nesting; a CVWHILE
// false on arrival to the first /CVWHILE after it, or to the node after the
// first CVWHILE after it (that walk does not balance nested loops).  Each is
// one pass over the nodes with a stack, so deep nesting costs linear time.
#include <algorithm>
#include <vector>

#include "page/option_names.h"
#include "page/page.h"

namespace {

void resolve_conditionals(Page& page) {
  // One list of nodes waiting for their next branch tag per open CVIF, and
  // one for the top level.
  std::vector<std::vector<uint32_t>> levels(1);
  for (uint32_t i = 0; i < page.size(); i++) {
    PageNode& node = page.nodes[i];
    if (!node.is_tag) continue;
    switch (node.tag) {
      case TAG_CVIF:
        levels.push_back({i});
        break;
      case TAG_CVELSEIF:
      case TAG_CVELSE:
        for (uint32_t w : levels.back()) page.nodes[w].jump = i;
        levels.back().assign(1, i);
        break;
      case TAG_CLOSE_CVIF:
        for (uint32_t w : levels.back()) page.nodes[w].jump = i;
        levels.back().clear();
        if (levels.size() > 1) levels.pop_back();
        break;
      default:
        break;
    }
  }
}

// A block closed by counting nesting of its own open and close tags.
void resolve_counted(Page& page, uint8_t open, uint8_t close) {
  std::vector<uint32_t> open_at;
  for (uint32_t i = 0; i < page.size(); i++) {
    PageNode& node = page.nodes[i];
    if (!node.is_tag) continue;
    if (node.tag == open) {
      open_at.push_back(i);
    } else if (node.tag == close && !open_at.empty()) {
      page.nodes[open_at.back()].jump = i;
      open_at.pop_back();
    }
  }
}

void resolve_while(Page& page) {
  uint32_t target = kNoNode;
  for (uint32_t i = page.size(); i-- > 0;) {
    PageNode& node = page.nodes[i];
    if (!node.is_tag) continue;
    if (node.tag == TAG_CVWHILE) {
      node.jump = target;
      target = i + 1 < page.size() ? i + 1 : kNoNode;
    } else if (node.tag == TAG_CLOSE_CVWHILE) {
      target = i;
    }
  }
}

// Text runs and references to names (tags that are not built-in, with
// literal options if any): a value whose processed text the compiled path
// can form from the values the references select.
bool references_only(const Page& page) {
  for (const PageNode& node : page.nodes)
    if (node.is_tag && (!node.literal || node.tag != TAG_OTHER)) return false;
  return true;
}

const Page& sub_page(std::unique_ptr<Page>& slot, std::string_view text, uint32_t line, uint8_t& form) {
  if (!slot) {
    slot = std::make_unique<Page>(tokenize_page(text, line));
    compile_nodes(*slot);
    if (form != FORM_LITERAL) form = references_only(*slot) ? FORM_REFERENCES : FORM_GENERAL;
  }
  return *slot;
}

}  // namespace

void compile_nodes(Page& page) {
  std::vector<uint8_t> ids(page.names.size());
  for (size_t n = 0; n < page.names.size(); n++) ids[n] = tag_id_of(page.names[n]);
  for (uint32_t i = 0; i < page.size(); i++) {
    PageNode& node = page.nodes[i];
    if (!node.is_tag) continue;
    node.tag = ids[node.span.at];
    node.literal = true;
    node.names_literal = true;
    for (uint32_t k = 0; k < node.option_count; k++) {
      PageOption& option = page.options[node.first_option() + k];
      option.name_form = has_tag_start(page.text(option.name)) ? FORM_GENERAL : FORM_LITERAL;
      option.atom = option.name_form == FORM_LITERAL ? option_atom(page.text(option.name)) : kAtomUnknown;
      option.value_form = has_tag_start(page.text(option.value)) ? FORM_GENERAL : FORM_LITERAL;
      if (option.name_form != FORM_LITERAL || option.value_form != FORM_LITERAL) node.literal = false;
      if (option.name_form != FORM_LITERAL) node.names_literal = false;
    }
  }
  resolve_conditionals(page);
  resolve_counted(page, TAG_CVFOR, TAG_CLOSE_CVFOR);
  resolve_counted(page, TAG_CVDIRECT, TAG_CLOSE_CVDIRECT);
  resolve_while(page);
  page.lookups.assign(page.names.size(), NameLookup{});
}

PagePtr compile_page(std::string_view text, uint32_t first_line) {
  return compile_page_bytes(std::string(text), first_line);
}

PagePtr compile_page_bytes(std::string&& text, uint32_t first_line) {
  auto page = std::make_shared<Page>(tokenize_page_bytes(std::move(text), first_line));
  compile_nodes(*page);
  return page;
}

const Page& option_name_page(const Page& page, const PageOption& option, uint32_t line) {
  return sub_page(option.name_page, page.text(option.name), line, option.name_form);
}

const Page& option_value_page(const Page& page, const PageOption& option, uint32_t line) {
  return sub_page(option.value_page, page.text(option.value), line, option.value_form);
}

const ExprProgram* option_program(const Page& page, const PageOption& option, uint32_t line) {
  if (option.program_state == 0) {
    option.program_state = 1;
    std::vector<ExprPiece> pieces;
    if (option.value_form == FORM_LITERAL) {
      pieces.push_back(ExprPiece{page.text(option.value), false});
    } else {
      const Page& value = option_value_page(page, option, line);
      if (option.value_form != FORM_REFERENCES) return nullptr;
      for (uint32_t i = 0; i < value.size(); i++)
        pieces.push_back(ExprPiece{value.nodes[i].is_tag ? std::string_view() : value.node_text(i),
                                   value.nodes[i].is_tag});
    }
    option.program = expr_compile(pieces);
    if (option.program) option.program_state = 2;
  }
  return option.program.get();
}
