// Page tokenizer: cuts page text into text runs and tags with their options.
//
// One forward pass over the bytes.  Inner tags (tags written inside options)
// are matched with an explicit bracket stack held in a vector, so nesting
// depth costs heap, never C++ stack.  Input that ends early (an open tag, an
// open quote, an open inner tag) ends the construct with what was read: an
// unterminated inner tag keeps every byte read up to the end of the input,
// rewritten as it would have been had it been closed.
#include <algorithm>
#include <unordered_map>

#include "base/nocase.h"
#include "page/page.h"
#include "page/tag.h"

namespace {

// Open entries of the bracket stack.
enum Entry : uint8_t { ANGLE, DOUBLE_QUOTED, SINGLE_QUOTED };

struct Scanner {
  std::string_view src;
  size_t pos = 0;
  uint32_t line = 1;
  std::vector<uint8_t> stack;  // reused by every inner tag of the pass

  bool at_end() const { return pos >= src.size(); }
  unsigned char peek() const { return static_cast<unsigned char>(src[pos]); }
  unsigned char take() {
    unsigned char c = static_cast<unsigned char>(src[pos++]);
    if (c == '\n') ++line;
    return c;
  }
  // True when the byte at `at` may begin a tag name.
  bool tag_start_at(size_t at) const {
    return at < src.size() && is_tag_start(static_cast<unsigned char>(src[at]));
  }
  // At "<" followed by a tag-start byte.
  bool at_inner_tag() const { return !at_end() && src[pos] == '<' && tag_start_at(pos + 1); }
};

bool is_space(unsigned char c) { return c == ' ' || c == '\r' || c == '\n' || c == '\t' || c == 0; }

bool ends_tag_name(unsigned char c) {
  return c == '<' || c == ' ' || c == '>' || c == '\r' || c == '\n' || c == '\t' || c == 0;
}

bool ends_option_name(unsigned char c) { return ends_tag_name(c) || c == '='; }

bool ends_unquoted_value(unsigned char c) {
  return c == '<' || c == '>' || c == ' ' || c == '\r' || c == '\n' || c == '\t';
}

bool is_escapable(unsigned char c) { return c == '"' || c == '\'' || c == '\\'; }

// Line breaks and zero bytes inside quoted text are stored as spaces, so a
// stored value never spans lines and never holds a zero byte it did not
// get through an escape.
char flatten(unsigned char c) { return (c == '\r' || c == '\n' || c == 0) ? ' ' : static_cast<char>(c); }

void put(std::string* out, char c) {
  if (out) out->push_back(c);
}

void skip_space(Scanner& s) {
  while (!s.at_end() && is_space(s.peek())) s.take();
}

// An inner tag standing as a whole option, from its "<" to the matching
// ">".  Only double quotes open quoted strings here; inside one, single
// quotes become double quotes and backslashes escape quotes and themselves.
// With `out` null the tag is skipped.
void read_option_tag(Scanner& s, std::string* out) {
  std::vector<uint8_t>& stack = s.stack;
  stack.clear();
  put(out, static_cast<char>(s.take()));
  stack.push_back(ANGLE);
  while (!stack.empty() && !s.at_end()) {
    unsigned char c = s.take();
    if (c == '<' && s.tag_start_at(s.pos)) {
      stack.push_back(ANGLE);
      put(out, '<');
      continue;
    }
    if (stack.back() == ANGLE) {
      if (c == '>') {
        stack.pop_back();
      } else if (c == '"') {
        stack.push_back(DOUBLE_QUOTED);
      }
      put(out, flatten(c));
      continue;
    }
    if (c == '"') {
      stack.pop_back();
    } else if (c == '\'') {
      c = '"';
    } else if (c == '\\' && !s.at_end() && is_escapable(s.peek())) {
      c = s.take();
    }
    put(out, flatten(c));
  }
}

// White space and inner tags, thrown away.
void skip_filler(Scanner& s) {
  for (;;) {
    skip_space(s);
    if (!s.at_inner_tag()) return;
    read_option_tag(s, nullptr);
  }
}

// The quote character stored for a quoted string `depth` levels inside the
// value: the first level gets ordinary double quotes, and the levels below
// alternate, so the stored value reads like page text one level down.
char stored_quote(size_t depth) { return (depth % 2) ? '"' : '\''; }

// Inside a double-quoted value, from just after "<" of an inner tag until
// the tag closes or the input ends.
void read_value_tag(Scanner& s, std::string& out) {
  std::vector<uint8_t>& stack = s.stack;
  stack.clear();
  stack.push_back(ANGLE);
  size_t quotes = 0;  // quoted strings open on the stack
  out.push_back('<');
  while (!stack.empty() && !s.at_end()) {
    unsigned char c = s.take();
    if (c == '<' && s.tag_start_at(s.pos)) {
      stack.push_back(ANGLE);
      out.push_back('<');
      continue;
    }
    if (c == '\\') {
      if (!s.at_end() && is_escapable(s.peek())) {
        out.push_back(static_cast<char>(s.take()));
      } else {
        out.push_back('\\');
      }
      continue;
    }
    uint8_t top = stack.back();
    if (top == ANGLE && c == '>') {
      stack.pop_back();
      out.push_back('>');
      continue;
    }
    if (c == '"' || c == '\'') {
      bool closes = (top == DOUBLE_QUOTED && c == '"') || (top == SINGLE_QUOTED && c == '\'');
      if (closes) {
        out.push_back(stored_quote(quotes));
        stack.pop_back();
        --quotes;
      } else {
        stack.push_back(c == '"' ? DOUBLE_QUOTED : SINGLE_QUOTED);
        out.push_back(stored_quote(++quotes));
      }
      continue;
    }
    out.push_back(flatten(c));
  }
}

// A double-quoted value; the cursor stands just after the opening quote.
void read_quoted_value(Scanner& s, std::string& out) {
  while (!s.at_end()) {
    // Plain bytes go across in one piece.
    size_t run = s.pos;
    while (run < s.src.size()) {
      unsigned char c = static_cast<unsigned char>(s.src[run]);
      if (c == '"' || c == '\\' || c == '\'' || c == '<' || c == '\r' || c == '\n' || c == 0) break;
      ++run;
    }
    out.append(s.src.substr(s.pos, run - s.pos));
    s.pos = run;
    if (s.at_end()) return;
    unsigned char c = s.take();
    switch (c) {
      case '"':
        return;
      case '\\':
        if (!s.at_end()) out.push_back(static_cast<char>(s.take()));
        break;
      case '\'':
        out.push_back('"');
        break;
      case '<':
        if (s.tag_start_at(s.pos)) {
          read_value_tag(s, out);
        } else {
          out.push_back('<');
          if (!s.at_end() && s.peek() != '"') out.push_back(flatten(s.take()));
        }
        break;
      default:
        out.push_back(flatten(c));
        break;
    }
  }
}

// Builds a page while the source is scanned.  Rewritten option texts go to
// `extra`, which is appended to the page's bytes at the end, after the
// source itself: the scanner reads the bytes that spans point into.
struct Builder {
  Page& page;
  std::string extra;
  std::unordered_map<std::string, uint32_t> name_ids;
  uint32_t base;  // where `extra` will start in the page's bytes

  Span source_span(size_t from, size_t to) const { return Span{uint32_t(from), uint32_t(to - from)}; }
  Span extra_span(size_t from) const { return Span{uint32_t(base + from), uint32_t(extra.size() - from)}; }
  uint32_t name_id(std::string_view name) {
    auto [it, added] = name_ids.try_emplace(std::string(name), uint32_t(page.names.size()));
    if (added) page.names.emplace_back(name);
    return it->second;
  }
};

// Options up to ">" or the end of the input; the cursor stands after the
// tag's name.
void read_options(Scanner& s, Builder& b, bool keep_option_tags) {
  for (;;) {
    skip_space(s);
    if (s.at_end()) return;
    if (s.peek() == '>') {
      s.take();
      return;
    }
    PageOption option;
    if (s.at_inner_tag()) {
      size_t from = b.extra.size();
      if (keep_option_tags) {
        read_option_tag(s, &b.extra);
      } else {
        read_option_tag(s, nullptr);
        b.extra.push_back('<');
      }
      option.name = b.extra_span(from);
      b.page.options.push_back(std::move(option));
      continue;
    }
    size_t name_start = s.pos;
    if (s.peek() == '<') {
      // A "<" that starts no tag begins the option's name.
      s.take();
      if (!keep_option_tags) {
        if (!s.at_end() && (s.peek() == '=' || s.peek() == '<' || s.peek() == '"')) s.take();
        option.name = b.source_span(name_start, s.pos);
        b.page.options.push_back(std::move(option));
        continue;
      }
    }
    while (!s.at_end() && !ends_option_name(s.peek())) ++s.pos;
    option.name = b.source_span(name_start, s.pos);

    // Filler between the name and "=" is dropped only when an "=" does
    // follow; otherwise it is read again as what comes next.
    size_t name_end = s.pos;
    uint32_t name_line = s.line;
    skip_filler(s);
    if (!s.at_end() && s.peek() == '=') {
      s.take();
      skip_filler(s);
      if (!s.at_end() && s.peek() == '"') {
        s.take();
        size_t from = b.extra.size();
        read_quoted_value(s, b.extra);
        option.value = b.extra_span(from);
      } else {
        size_t start = s.pos;
        while (!s.at_end() && !ends_unquoted_value(s.peek())) ++s.pos;
        option.value = b.source_span(start, s.pos);
      }
    } else {
      s.pos = name_end;
      s.line = name_line;
    }
    b.page.options.push_back(std::move(option));
  }
}

}  // namespace

bool is_tag_start(unsigned char c) { return c == '/' || c == '_' || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z'); }

Page tokenize_page(std::string_view text, uint32_t first_line, bool keep_option_tags) {
  return tokenize_page_bytes(std::string(text), first_line, keep_option_tags);
}

Page tokenize_page_bytes(std::string&& text, uint32_t first_line, bool keep_option_tags) {
  Page page;
  page.bytes = std::move(text);
  Builder b{page, {}, {}, uint32_t(page.bytes.size())};
  Scanner s{page.bytes, 0, first_line, {}};
  const std::string_view src = s.src;
  while (!s.at_end()) {
    PageNode node;
    node.line = s.line;
    if (s.peek() != '<') {
      size_t end = src.find('<', s.pos);
      if (end == std::string_view::npos) end = src.size();
      node.span = b.source_span(s.pos, end);
      s.line += static_cast<uint32_t>(std::count(src.begin() + s.pos, src.begin() + end, '\n'));
      s.pos = end;
      page.nodes.push_back(node);
      continue;
    }
    size_t lt = s.pos;
    s.take();
    if (s.at_end() || ends_tag_name(s.peek()) || !s.tag_start_at(s.pos)) {
      // Not a tag: "<" and the byte after it stay text.
      if (!s.at_end()) s.take();
      node.span = b.source_span(lt, s.pos);
      page.nodes.push_back(node);
      continue;
    }
    node.is_tag = true;
    size_t start = s.pos;
    while (!s.at_end() && !ends_tag_name(s.peek())) ++s.pos;
    node.span = Span{b.name_id(src.substr(start, s.pos - start)), uint32_t(page.options.size())};
    read_options(s, b, keep_option_tags);
    node.option_count = uint32_t(page.options.size() - node.first_option());
    page.nodes.push_back(node);
  }
  page.bytes += b.extra;
  page.options.shrink_to_fit();
  return page;
}

bool has_tag_start(std::string_view text) {
  for (size_t at = text.find('<'); at != std::string_view::npos; at = text.find('<', at + 1)) {
    if (at + 1 < text.size() && is_tag_start(static_cast<unsigned char>(text[at + 1]))) return true;
  }
  return false;
}
