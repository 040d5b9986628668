// CV-CONVERT and CV-LIST: in-place type conversion and list insertion and
// removal on variables named by Level 4 references.
#include "tags/convert_list.h"

#include <cstdint>
#include <string>
#include <string_view>

#include "runtime/report.h"
#include "runtime/expression.h"
#include "runtime/level4.h"
#include "base/nocase.h"
#include "runtime/report.h"
#include "runtime/option_number.h"
#include "runtime/level4.h"
#include "base/nocase.h"

namespace {

// Positions at or beyond this are refused: no list grows past it in one step.
constexpr uint64_t kMaxPosition = 1000001;

constexpr std::string_view kConvertBadType =
    "CV-CONVERT requires the 'type' option to be 'number', 'string', 'stack', 'queue', 'list', "
    "'array', or 'hash'.  See the Corvane documentation for details.";
constexpr std::string_view kListElementRequired =
    "CV-LIST requires the 'element' option to be used when the 'location' option is used.  See the "
    "Corvane documentation for details.";
constexpr std::string_view kListElementNotNumber =
    "CV-LIST requires the 'element' option to be either a blank string or a number.";
constexpr std::string_view kListBadLocation =
    "CV-LIST requires the 'location' option to be 'first', 'last', or 'element'.  See the Corvane "
    "documentation for details.";
constexpr std::string_view kListTooLong =
    "CV-LIST is unable to modify the list since the maximum number of elements has been exceeded.  "
    "An internal error has occurred in Corvane.";
constexpr std::string_view kListBadOperation =
    "CV-LIST requires the 'operation' option to be 'insert' or 'remove'.  See the Corvane "
    "documentation for details.";

bool is_space(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

std::string not_obtained(std::string_view tag) {
  return "An error occurred in obtaining the " + std::string(tag) +
         " variable.  See the diagnostic message above for details.";
}

// A reference that is only a name selects the variable's own value, whose
// address lasts as long as the variable.  A reference with selectors may
// point inside a value that a variable tag, run while an expression was
// evaluated, has since rebuilt; such a reference is resolved again.
bool is_bare_name(std::string_view ref) {
  size_t i = 0;
  while (i < ref.size() && is_space(ref[i])) i++;
  for (; i < ref.size(); ++i) {
    char c = ref[i];
    if (is_space(c) || c == '=' || c == '"' || c == '\'' || c == '`') return false;
  }
  return true;
}

// Converts to a list in place.  Assignment into a string whose reference
// selected a range would splice the list's text into the string and leave
// it a string, so that case is replaced whole.
void make_list(Value* v) {
  if (v->type == VT_LIST) return;
  ValuePtr converted = value_to_list(*v);
  value_assign(v, converted.get());
  if (v->type == VT_LIST) return;
  value_clear(*v);
  value_assign(v, converted.get());
}

void insert_at(Value* list, uint64_t pos, ValuePtr item) {
  std::vector<ValuePtr>& items = list->list;
  if (pos < items.size()) {
    items.insert(items.begin() + static_cast<ptrdiff_t>(pos), std::move(item));
    return;
  }
  while (items.size() < pos) items.push_back(value_new());
  items.push_back(std::move(item));
}

// Takes the element out of the list; null when the position holds none.
ValuePtr take_at(Value* list, uint64_t pos) {
  std::vector<ValuePtr>& items = list->list;
  if (pos >= items.size()) return nullptr;
  ValuePtr taken = std::move(items[pos]);
  items.erase(items.begin() + static_cast<ptrdiff_t>(pos));
  return taken;
}

enum class Location { kFirst, kLast, kElement };

}  // namespace

// <CV-CONVERT var=reference type="number|string|list|array|hash">
ValuePtr cvconvert_handler(Run& run, const ParsedTag& tag) {
  const std::string* var = tag_option(tag, "var");
  if (!var) {
    report_error(run, tag, option_required_message("CV-CONVERT", "var"));
    return value_new();
  }
  Value* v = level4_resolve(run, *var);
  if (!v) {
    report_error(run, tag, not_obtained("CV-CONVERT"));
    return value_new();
  }
  const std::string* type = tag_option(tag, "type");
  if (!type) {
    report_error(run, tag, option_required_message("CV-CONVERT", "type"));
    return value_new();
  }

  ValuePtr converted;
  if (keyword_is(*type, "number")) {
    if (!value_is_numeric(*v)) converted = value_to_number(*v);
  } else if (keyword_is(*type, "string")) {
    if (v->type != VT_STRING) converted = value_to_string(*v);
  } else if (keyword_is(*type, "list")) {
    if (v->type != VT_LIST) converted = value_to_list(*v);
  } else if (keyword_is(*type, "array")) {
    if (v->type != VT_ARRAY) converted = value_to_array(*v);
  } else if (keyword_is(*type, "hash")) {
    if (v->type != VT_HASH) converted = value_to_hash(*v);
  } else {
    report_error(run, tag, kConvertBadType);
    return value_new();
  }
  // The assignment honours a string range the reference selected.
  if (converted) value_assign(v, converted.get());
  return value_new();
}

// <CV-LIST operation="insert|remove" listvar=reference
//          location="first|last|element" [element=expression] [var=reference]>
ValuePtr cvlist_handler(Run& run, const ParsedTag& tag) {
  const std::string* operation = tag_option(tag, "operation");
  if (!operation) {
    report_error(run, tag, option_required_message("CV-LIST", "operation"));
    return value_new();
  }
  const std::string* listvar = tag_option(tag, "listvar");
  if (!listvar) {
    report_error(run, tag, option_required_message("CV-LIST", "listvar"));
    return value_new();
  }
  Value* list = level4_resolve(run, *listvar);
  if (!list) {
    report_error(run, tag, not_obtained("CV-LIST"));
    return value_new();
  }
  // Converted before the other checks, so the conversion stays when one fails.
  make_list(list);

  const std::string* location_text = tag_option(tag, "location");
  if (!location_text) {
    report_error(run, tag, option_required_message("CV-LIST", "location"));
    return value_new();
  }
  Location location;
  uint64_t pos = 0;
  if (keyword_is(*location_text, "first")) {
    location = Location::kFirst;
  } else if (keyword_is(*location_text, "last")) {
    location = Location::kLast;
    pos = list->list.size();
  } else if (keyword_is(*location_text, "element")) {
    location = Location::kElement;
    const std::string* element = tag_option(tag, "element");
    if (!element) {
      report_error(run, tag, kListElementRequired);
      return value_new();
    }
    int64_t n = 0;
    if (!evaluate_whole_option(run, *element, &n)) {
      report_error(run, tag, kListElementNotNumber);
      return value_new();
    }
    // Read as unsigned, a negative position is far beyond the bound.
    pos = static_cast<uint64_t>(n);
  } else {
    report_error(run, tag, kListBadLocation);
    return value_new();
  }
  if (pos >= kMaxPosition) {
    report_error(run, tag, kListTooLong);
    return value_new();
  }

  bool insert = keyword_is(*operation, "insert");
  if (!insert && !keyword_is(*operation, "remove")) {
    report_error(run, tag, kListBadOperation);
    return value_new();
  }

  const std::string* var = tag_option(tag, "var");
  // Evaluating "element" or resolving "var" may have run variable tags.
  bool recheck = (location == Location::kElement || var) && !is_bare_name(*listvar);
  auto list_again = [&]() -> bool {
    if (recheck) list = level4_resolve(run, *listvar);
    if (!list) {
      report_error(run, tag, not_obtained("CV-LIST"));
      return false;
    }
    make_list(list);
    return true;
  };

  if (insert) {
    ValuePtr item;
    if (var) {
      Value* source = level4_resolve(run, *var);
      if (!source) {
        report_error(run, tag, not_obtained("CV-LIST"));
        return value_new();
      }
      item = value_copy(*source);
    } else {
      item = value_new();
    }
    if (list_again()) insert_at(list, pos, std::move(item));
    return value_new();
  }

  Value* target = nullptr;
  if (var) {
    target = level4_resolve(run, *var);
    if (!target) {
      report_error(run, tag, not_obtained("CV-LIST"));
      return value_new();
    }
  }
  if (!list_again()) return value_new();
  if (location == Location::kLast)
    pos = list->list.empty() ? UINT64_MAX : list->list.size() - 1;
  ValuePtr taken = take_at(list, pos);
  if (!var) return value_new();
  // Resolving the list again may have rebuilt what "var" pointed into.
  if (recheck && !is_bare_name(*var)) {
    target = level4_resolve(run, *var);
    if (!target) {
      report_error(run, tag, not_obtained("CV-LIST"));
      return value_new();
    }
  }
  if (!taken) taken = value_new();
  value_assign(target, taken.get());
  return value_new();
}
