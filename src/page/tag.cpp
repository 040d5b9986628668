// Processed tags: option look-up, printing a pending value, printing a tag.
#include "page/tag.h"

#include "base/nocase.h"
#include "page/page.h"
#include "values/value.h"

const TagOption* tag_option_entry(const ParsedTag& tag, OptionKey name) {
  if (name.atom == 0) {
    for (const TagOption& option : tag.options)
      if (equals_nocase(option.name, name.text)) return &option;
    return nullptr;
  }
  for (const TagOption& option : tag.options) {
    if (option.atom == kAtomUnknown) option.atom = option_atom(option.name);
    if (option.atom == name.atom) return &option;
  }
  return nullptr;
}

const std::string& option_text(const ParsedTag& tag, const TagOption& option) {
  if (!option.pending) return option.value;
  // The value's page holds text runs and references, in order.
  const Page& page = *option.source->value_page;
  std::string& out = option.value;
  out.clear();
  uint32_t ref = option.first_ref;
  for (uint32_t i = 0; i < page.size(); i++) {
    if (!page.nodes[i].is_tag) {
      out.append(page.node_text(i));
      continue;
    }
    const RefValue& r = tag.refs[ref++];
    switch (r.kind) {
      case RefValue::NUMBER: out += format_number(r.number); break;
      case RefValue::INTEGER: out += format_integer(r.integer); break;
      case RefValue::TEXT: out += r.text; break;
    }
  }
  option.pending = false;
  return out;
}

const std::string* tag_option(const ParsedTag& tag, OptionKey name) {
  const TagOption* option = tag_option_entry(tag, name);
  return option ? &option_text(tag, *option) : nullptr;
}

void print_tag(const ParsedTag& tag, const std::string* name, std::string& out) {
  if (!tag.is_tag) {
    out.append(tag.text);
    return;
  }
  out.push_back('<');
  out.append(name ? *name : tag.name);
  for (const TagOption& option : tag.options) {
    out.push_back(' ');
    out.append(option.name);
    const std::string& value = option_text(tag, option);
    if (!value.empty()) {
      out.append("=\"");
      out.append(value);
      out.push_back('"');
    }
  }
  out.push_back('>');
}

void node_as_tag(const Page& page, uint32_t node, ParsedTag& out) {
  const PageNode& n = page.nodes[node];
  out.line = n.line;
  out.is_tag = n.is_tag;
  out.options.clear();
  out.refs.clear();
  if (!n.is_tag) {
    out.text.assign(page.text(n.span));
    out.name.clear();
    return;
  }
  out.text.clear();
  out.name = page.node_name(node);
  for (uint32_t k = 0; k < n.option_count; k++) {
    const PageOption& option = page.options[n.first_option() + k];
    TagOption& o = out.options.emplace_back();
    o.name.assign(page.text(option.name));
    o.atom = option.atom;
    o.value.assign(page.text(option.value));
  }
}

namespace {

bool is_reference_space(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

}  // namespace

bool is_bare_reference(std::string_view text) {
  if (text.empty() || !is_tag_start(static_cast<unsigned char>(text[0]))) return false;
  for (char c : text)
    if (c == '<' || c == ' ' || c == '>' || c == '\r' || c == '\n' || c == '\t' || c == '\0') return false;
  return true;
}

std::unique_ptr<CutReference> cut_reference(std::string_view text) {
  size_t skip = 0;
  while (skip < text.size() && is_reference_space(text[skip])) skip++;
  text.remove_prefix(skip);
  auto cut = std::make_unique<CutReference>();
  cut->text.assign(text);
  if (is_bare_reference(text)) {
    cut->tag.is_tag = true;
    cut->tag.name.assign(text);
    cut->create_name.assign(text);
    return cut;
  }
  Page page = tokenize_page("<" + std::string(text) + ">", 1);
  if (page.size() == 0 || !page.nodes[0].is_tag) return nullptr;
  node_as_tag(page, 0, cut->tag);
  cut->create_name.assign(text.substr(0, text.find_first_of(std::string_view(" \r\n\t"))));
  return cut;
}
