// The compiled form of a page: its nodes in order, each tag's options split
// once, block ends resolved once, tag names interned.
//
// A page (or an included page, or a piece of text processed on its own) is
// cut into a Page once; the engine runs that form as often as it likes.  The
// records are small and hold offsets into one byte arena, so a page of a
// million small tags costs a few dozen bytes per tag.  Everything that is
// worked out later and kept (compiled option values, name look-ups) is a
// cache checked against what it depends on; the page never changes meaning.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "page/tag.h"
#include "values/arithmetic.h"

constexpr uint32_t kNoNode = UINT32_MAX;

// Built-in tag names, known to the compiler so that block ends and tag
// tests need no string comparison.  The order is the name table's.
enum TagId : uint8_t {
  TAG_OTHER = 0,
  TAG_CLOSE_CVBINARY, TAG_CLOSE_CVDEBUG, TAG_CLOSE_CVDIRECT, TAG_CLOSE_CVELSE, TAG_CLOSE_CVELSEIF,
  TAG_CLOSE_CVEXIT, TAG_CLOSE_CVFILE, TAG_CLOSE_CVFLUSH, TAG_CLOSE_CVFOR, TAG_CLOSE_CVHEADER,
  TAG_CLOSE_CVIF, TAG_CLOSE_CVINCLUDE, TAG_CLOSE_CVLOCATION, TAG_CLOSE_CVMLMODE, TAG_CLOSE_CVQUERY,
  TAG_CLOSE_CVRESTART, TAG_CLOSE_CVUNVAR, TAG_CLOSE_CVVAR, TAG_CLOSE_CVWEB, TAG_CLOSE_CVWHILE,
  TAG_CV_API, TAG_CV_CONVERT, TAG_CV_LIST, TAG_CV_MATH, TAG_CV_ROWSEEK, TAG_CV_STR, TAG_CV_TIME,
  TAG_CVBINARY, TAG_CVDEBUG, TAG_CVDIRECT, TAG_CVELSE, TAG_CVELSEIF, TAG_CVEXIT, TAG_CVFILE,
  TAG_CVFLUSH, TAG_CVFOR, TAG_CVHEADER, TAG_CVIF, TAG_CVINCLUDE, TAG_CVLOCATION, TAG_CVMLMODE,
  TAG_CVQUERY, TAG_CVRESTART, TAG_CVUNVAR, TAG_CVVAR, TAG_CVWEB, TAG_CVWHILE,
  TAG_COUNT
};

// The canonical spelling of a built-in name ("CVIF"), indexed by TagId.
extern const char* const kTagNames[TAG_COUNT];
// The built-in id of a name, compared without regard to case; TAG_OTHER if none.
TagId tag_id_of(std::string_view name);

// A byte range of Page::bytes.
struct Span {
  uint32_t at = 0;
  uint32_t size = 0;
};

struct Page;
struct CutReference;

// Where the name of a node was last found in a name table: the table's
// version (unique across all tables of the process) and the entry.
struct NameLookup {
  uint64_t version = 0;
  void* entry = nullptr;
};

// How an option's name or value becomes its processed text.
enum OptionForm : uint8_t {
  FORM_LITERAL,    // no tag inside: the text is its own processed form
  FORM_REFERENCES, // text and references to names, their options literal ("<i> < <l element=[3]>")
  FORM_GENERAL,    // anything else: processed as a page of its own
};

// A reference with options in a value of references, as a tag; `direct`
// when the resolution takes it as it stands (its printed form would cut
// back into the same tag).
struct ReferenceTag {
  ParsedTag tag;
  bool made = false;
  bool direct = false;
};

struct PageOption {
  Span name;
  Span value;
  uint16_t atom = 0xFFFF;  // the name's number (option_atom) when the name is literal
  mutable uint8_t name_form = FORM_LITERAL;
  mutable uint8_t value_form = FORM_LITERAL;
  // The processed forms of a name or value that holds tags, made on first use.
  mutable std::unique_ptr<Page> name_page;
  mutable std::unique_ptr<Page> value_page;
  // The value read as an arithmetic expression over its references, made on
  // first use (see option_program); `program_state` says whether it has been
  // tried.
  mutable std::unique_ptr<ExprProgram> program;
  mutable uint8_t program_state = 0;  // 0 not tried, 1 none, 2 made
  // A literal value that names a variable and nothing else ("i"): whether
  // it does (0 not known, 1 no, 2 yes) and where the name was last found.
  mutable uint8_t bare_name = 0;
  mutable NameLookup variable;
  // The literal value cut as a variable reference, made on first use.
  mutable std::unique_ptr<CutReference> reference;
  mutable bool reference_tried = false;
  // In a value of references, each reference with options ("<l
  // element=[3]>") as a tag, by its node in the value's page; made on first
  // use.
  mutable std::vector<ReferenceTag> reference_tags;
};

struct PageNode {
  uint32_t line = 0;
  // A text run: its bytes.  A tag: `span.at` is the name's index in
  // Page::names, and `span.size` the index of its first option.
  Span span;
  uint32_t option_count = 0;
  // The node a block tag goes to, resolved by the compiler (kNoNode when
  // none): CVIF and CVELSEIF their next CVELSEIF, CVELSE or /CVIF at the same
  // level; CVELSE its /CVIF; CVFOR, CVDIRECT and CVQUERY their closing tag;
  // CVWHILE where it resumes when false on arrival.
  uint32_t jump = kNoNode;
  bool is_tag = false;
  uint8_t tag = TAG_OTHER;
  // Every option name and value is literal: the tag is its own processed form.
  bool literal = true;
  // Every option name is literal (values may hold tags).
  bool names_literal = true;

  uint32_t first_option() const { return span.size; }
};

// Nodes in blocks of a fixed size: a page grows without copying what it
// holds, so tokenizing a large page never needs twice its nodes at once.
class NodeStore {
 public:
  static constexpr uint32_t kShift = 12;
  static constexpr uint32_t kBlock = 1u << kShift;
  PageNode& operator[](uint32_t i) { return blocks_[i >> kShift][i & (kBlock - 1)]; }
  const PageNode& operator[](uint32_t i) const { return blocks_[i >> kShift][i & (kBlock - 1)]; }
  uint32_t size() const { return size_; }
  void push_back(const PageNode& node) {
    if (size_ < kBlock) {
      // The first block grows by doubling, so a short text (an option's
      // value) holds only a few nodes.
      if (size_ == first_capacity_) {
        uint32_t capacity = first_capacity_ ? first_capacity_ * 2 : 4;
        auto grown = std::make_unique<PageNode[]>(capacity);
        for (uint32_t k = 0; k < size_; k++) grown[k] = blocks_[0][k];
        if (blocks_.empty())
          blocks_.push_back(std::move(grown));
        else
          blocks_[0] = std::move(grown);
        first_capacity_ = capacity;
      }
    } else if ((size_ & (kBlock - 1)) == 0) {
      blocks_.push_back(std::make_unique<PageNode[]>(kBlock));
    }
    (*this)[size_++] = node;
  }

  struct Iterator {
    const NodeStore* store;
    uint32_t i;
    const PageNode& operator*() const { return (*store)[i]; }
    Iterator& operator++() { ++i; return *this; }
    bool operator!=(const Iterator& other) const { return i != other.i; }
  };
  Iterator begin() const { return {this, 0}; }
  Iterator end() const { return {this, size_}; }

 private:
  std::vector<std::unique_ptr<PageNode[]>> blocks_;
  uint32_t size_ = 0;
  uint32_t first_capacity_ = 0;
};

struct Page {
  std::string bytes;               // text runs, option names and values
  std::vector<std::string> names;  // tag names as written, each once
  NodeStore nodes;
  std::vector<PageOption> options;
  // Per name: the last look-up in the name table (a cache for the engine).
  mutable std::vector<NameLookup> lookups;

  std::string_view text(Span s) const { return std::string_view(bytes).substr(s.at, s.size); }
  std::string_view node_text(uint32_t i) const { return text(nodes[i].span); }
  const std::string& node_name(uint32_t i) const { return names[nodes[i].span.at]; }
  const PageOption& option(uint32_t node, uint32_t k) const { return options[nodes[node].span.size + k]; }
  uint32_t size() const { return static_cast<uint32_t>(nodes.size()); }
};

using PagePtr = std::shared_ptr<const Page>;

// A tag written back as page text: "<" and the name, then for each option a
// space, its name and, when the value is not empty, ="value"; then ">".  The
// name is `stored` when given (the name table's spelling), else as written.
void print_page_node(const Page& page, uint32_t node, const std::string* stored, std::string& out);

// The option of a page node named `name` (case-insensitively, the first one
// written), or null.
const PageOption* page_option(const Page& page, uint32_t node, std::string_view name);

// The tokenizer and the compiler (page/tokenizer.cpp, page/compiler.cpp).
//
// Cuts `text` into a page.  With `keep_option_tags` an inner tag used as a
// whole option is kept as the option's name, otherwise a placeholder name;
// `tag_start` marks the bytes that may begin a tag name.
Page tokenize_page(std::string_view text, uint32_t first_line, bool keep_option_tags = true);
// The same, taking over the text as the page's bytes.
Page tokenize_page_bytes(std::string&& text, uint32_t first_line, bool keep_option_tags = true);
// Tokenizes and compiles: block ends, built-in ids and option forms.
PagePtr compile_page(std::string_view text, uint32_t first_line);
PagePtr compile_page_bytes(std::string&& text, uint32_t first_line);
// Resolves block ends and option forms of a tokenized page.
void compile_nodes(Page& page);
// The compiled page of an option's name or value text, made on first use.
const Page& option_name_page(const Page& page, const PageOption& option, uint32_t line);
const Page& option_value_page(const Page& page, const PageOption& option, uint32_t line);
// The option value read as an expression over its references, or null when
// it is not one the program form covers.
const ExprProgram* option_program(const Page& page, const PageOption& option, uint32_t line);

// True when a "<" followed by a tag-start byte occurs: text without one is
// its own processed form.
bool has_tag_start(std::string_view text);
bool is_tag_start(unsigned char c);
