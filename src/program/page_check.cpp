// The page checker: a table of the tags with their options, and one pass
// over the tokenized page with a stack of open blocks.
#include "program/page_check.h"

#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <string_view>
#include <unordered_map>
#include <unordered_set>

#include "runtime/output.h"
#include "page/page.h"
#include "page/tag.h"
#include "base/dynstring.h"
#include "runtime/expression.h"
#include "base/nocase.h"
#include "values/vartable.h"

namespace {

// The page's nodes as tags, options as written.
struct Chain {
  std::vector<std::unique_ptr<ParsedTag>> nodes;
};

Chain tokenize_text(const VarTable&, std::string_view text, uint32_t first_line) {
  Page page = tokenize_page(text, first_line);
  Chain chain;
  chain.nodes.reserve(page.size());
  for (uint32_t i = 0; i < page.size(); i++) {
    chain.nodes.push_back(std::make_unique<ParsedTag>());
    node_as_tag(page, i, *chain.nodes.back());
  }
  return chain;
}

}  // namespace

namespace {

// ---------------------------------------------------------------------------
// The tags and their options

// How a tag takes part in blocks.
enum Role : uint8_t {
  PLAIN,     // no block
  OPENS,     // opens a block closed by "/" + its name
  BRANCH,    // CVELSEIF, CVELSE: inside a CVIF block
  CLOSES,    // closes the block its name (without "/") opened
  UNNEEDED,  // a closing tag with nothing to close: the engine only warns
};

// Options are written "name" with markers after it: "!" required, "#" a
// number or condition (arithmetic, or a variable that holds a number), "~"
// an expression of any result (arithmetic is checked, a word is a variable
// or text).
struct TagRow {
  const char* name;
  Role role;
  const char* options;
};

const TagRow kTags[] = {
    {"CVIF", OPENS, "condition!#"},
    {"CVELSEIF", BRANCH, "condition!#"},
    {"CVELSE", BRANCH, ""},
    {"CVFOR", OPENS, "var! condition!# initial# increment#"},
    {"CVWHILE", OPENS, "condition!#"},
    {"CVQUERY", OPENS, "var! datasource! username password"},
    {"CVDIRECT", OPENS, "var! processtags"},
    {"CVVAR", PLAIN, "var! value~"},
    {"CVUNVAR", PLAIN, "var!"},
    {"CVBINARY", PLAIN, "var!"},
    {"CVINCLUDE", PLAIN, "file var variables"},
    {"CVEXIT", PLAIN, "type error"},
    {"CVRESTART", PLAIN, "keepheader keepbody"},
    {"CVDEBUG", PLAIN, "type!"},
    {"CVMLMODE", PLAIN, "type!"},
    {"CVHEADER", PLAIN, "type! value! name encode expirationdate"},
    {"CVLOCATION", PLAIN, "location!"},
    {"CVFLUSH", PLAIN, ""},
    {"CVFILE", PLAIN,
     "filename openfile removefile filevar closefile seek# position read var writevar positionvar eofvar "
     "filesizevar"},
    {"CVWEB", PLAIN,
     "socketvar! server protocol port# disconnect setproxy setproxyport# setproxyauthmethod setproxyusername "
     "setproxypassword setauthmethod setauthusername setauthpassword username password passive account "
     "basedataport# raw http ftp smtp pop3 timeout# page var POSTvar file dir sourceaddr subject destaddr "
     "remotefilename messagenum#"},
    {"CV-STR", PLAIN,
     "function! var destvar value# var1 var2 Nvalue# case natural noreflect valuevar findvar embedded quote "
     "notnull srcvar regexpr return direction"},
    {"CV-MATH", PLAIN, "operation! value# Xvalue# Yvalue# Nvalue# Rvalue# from# to# var Radius# Angle# places#"},
    {"CV-TIME", PLAIN, "timeframe var value# format"},
    {"CV-API", PLAIN, "function! file attrib dir var value#"},
    {"CV-CONVERT", PLAIN, "var! type!"},
    {"CV-LIST", PLAIN, "operation! listvar! location! element# var"},
    {"CV-ROWSEEK", PLAIN, "var! next prev previous increment# seek#"},
    {"/CVIF", CLOSES, ""},
    {"/CVFOR", CLOSES, ""},
    {"/CVWHILE", CLOSES, ""},
    {"/CVQUERY", CLOSES, ""},
    {"/CVDIRECT", CLOSES, ""},
    {"/CVBINARY", UNNEEDED, ""},
    {"/CVDEBUG", UNNEEDED, ""},
    {"/CVELSE", UNNEEDED, ""},
    {"/CVELSEIF", UNNEEDED, ""},
    {"/CVEXIT", UNNEEDED, ""},
    {"/CVFILE", UNNEEDED, ""},
    {"/CVFLUSH", UNNEEDED, ""},
    {"/CVHEADER", UNNEEDED, ""},
    {"/CVINCLUDE", UNNEEDED, ""},
    {"/CVLOCATION", UNNEEDED, ""},
    {"/CVMLMODE", UNNEEDED, ""},
    {"/CVRESTART", UNNEEDED, ""},
    {"/CVUNVAR", UNNEEDED, ""},
    {"/CVVAR", UNNEEDED, ""},
    {"/CVWEB", UNNEEDED, ""},
};

// Options whose value is one of a fixed set of words (any case).  Most are
// compared with white space removed; `as_written` ones keep it.
struct KeywordRow {
  const char* tag;
  const char* option;
  const char* words;
  bool as_written;
};

const char kStrFunctions[] =
    "ascii base64 chr compare crc32 explode find htmlsafe implode lowercase ltrim md5sum parsepage querysafe "
    "regex reverse rtrim singlespace sort stripnewlines stripwhitespace uniqueid uppercase url";
const char kMathOperations[] =
    "abs arccos arccosh arccot arccoth arccsc arccsch arcsec arcsech arcsin arcsinh arctan arctan2 arctanh ceil "
    "cos cosh cot coth csc csch deg2rad disable enable exp factorial floor ldexp log10 loge logn baseconvert ncr "
    "npr pi polar2rect pow pow10 rad2deg rand rect2polar round sec sech setprecision sin sinh sqrt tan tanh";

const KeywordRow kKeywords[] = {
    {"CVDEBUG", "type", "on error off", false},
    {"CVMLMODE", "type", "normal binary off", true},
    {"CVHEADER", "type", "cookie content-type rawheader", true},
    {"CVHEADER", "encode", "url base64", false},
    {"CVINCLUDE", "variables", "global local", true},
    {"CVEXIT", "type", "normal error", true},
    {"CV-CONVERT", "type", "number string list array hash", false},
    {"CV-LIST", "operation", "insert remove", false},
    {"CV-LIST", "location", "first last element", false},
    {"CV-STR", "function", kStrFunctions, false},
    {"CV-STR", "case", "sensitive insensitive", false},
    {"CV-STR", "embedded", "remove keep", false},
    {"CV-STR", "quote", "single double", false},
    {"CV-STR", "return", "values ranges", false},
    {"CV-STR", "direction", "encode decode", false},
    {"CV-MATH", "operation", kMathOperations, false},
    {"CV-TIME", "timeframe", "gmt local", false},
    {"CV-API", "function", "chmod dirinfo sleep uptime", false},
    {"CVFILE", "position", "start current end", false},
    {"CVWEB", "protocol", "http ftp smtp pop3", false},
    {"CVWEB", "raw", "recvcheck sendcheck get put", false},
    {"CVWEB", "http", "get post", false},
    {"CVWEB", "ftp", "get put delete cd md rd list", false},
    {"CVWEB", "smtp", "setsourceinfo adddestaddr setmessagebody attachment sendmessage", false},
    {"CVWEB", "pop3", "messagecount getmessage deletemessage", false},
};

// Options a tag needs for one value of another option ("function" of
// CV-STR, "operation" of CV-MATH ...): "value: option option; ...".
struct DependentRow {
  const char* tag;
  const char* option;
  const char* needs;
};

const DependentRow kDependents[] = {
    {"CV-STR", "function",
     "ascii: var; chr: destvar value; compare: var1 var2; crc32: var; explode: var valuevar; find: var findvar; "
     "htmlsafe: var; implode: var valuevar; lowercase: var; ltrim: var; md5sum: var; parsepage: var; "
     "querysafe: var; regex: srcvar destvar regexpr; reverse: var; rtrim: var; singlespace: var; sort: var; "
     "stripnewlines: var; stripwhitespace: var; uppercase: var; base64: var direction; url: var direction"},
    {"CV-MATH", "operation",
     "arctan2: Yvalue Xvalue; ldexp: Xvalue Yvalue; pow: Xvalue Yvalue; logn: value Nvalue; ncr: Nvalue Rvalue; "
     "npr: Nvalue Rvalue; polar2rect: var Radius Angle; rect2polar: var Xvalue Yvalue; round: places value; "
     "pi: ; rand: ; enable: ; disable: ; *: value"},
    {"CV-API", "function", "chmod: file attrib; dirinfo: dir var; sleep: value"},
    {"CVHEADER", "type", "cookie: name encode; rawheader: name"},
    {"CV-LIST", "location", "element: element"},
    {"CVWEB", "http", "get: page var; post: page var POSTvar"},
    {"CVWEB", "ftp", "get: file var; put: file var; delete: file; cd: dir; md: dir; rd: dir; list: var"},
    {"CVWEB", "smtp",
     "setsourceinfo: sourceaddr subject; adddestaddr: destaddr; setmessagebody: var; attachment: remotefilename var"},
    {"CVWEB", "pop3", "messagecount: var; getmessage: messagenum var; deletemessage: messagenum"},
    {"CVWEB", "raw", "recvcheck: var; sendcheck: var; get: var; put: var"},
    {"CVWEB", "protocol", "pop3: username password"},
};

// HTML elements a page is likely to write.  A variable of the same name
// turns such tags into references to the variable.
const char kHtmlElements[] =
    " a abbr address area article aside audio b base blockquote body br button canvas caption cite code col "
    "colgroup data dd del details dfn dialog div dl dt em embed fieldset figure footer form h1 h2 h3 h4 h5 h6 "
    "head header hr html i iframe img input ins kbd label legend li link main map mark meta meter nav noscript "
    "object ol optgroup option output p param picture pre progress q s samp script section select small source "
    "span strong style sub summary sup table tbody td template textarea tfoot th thead time title tr track u ul "
    "var video wbr ";

// The variable a "var"-style option names: its first word.
std::string variable_name(std::string_view reference) {
  size_t start = reference.find_first_not_of(" \t\r\n");
  if (start == std::string_view::npos) return std::string();
  size_t end = reference.find_first_of(" \t\r\n[", start);
  return std::string(reference.substr(start, end == std::string_view::npos ? end : end - start));
}

bool is_html_element(std::string_view name) {
  if (name.empty() || name.size() > 10) return false;
  std::string lowered = " ";
  for (char c : name) lowered += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  lowered += ' ';
  return std::string_view(kHtmlElements).find(lowered) != std::string_view::npos;
}

struct OptionRule {
  std::string name;
  bool required = false, numeric = false, expression = false;
};

struct TagRule {
  std::string name;  // as the table spells it
  Role role = PLAIN;
  std::vector<OptionRule> options;
  std::vector<const KeywordRow*> keywords;
  std::vector<const DependentRow*> dependents;
};

std::vector<std::string_view> words_of(std::string_view text, char separator = ' ') {
  std::vector<std::string_view> words;
  size_t i = 0;
  while (i < text.size()) {
    while (i < text.size() && text[i] == separator) ++i;
    size_t end = text.find(separator, i);
    if (end == std::string_view::npos) end = text.size();
    if (end > i) words.push_back(text.substr(i, end - i));
    i = end;
  }
  return words;
}

std::string upper(std::string_view text) {
  std::string out(text);
  for (char& c : out) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return out;
}

// The table, keyed by upper-case tag name; built once.
const std::unordered_map<std::string, TagRule>& rules() {
  static const std::unordered_map<std::string, TagRule> table = [] {
    std::unordered_map<std::string, TagRule> t;
    for (const TagRow& row : kTags) {
      TagRule rule;
      rule.name = row.name;
      rule.role = row.role;
      for (std::string_view word : words_of(row.options)) {
        OptionRule option;
        while (!word.empty() && (word.back() == '!' || word.back() == '#' || word.back() == '~')) {
          if (word.back() == '!') option.required = true;
          if (word.back() == '#') option.numeric = option.expression = true;
          if (word.back() == '~') option.expression = true;
          word.remove_suffix(1);
        }
        option.name = word;
        rule.options.push_back(std::move(option));
      }
      t.emplace(upper(row.name), std::move(rule));
    }
    for (const KeywordRow& row : kKeywords) t[upper(row.tag)].keywords.push_back(&row);
    for (const DependentRow& row : kDependents) t[upper(row.tag)].dependents.push_back(&row);
    return t;
  }();
  return table;
}

const TagRule* rule_for(std::string_view name) {
  auto found = rules().find(upper(name));
  return found == rules().end() ? nullptr : &found->second;
}

// ---------------------------------------------------------------------------
// Checking

struct OpenBlock {
  const TagRule* rule;
  uint32_t line;
  uint32_t else_line = 0;  // a CVELSE seen in this CVIF block
};

struct Checker {
  const VarTable& table;
  std::string page_dir;  // absolute, with a trailing "/"
  std::string doc_root;
  std::vector<CheckFinding> findings;
  // Upper-case names of the closing tags the page and the files it
  // includes write ("/TITLE" for "</title>"): the elements used as markup.
  std::unordered_set<std::string> closing_tags;

  void find(uint32_t line, std::string message) { findings.push_back({line, std::move(message)}); }
  bool include_path(const std::string& file, std::string* path) const;
  void collect_closing_tags(const Chain& chain, int depth);

  void check_chain(const Chain& chain);
  void check_tag(const ParsedTag& tag, const TagRule& rule);
  void check_option_value(const ParsedTag& tag, const TagRule& rule, const OptionRule& option,
                          const std::string& value);
  void check_include(const ParsedTag& tag, const std::string& file);
  void check_inner_tags(const ParsedTag& tag);
};

bool holds_tag(const VarTable&, std::string_view text) { return has_tag_start(text); }

bool is_blank(std::string_view text) {
  for (char c : text) {
    if (c != ' ' && c != '\t' && c != '\r' && c != '\n') return false;
  }
  return true;
}

// A tag whose options come (in part) from an inner tag cannot be judged on
// its options: the inner tag may produce any of them.
bool has_dynamic_options(const ParsedTag& tag) {
  for (const TagOption& option : tag.options) {
    if (!option.name.empty() && option.name[0] == '<') return true;
  }
  return false;
}

std::string tag_text(std::string_view name) { return "<" + std::string(name) + ">"; }

void Checker::check_option_value(const ParsedTag& tag, const TagRule& rule, const OptionRule& option,
                                 const std::string& value) {
  if (!option.expression || holds_tag(table, value) || is_blank(value)) return;
  // CVFILE read="all" and read="line" are words, not numbers.
  if (equals_nocase(rule.name, "CVFILE") && equals_nocase(option.name, "read") &&
      (keyword_is(value, "all") || keyword_is(value, "line")))
    return;
  const std::string where = rule.name + " option '" + option.name + "'";
  if (expr_is_arithmetic(value)) {
    uint8_t status = EVAL_OK;
    expr_eval_double(value, &status);
    switch (status) {
      case EVAL_DIVISION_BY_ZERO:
        find(tag.line, where + " divides by zero: " + value);
        break;
      case EVAL_ILLEGAL_OPERATOR:
        find(tag.line, where + " has an operator without a number on each side: " + value);
        break;
      case EVAL_UNMATCHED_PAREN:
        find(tag.line, where + " has an opening parenthesis without its closing one: " + value);
        break;
      case EVAL_MISSING_COLON:
        find(tag.line, where + " has a '?' without its ':': " + value);
        break;
      default:
        break;
    }
    return;
  }
  // Text that is not arithmetic is read as one variable tag.  A name
  // followed by an operator ("x > 1") is a variable written without its
  // angle brackets: the engine reads "<x > 1>", not a comparison.
  if (option.numeric) {
    size_t start = value.find_first_not_of(" \t\r\n");
    size_t gap = value.find_first_of(" \t\r\n", start);
    size_t next = gap == std::string::npos ? gap : value.find_first_not_of(" \t\r\n", gap);
    if (next != std::string::npos && std::string_view("<>=!+-*/%&|^?").find(value[next]) != std::string_view::npos)
      find(tag.line, where + " is not arithmetic: a variable inside an expression is written as a tag, <" +
                         value.substr(start, gap - start) + ">: " + value);
  }
}

// Where the engine looks for an included file; false for a web address.
bool Checker::include_path(const std::string& file, std::string* path) const {
  std::string dir;
  if (!resolve_page_directory(page_dir, file, &dir)) return false;
  std::string name(last_path_part(file));
  if (name.empty()) name = "index.cvm";
  *path = doc_root + dir + name;
  return true;
}

void Checker::collect_closing_tags(const Chain& chain, int depth) {
  for (const auto& node : chain.nodes) {
    if (!node->is_tag || node->name.empty()) continue;
    if (node->name[0] == '/') closing_tags.insert(upper(node->name));
    const std::string* file = tag_option(*node, "file");
    std::string path;
    if (depth < 8 && file && equals_nocase(node->name, "CVINCLUDE") && !holds_tag(table, *file) &&
        include_path(*file, &path)) {
      if (DynStringPtr text = dyn_load_file(path)) collect_closing_tags(tokenize_text(table, text->data, 1), depth + 1);
    }
  }
}

void Checker::check_include(const ParsedTag& tag, const std::string& file) {
  std::string path;
  if (!include_path(file, &path)) {
    find(tag.line, "CVINCLUDE option 'file' is a web address; CVINCLUDE reads files only: " + file);
    return;
  }
  struct stat info;
  if (::stat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode))
    find(tag.line, "CVINCLUDE file '" + file + "' does not exist (looked for " + path + ")");
}

// Tags inside option values run as pages of their own, on the tag's line.
void Checker::check_inner_tags(const ParsedTag& tag) {
  for (const TagOption& option : tag.options) {
    for (const std::string* text : {&option.name, static_cast<const std::string*>(&option.value)}) {
      if (!holds_tag(table, *text)) continue;
      std::string_view inner = *text;
      // An inner tag used as a whole option is written with its brackets.
      Chain chain = tokenize_text(table, inner, tag.line);
      check_chain(chain);
    }
  }
}

void Checker::check_tag(const ParsedTag& tag, const TagRule& rule) {
  check_inner_tags(tag);
  if (rule.role == CLOSES || rule.role == UNNEEDED) return;
  const bool dynamic = has_dynamic_options(tag);
  for (const TagOption& option : tag.options) {
    if (option.name.empty() || option.name[0] == '<' || holds_tag(table, option.name)) continue;
    const OptionRule* known = nullptr;
    for (const OptionRule& o : rule.options) {
      if (equals_nocase(o.name, option.name)) known = &o;
    }
    if (!known) {
      find(tag.line, rule.name + " has no option '" + option.name + "'");
      continue;
    }
    // Only the first of an option written twice counts.
    if (tag_option(tag, option.name) == &option.value) check_option_value(tag, rule, *known, option.value);
  }
  if (dynamic) return;

  for (const OptionRule& o : rule.options) {
    if (o.required && !tag_option(tag, o.name)) find(tag.line, rule.name + " requires the '" + o.name + "' option");
  }
  for (const KeywordRow* k : rule.keywords) {
    const std::string* value = tag_option(tag, k->option);
    if (!value || holds_tag(table, *value)) continue;
    std::string word = k->as_written ? *value : without_white_space(*value);
    bool listed = false;
    for (std::string_view w : words_of(k->words)) listed = listed || equals_nocase(w, word);
    if (!listed) {
      std::string choices;
      std::vector<std::string_view> all = words_of(k->words);
      if (all.size() <= 8) {
        for (size_t i = 0; i < all.size(); ++i) choices += (i ? ", '" : " (one of '") + std::string(all[i]) + "'";
        choices += ")";
      }
      find(tag.line, rule.name + " option '" + k->option + "' cannot be '" + *value + "'" + choices);
    }
  }
  for (const DependentRow* d : rule.dependents) {
    const std::string* value = tag_option(tag, d->option);
    if (!value || holds_tag(table, *value)) continue;
    std::string word = without_white_space(*value);
    std::string_view needs;
    bool matched = false;
    for (std::string_view entry : words_of(d->needs, ';')) {
      size_t colon = entry.find(':');
      std::string_view key = entry.substr(0, colon);
      while (!key.empty() && key.front() == ' ') key.remove_prefix(1);
      if (equals_nocase(key, word) || (!matched && key == "*")) {
        needs = entry.substr(colon + 1);
        matched = true;
        if (key != "*") break;
      }
    }
    if (!matched) continue;
    // "*" stands for every other value; only known values get it.
    for (std::string_view option : words_of(needs)) {
      if (!tag_option(tag, option))
        find(tag.line, rule.name + " requires the '" + std::string(option) + "' option when '" + d->option +
                           "' is '" + *value + "'");
    }
  }

  // A variable named like an HTML element that the page (or a file it
  // includes) also writes as markup, as its closing tag shows.
  for (const char* option : {"var", "destvar", "filevar", "socketvar"}) {
    const std::string* reference = tag_option(tag, option);
    if (!reference || holds_tag(table, *reference)) continue;
    std::string name = variable_name(*reference);
    if (is_html_element(name) && closing_tags.count("/" + upper(name)))
      find(tag.line, rule.name + " names the variable '" + name + "', which turns the page's <" + name +
                         "> tags into that variable");
  }

  // Rules that no table row says.
  if (equals_nocase(rule.name, "CVINCLUDE")) {
    const std::string* file = tag_option(tag, "file");
    const std::string* var = tag_option(tag, "var");
    if (!file == !var)
      find(tag.line, "CVINCLUDE requires exactly one of the 'file' and 'var' options");
    else if (file && !holds_tag(table, *file))
      check_include(tag, *file);
  } else if (equals_nocase(rule.name, "CVFILE")) {
    if (tag_option(tag, "filename")) {
      if (tag_option(tag, "openfile")) {
        if (!tag_option(tag, "filevar")) find(tag.line, "CVFILE requires the 'filevar' option with 'openfile'");
      } else if (!tag_option(tag, "removefile")) {
        find(tag.line, "CVFILE requires the 'openfile' or the 'removefile' option with 'filename'");
      }
    } else {
      if (!tag_option(tag, "filevar")) find(tag.line, "CVFILE requires the 'filevar' option");
      if (tag_option(tag, "read") && !tag_option(tag, "var"))
        find(tag.line, "CVFILE requires the 'var' option with 'read'");
    }
  } else if (equals_nocase(rule.name, "CV-TIME")) {
    if ((tag_option(tag, "var") || tag_option(tag, "value")) && !tag_option(tag, "format"))
      find(tag.line, "CV-TIME requires the 'format' option with 'var' or 'value'");
  } else if (equals_nocase(rule.name, "CVWEB")) {
    if (tag_option(tag, "server") && !tag_option(tag, "protocol") && !tag_option(tag, "port"))
      find(tag.line, "CVWEB requires the 'protocol' or the 'port' option with 'server'");
  }
}

void Checker::check_chain(const Chain& chain) {
  std::vector<OpenBlock> open;
  // Inside a CVDIRECT without "processtags" the page is data, not tags.
  size_t verbatim_depth = 0;

  for (const auto& node_ptr : chain.nodes) {
    const ParsedTag& tag = *node_ptr;
    if (!tag.is_tag) continue;
    const TagRule* rule = rule_for(tag.name);

    if (verbatim_depth > 0) {
      if (rule && equals_nocase(rule->name, "CVDIRECT")) {
        ++verbatim_depth;
      } else if (rule && equals_nocase(rule->name, "/CVDIRECT") && --verbatim_depth == 0) {
        open.pop_back();
      }
      continue;
    }

    if (!rule) {
      std::string_view name = tag.name;
      if (!name.empty() && name[0] == '/') name.remove_prefix(1);
      if (name.size() >= 2 && std::toupper(static_cast<unsigned char>(name[0])) == 'C' &&
          std::toupper(static_cast<unsigned char>(name[1])) == 'V')
        find(tag.line, "unknown tag " + tag_text(tag.name) +
                           " (no tag of that name, and no variable can start with \"CV\")");
      check_inner_tags(tag);
      continue;
    }
    check_tag(tag, *rule);

    switch (rule->role) {
      case PLAIN:
        break;
      case OPENS:
        open.push_back({rule, tag.line});
        if (equals_nocase(rule->name, "CVDIRECT") && !tag_option(tag, "processtags") && !has_dynamic_options(tag))
          verbatim_depth = 1;
        break;
      case BRANCH: {
        const std::string& name = rule->name;
        if (open.empty()) {
          find(tag.line, tag_text(name) + " is outside any <CVIF> block");
        } else if (!equals_nocase(open.back().rule->name, "CVIF")) {
          bool in_if = false;
          for (const OpenBlock& b : open) in_if = in_if || equals_nocase(b.rule->name, "CVIF");
          if (in_if)
            find(tag.line, tag_text(name) + " comes while " + tag_text(open.back().rule->name) + " (line " +
                               std::to_string(open.back().line) + ") is still open");
          else
            find(tag.line, tag_text(name) + " is outside any <CVIF> block");
        } else if (open.back().else_line) {
          find(tag.line, tag_text(name) + " after the <CVELSE> of line " + std::to_string(open.back().else_line) +
                             " is never reached");
        } else if (equals_nocase(name, "CVELSE")) {
          open.back().else_line = tag.line;
        }
        break;
      }
      case CLOSES: {
        std::string_view opener = std::string_view(rule->name).substr(1);
        size_t i = open.size();
        while (i > 0 && !equals_nocase(open[i - 1].rule->name, opener)) --i;
        if (i == 0) {
          find(tag.line, tag_text(rule->name) + " closes nothing: no " + tag_text(opener) + " is open");
          break;
        }
        for (size_t j = open.size(); j > i; --j) {
          find(open[j - 1].line, tag_text(open[j - 1].rule->name) + " is not closed before the " +
                                     tag_text(rule->name) + " of line " + std::to_string(tag.line));
        }
        open.resize(i - 1);
        break;
      }
      case UNNEEDED:
        find(tag.line, tag_text(rule->name) + " is not needed: " + tag_text(rule->name.substr(1)) +
                           " has no closing tag");
        break;
    }
  }
  for (const OpenBlock& b : open) {
    find(b.line, tag_text(b.rule->name) + " is never closed: no " + tag_text("/" + b.rule->name) + " follows");
  }
}

}  // namespace

std::vector<CheckFinding> check_page_text(std::string_view text, const std::string& doc_root,
                                          const std::string& page_dir) {
  VarTablePtr table = vartable_new(default_tag_start_class());
  Checker checker{*table, page_dir, doc_root, {}, {}};
  Chain chain = tokenize_text(*table, text, 1);
  checker.collect_closing_tags(chain, 0);
  checker.check_chain(chain);
  std::stable_sort(checker.findings.begin(), checker.findings.end(),
                   [](const CheckFinding& a, const CheckFinding& b) { return a.line < b.line; });
  return checker.findings;
}

size_t check_pages(const std::vector<std::string>& paths) {
  const char* root_env = std::getenv("DOCUMENT_ROOT");
  std::string root = root_env ? root_env : "";
  while (!root.empty() && root.back() == '/') root.pop_back();
  size_t total = 0;
  std::string report;
  for (const std::string& path : paths) {
    DynStringPtr file = dyn_load_file(path);
    char* real = file ? ::realpath(path.c_str(), nullptr) : nullptr;
    if (!real) {
      report += path + ":0: cannot be read\n";
      ++total;
      continue;
    }
    std::string absolute = real;
    std::free(real);
    std::string dir = absolute.substr(0, absolute.rfind('/') + 1);
    std::string doc_root;
    if (!root.empty() && dir.compare(0, root.size() + 1, root + "/") == 0) {
      doc_root = root;
      dir.erase(0, root.size());
    }
    for (const CheckFinding& f : check_page_text(file->data, doc_root, dir)) {
      report += path + ":" + std::to_string(f.line) + ": " + f.message + "\n";
      ++total;
    }
  }
  std::fwrite(report.data(), 1, report.size(), stdout);
  std::fflush(stdout);
  return total;
}
