// Option names known to the engine's handlers, as small numbers.
//
// A handler asks for an option by a name written in the code; the name's
// number is worked out when the program is compiled, and each option of a
// page gets its number when the page is compiled, so finding an option
// compares numbers, not names.  A name missing from the list still works
// (it is compared as text); adding it only makes it faster.
#pragma once

#include <cstdint>
#include <string_view>

// Lower case and sorted.
inline constexpr std::string_view kOptionNames[] = {
    "",  // 0: a name not in this list
    "account", "attrib", "authmethod", "basedataport", "closefile", "column", "columnnamefromnum",
    "columnnum", "condition", "currentrow", "datasource", "dir", "disconnect", "element", "embedded",
    "encode", "eofvar", "error", "expirationdate", "file", "filename", "filesizevar", "filevar",
    "format", "function", "getsize", "getsizex", "getsizey", "hash", "hashcase", "hashpos",
    "increment", "initial", "keepbody", "keepheader", "listvar", "location", "name", "natural",
    "next", "noreflect", "notnull", "numcolumns", "numrows", "nvalue", "openfile", "operation",
    "passive", "password", "port", "position", "positionvar", "prev", "previous", "processtags",
    "protocol", "read", "removefile", "seek", "server", "setauthmethod", "setauthpassword",
    "setauthusername", "setproxy", "setproxyauthmethod", "setproxypassword", "setproxyport",
    "setproxyusername", "socketvar", "strendpos", "strstartpos", "timeframe", "timeout", "tls",
    "tlscafile", "tlsverify", "type", "username", "value", "var", "variables", "writevar",
};

constexpr uint16_t kAtomUnknown = 0xFFFF;

constexpr char fold_lower(char c) { return c >= 'A' && c <= 'Z' ? char(c - 'A' + 'a') : c; }

// The number of a name, compared without regard to case; 0 when the list
// lacks it.
constexpr uint16_t option_atom(std::string_view name) {
  size_t low = 1, high = std::size(kOptionNames);
  while (low < high) {
    size_t mid = (low + high) / 2;
    std::string_view candidate = kOptionNames[mid];
    int order = 0;
    for (size_t i = 0; order == 0 && i < name.size() && i < candidate.size(); i++)
      order = int(static_cast<unsigned char>(fold_lower(name[i]))) - int(static_cast<unsigned char>(candidate[i]));
    if (order == 0) order = name.size() < candidate.size() ? -1 : name.size() > candidate.size() ? 1 : 0;
    if (order == 0) return uint16_t(mid);
    if (order < 0)
      high = mid;
    else
      low = mid + 1;
  }
  return 0;
}

// An option name as a handler asks for it: a literal gets its number when
// the program is compiled.
struct OptionKey {
  std::string_view text;
  uint16_t atom = 0;
  consteval OptionKey(const char* literal) : text(literal), atom(option_atom(text)) {}
  static OptionKey named(std::string_view name) { return OptionKey(name, option_atom(name)); }

 private:
  constexpr OptionKey(std::string_view name, uint16_t number) : text(name), atom(number) {}
};
