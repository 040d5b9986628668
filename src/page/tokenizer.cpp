// Page tokenizer: cuts page text into text runs and tags with their options.
//
// One forward pass over the bytes.  Inner tags (tags written inside options)
// are matched with an explicit bracket stack held in a vector, so nesting
// depth costs heap, never C++ stack.  Input that ends early (an open tag, an
// open quote, an open inner tag) ends the construct with what was read: an
// unterminated inner tag keeps every byte read up to the end of the input,
// rewritten as it would have been had it been closed.
#include "page/tokenizer.h"

#include "base/nocase.h"

#include <algorithm>
#include <cctype>

namespace {

// Open entries of the bracket stack.
enum Entry : uint8_t { ANGLE, DOUBLE_QUOTED, SINGLE_QUOTED };

struct Scanner {
  std::string_view src;
  size_t pos = 0;
  uint32_t line = 1;
  const CharClass& tag_start;
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
    return at < src.size() && tag_start[static_cast<unsigned char>(src[at])];
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

void read_unquoted_value(Scanner& s, std::string& out) {
  size_t start = s.pos;
  while (!s.at_end() && !ends_unquoted_value(s.peek())) ++s.pos;
  out.assign(s.src.substr(start, s.pos - start));
}

// Options up to ">" or the end of the input; the cursor stands after the
// tag's name.
void read_options(Scanner& s, ParsedTag& tag, bool keep_option_tags) {
  for (;;) {
    skip_space(s);
    if (s.at_end()) return;
    if (s.peek() == '>') {
      s.take();
      return;
    }
    TagOption option;
    if (s.at_inner_tag()) {
      if (keep_option_tags) {
        read_option_tag(s, &option.name);
      } else {
        read_option_tag(s, nullptr);
        option.name = "<";
      }
      tag.options.push_back(std::move(option));
      continue;
    }
    if (s.peek() == '<') {
      // A "<" that starts no tag begins the option's name.
      s.take();
      option.name = "<";
      if (!keep_option_tags) {
        if (!s.at_end() && (s.peek() == '=' || s.peek() == '<' || s.peek() == '"')) {
          option.name.push_back(static_cast<char>(s.take()));
        }
        tag.options.push_back(std::move(option));
        continue;
      }
    }
    size_t start = s.pos;
    while (!s.at_end() && !ends_option_name(s.peek())) ++s.pos;
    option.name.append(s.src.substr(start, s.pos - start));

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
        read_quoted_value(s, option.value);
      } else {
        read_unquoted_value(s, option.value);
      }
    } else {
      s.pos = name_end;
      s.line = name_line;
    }
    tag.options.push_back(std::move(option));
  }
}

ParsedTag& new_node(Chain& chain, uint32_t line, bool is_tag) {
  chain.nodes.push_back(std::make_unique<ParsedTag>());
  ParsedTag& node = *chain.nodes.back();
  node.line = line;
  node.is_tag = is_tag;
  return node;
}

Chain tokenize_bytes(const VarTable& table, std::string_view src, bool keep_option_tags,
                     uint32_t first_line) {
  Chain chain;
  // Each "<" yields at most a tag and the text after it.
  chain.nodes.reserve(2 * static_cast<size_t>(std::count(src.begin(), src.end(), '<')) + 1);
  Scanner s{src, 0, first_line, table.tag_start, {}};
  while (!s.at_end()) {
    uint32_t line = s.line;
    if (s.peek() != '<') {
      size_t end = src.find('<', s.pos);
      if (end == std::string_view::npos) end = src.size();
      std::string_view run = src.substr(s.pos, end - s.pos);
      new_node(chain, line, false).text.assign(run);
      s.line += static_cast<uint32_t>(std::count(run.begin(), run.end(), '\n'));
      s.pos = end;
      continue;
    }
    s.take();
    if (s.at_end() || ends_tag_name(s.peek()) || !s.tag_start_at(s.pos)) {
      // Not a tag: "<" and the byte after it stay text.
      ParsedTag& node = new_node(chain, line, false);
      node.text.push_back('<');
      if (!s.at_end()) node.text.push_back(static_cast<char>(s.take()));
      continue;
    }
    ParsedTag& tag = new_node(chain, line, true);
    size_t start = s.pos;
    while (!s.at_end() && !ends_tag_name(s.peek())) ++s.pos;
    tag.name.assign(src.substr(start, s.pos - start));
    read_options(s, tag, keep_option_tags);
  }
  for (size_t i = 0; i + 1 < chain.nodes.size(); ++i) chain.nodes[i]->next = chain.nodes[i + 1].get();
  return chain;
}

}  // namespace

// Every caller asks for the class test alone, so `class_only` changes nothing.
Chain tokenize(const VarTable& table, DynString& source, bool keep_option_tags, bool /*class_only*/,
               uint32_t first_line) {
  if (!dyn_can_read(&source)) return {};
  Chain chain;
  if (source.forward) {
    size_t from = std::min<size_t>(source.pos, source.data.size());
    chain = tokenize_bytes(table, std::string_view(source.data).substr(from), keep_option_tags,
                           first_line);
    source.pos = static_cast<uint32_t>(source.data.size());
  } else {
    // A reverse buffer reads towards its start; dyn_getc walks it that way.
    std::string bytes;
    for (int c = dyn_getc(&source); c >= 0; c = dyn_getc(&source)) bytes.push_back(static_cast<char>(c));
    chain = tokenize_bytes(table, bytes, keep_option_tags, first_line);
  }
  source.at_end = 1;
  return chain;
}

Chain tokenize_text(const VarTable& table, std::string_view text, uint32_t first_line) {
  return tokenize_bytes(table, text, true, first_line);
}

bool tokenize_file(const VarTable& table, const std::string& path, Chain* out) {
  DynStringPtr file = dyn_load_file(path);
  if (!file) return false;
  *out = tokenize(table, *file, true, true, 1);
  return true;
}

const std::string* tag_option(const ParsedTag& tag, std::string_view name) {
  for (const TagOption& option : tag.options) {
    if (equals_nocase(option.name, name)) return &option.value;
  }
  return nullptr;
}

void print_node(const VarTable* table, const ParsedTag& node, std::string& out) {
  if (!node.is_tag) {
    out.append(node.text);
    return;
  }
  const std::string* stored = table ? vartable_stored_name(*table, node.name) : nullptr;
  out.push_back('<');
  out.append(stored ? *stored : node.name);
  for (const TagOption& option : node.options) {
    out.push_back(' ');
    out.append(option.name);
    if (!option.value.empty()) {
      out.append("=\"");
      out.append(option.value);
      out.push_back('"');
    }
  }
  out.push_back('>');
}

std::string print_chain(const VarTable* table, const ParsedTag* first) {
  std::string out;
  for (const ParsedTag* node = first; node; node = node->next) print_node(table, *node, out);
  return out;
}

bool has_tag_start(const VarTable& table, std::string_view text) {
  for (size_t at = text.find('<'); at != std::string_view::npos; at = text.find('<', at + 1)) {
    if (at + 1 < text.size() && table.tag_start[static_cast<unsigned char>(text[at + 1])]) return true;
  }
  return false;
}
