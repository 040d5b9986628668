// The compiled path: variables found through remembered look-ups, option
// values formed from the numbers their references hold, expressions run as
// compiled programs over those numbers.
#include "runtime/execute.h"

#include "runtime/expression.h"

namespace {

// What referring to a variable without options does to it, as the Level 4
// resolution would: the last computed property is let go, and a string's
// range covers the whole string again.  The value is found afresh when a
// change would have to be made in a table still shared with an including
// page (the resolution makes its own copy first).
Value* touch_variable(const TagHandler& entry, std::string_view name) {
  Value* v = entry.variable.get();
  if (v->type == VT_STRING && (v->start != 0 || v->end != v->bytes.size())) {
    if (engine.names.use_count() > 1) {
      TagHandler* own = vartable_find(names_for_write(), name);
      if (!own || !own->variable) return nullptr;
      v = own->variable.get();
    }
    v->start = 0;
    v->end = static_cast<uint32_t>(v->bytes.size());
  }
  v->derived.reset();
  return v;
}

bool is_scalar(uint8_t type) {
  return type == VT_EMPTY || type == VT_INTEGER || type == VT_NUMBER || type == VT_STRING;
}

}  // namespace

const TagHandler* find_page_name(const Page& page, uint32_t name) {
  VarTable& table = *engine.names;
  NameLookup& memo = page.lookups[name];
  if (!general_path_only && memo.version == table.version) return static_cast<const TagHandler*>(memo.entry);
  TagHandler* entry = vartable_find(table, page.names[name]);
  memo.version = table.version;
  memo.entry = entry;
  return entry;
}

bool take_references(const Page& value, ParsedTag& tag, TagOption& option) {
  uint32_t first = static_cast<uint32_t>(tag.refs.size());
  uint32_t count = 0;
  for (const PageNode& node : value.nodes) {
    if (!node.is_tag) continue;
    const TagHandler* entry = find_page_name(value, node.span.at);
    if (!entry || entry->kind != KIND_VARIABLE || !entry->variable || !is_scalar(entry->variable->type)) {
      tag.refs.resize(first);
      return false;
    }
    count++;
  }
  // The references count as the tags they are; a harness's tag limit that
  // they would reach is met on the general path.
  if (engine.tag_limit && engine.tags_processed + count > engine.tag_limit) {
    tag.refs.resize(first);
    return false;
  }
  for (const PageNode& node : value.nodes) {
    if (!node.is_tag) continue;
    const TagHandler* entry = find_page_name(value, node.span.at);
    Value* v = touch_variable(*entry, value.names[node.span.at]);
    if (!v) {
      tag.refs.resize(first);
      return false;
    }
    RefValue& ref = tag.refs.emplace_back();
    switch (v->type) {
      case VT_NUMBER:
        ref.kind = RefValue::NUMBER;
        ref.number = v->number;
        break;
      case VT_INTEGER:
        ref.kind = RefValue::INTEGER;
        ref.integer = v->integer;
        break;
      case VT_STRING:
        ref.kind = RefValue::TEXT;
        ref.text.assign(v->bytes);
        break;
      default:
        ref.kind = RefValue::TEXT;
        ref.text.clear();
        break;
    }
  }
  engine.tags_processed += count;
  option.first_ref = first;
  option.ref_count = count;
  option.pending = true;
  return true;
}

bool print_variable(const TagHandler& entry, std::string_view name, std::string& out) {
  if (!entry.variable || !is_scalar(entry.variable->type)) return false;
  Value* v = touch_variable(entry, name);
  if (!v) return false;
  out = value_text(*v);
  return true;
}

ValuePtr option_evaluate(const ParsedTag& tag, std::string_view name) {
  const TagOption* option = tag_option_entry(tag, name);
  if (!option) return nullptr;
  if (option->source && !general_path_only && !decimal_mode &&
      (option->source->value_form == FORM_LITERAL || option->ref_count > 0)) {
    const ExprProgram* program = option_program(*option->page, *option->source, tag.line);
    if (program && program->references == option->ref_count) {
      double numbers[16];
      bool usable = option->ref_count <= std::size(numbers);
      for (uint32_t k = 0; usable && k < option->ref_count; k++) {
        const RefValue& ref = tag.refs[option->first_ref + k];
        if (ref.kind == RefValue::NUMBER)
          numbers[k] = ref.number;
        else if (ref.kind == RefValue::INTEGER)
          numbers[k] = ref.integer;
        else
          usable = false;
      }
      double result;
      if (usable && expr_run(*program, numbers, &result)) {
        eval_status = EVAL_OK;
        return value_from_number(result);
      }
    }
  }
  return expr_evaluate(option_text(tag, *option));
}
