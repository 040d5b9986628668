// The compiled path: variables found through remembered look-ups, option
// values formed from the numbers their references hold, expressions run as
// compiled programs over those numbers.
#include "runtime/execute.h"

#include "base/nocase.h"
#include "runtime/expression.h"
#include "runtime/level4.h"

namespace {

// What referring to a variable without options does to it, as the Level 4
// resolution would: the last computed property is let go, and a string's
// range covers the whole string again.  The value is found afresh when a
// change would have to be made in a table still shared with an including
// page (the resolution makes its own copy first).
Value* touch_variable(Run& run, const TagHandler& entry, std::string_view name) {
  Value* v = entry.variable.get();
  if (v->type == VT_NUMBER || v->type == VT_INTEGER) return v;
  if (v->type == VT_STRING && (v->start != 0 || v->end != v->bytes.size())) {
    if (run.names.use_count() > 1) {
      TagHandler* own = vartable_find(names_for_write(run), name);
      if (!own || !own->variable) return nullptr;
      v = own->variable.get();
    }
    v->start = 0;
    v->end = static_cast<uint32_t>(v->bytes.size());
  }
  return v;
}

bool is_scalar(uint8_t type) {
  return type == VT_EMPTY || type == VT_INTEGER || type == VT_NUMBER || type == VT_STRING;
}

}  // namespace

const TagHandler* find_page_name(Run& run, const Page& page, uint32_t name) {
  VarTable& table = *run.names;
  NameLookup& memo = page.lookups[name];
  if (!general_path_only && memo.version == table.version) return static_cast<const TagHandler*>(memo.entry);
  TagHandler* entry = vartable_find(table, page.names[name]);
  memo.version = table.version;
  memo.entry = entry;
  return entry;
}

namespace {

// A reference with options in a value of references, as a tag, cut once.
const ReferenceTag& reference_tag(const PageOption& option, const Page& value, uint32_t node) {
  if (option.reference_tags.size() != value.size()) option.reference_tags.resize(value.size());
  ReferenceTag& ref = option.reference_tags[node];
  if (!ref.made) {
    node_as_tag(value, node, ref.tag);
    ref.direct = level4_direct(ref.tag);
    ref.made = true;
  }
  return ref;
}

// The scalar that reference `node` of a value of references selects, found
// without changing anything; null when the compiled path cannot take it.
const Value* peek_reference(Run& run, const PageOption& option, const Page& value, uint32_t node,
                            const TagHandler** entry_out) {
  const PageNode& ref = value.nodes[node];
  const TagHandler* entry = find_page_name(run, value, ref.span.at);
  *entry_out = entry;
  if (!entry || entry->kind != KIND_VARIABLE || !entry->variable) return nullptr;
  if (ref.option_count == 0) return is_scalar(entry->variable->type) ? entry->variable.get() : nullptr;
  const ReferenceTag& tag = reference_tag(option, value, node);
  return tag.direct ? level4_peek(*entry, tag.tag) : nullptr;
}

// Then refers to it for real, as processing the value would: a variable
// without options is touched, one with options resolved.
Value* take_reference(Run& run, const PageOption& option, const Page& value, uint32_t node,
                      const TagHandler* entry) {
  const PageNode& ref = value.nodes[node];
  if (ref.option_count == 0) return entry ? touch_variable(run, *entry, value.names[ref.span.at]) : nullptr;
  return level4_resolve_tag(run, reference_tag(option, value, node).tag);
}

void set_ref(RefValue& ref, const Value& v) {
  switch (v.type) {
    case VT_NUMBER:
      ref.kind = RefValue::NUMBER;
      ref.number = v.number;
      break;
    case VT_INTEGER:
      ref.kind = RefValue::INTEGER;
      ref.integer = v.integer;
      break;
    case VT_STRING:
      ref.kind = RefValue::TEXT;
      ref.text = value_text(v);  // the range a reference selected
      break;
    default:
      ref.kind = RefValue::TEXT;
      ref.text.clear();
      break;
  }
}

}  // namespace

bool take_references(Run& run, const Page& value, ParsedTag& tag, TagOption& option) {
  const PageOption& source = *option.source;
  uint32_t first = static_cast<uint32_t>(tag.refs.size());
  uint32_t count = 0;
  for (uint32_t i = 0; i < value.size(); i++) {
    if (!value.nodes[i].is_tag) continue;
    const TagHandler* entry;
    if (!peek_reference(run, source, value, i, &entry)) return false;
    count++;
  }
  // The references count as the tags they are; a harness's tag limit that
  // they would reach is met on the general path.
  if (run.tag_limit && run.tags_processed + count > run.tag_limit) return false;
  for (uint32_t i = 0; i < value.size(); i++) {
    if (!value.nodes[i].is_tag) continue;
    Value* v = take_reference(run, source, value, i, find_page_name(run, value, value.nodes[i].span.at));
    if (!v) {
      tag.refs.resize(first);
      return false;  // not reached: the look-up succeeded above
    }
    set_ref(tag.refs.emplace_back(), *v);
  }
  run.tags_processed += count;
  option.first_ref = first;
  option.ref_count = count;
  option.pending = true;
  return true;
}

bool print_variable(Run& run, const TagHandler& entry, std::string_view name, std::string& out) {
  if (!entry.variable || !is_scalar(entry.variable->type)) return false;
  Value* v = touch_variable(run, entry, name);
  if (!v) return false;
  out = value_text(*v);
  return true;
}

ValuePtr option_evaluate(Run& run, const ParsedTag& tag, OptionKey name) {
  const TagOption* option = tag_option_entry(tag, name);
  if (!option) return nullptr;
  if (option->source && !general_path_only && !number_mode().decimal &&
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
        run.eval_status = EVAL_OK;
        return value_from_number(result);
      }
    }
  }
  return expr_evaluate(run, option_text(tag, *option));
}

namespace {

bool is_space(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

// A name that the Level 4 resolution reads as a tag of that name with no
// options, and that may name a variable.
bool is_bare_variable_name(std::string_view text) {
  if (!is_bare_reference(text) || text[0] == '/') return false;
  return !(text.size() >= 2 && (text[0] == 'C' || text[0] == 'c') && (text[1] == 'V' || text[1] == 'v'));
}

std::string_view trimmed_front(std::string_view text) {
  size_t skip = 0;
  while (skip < text.size() && is_space(text[skip])) skip++;
  return text.substr(skip);
}

}  // namespace

Value* option_variable(Run& run, const ParsedTag& tag, const TagOption& option) {
  const PageOption* source = option.source;
  if (!general_path_only && source && source->value_form == FORM_LITERAL) {
    std::string_view name = trimmed_front(option.page->text(source->value));
    if (source->bare_name == 0) source->bare_name = is_bare_variable_name(name) ? 2 : 1;
    if (source->bare_name == 2) {
      // The value is for writing: a table still shared with an including
      // page is copied first, as the resolution does.
      VarTable& table = names_for_write(run);
      NameLookup& memo = source->variable;
      if (memo.version != table.version) {
        memo.version = table.version;
        memo.entry = vartable_find(table, name);
      }
      const TagHandler* entry = static_cast<const TagHandler*>(memo.entry);
      if (entry && entry->kind == KIND_VARIABLE && entry->variable) {
        if (Value* v = touch_variable(run, *entry, name)) return v;
      }
    }
    // A literal reference with options ("l element=[3]") is cut once.
    if (!source->reference_tried) {
      source->reference_tried = true;
      source->reference = cut_reference(option.page->text(source->value));
    }
    if (source->reference) return level4_resolve_cut(run, *source->reference);
  }
  return level4_resolve(run, option_text(tag, option));
}

// ---------------------------------------------------------------------------
// Fast handlers

namespace {
FastHandlerFn fast_handlers[TAG_COUNT];
}

void set_fast_handler(uint8_t tag, FastHandlerFn handler) {
  if (tag < TAG_COUNT) fast_handlers[tag] = handler;
}

FastHandlerFn fast_handler(uint8_t tag) { return tag < TAG_COUNT ? fast_handlers[tag] : nullptr; }

bool fast_options(Run& run, const Page& page, uint32_t node, FastArgs& args) {
  const PageNode& n = page.nodes[node];
  if (!n.names_literal || n.option_count > FastArgs::kMaxOptions) return false;
  args.page = &page;
  args.node = node;
  args.count = n.option_count;
  if (n.literal) {
    for (uint32_t k = 0; k <= n.option_count; k++) args.ref_first[k] = 0;
    return true;
  }
  const TagHandler* entries[FastArgs::kMaxRefs];
  uint32_t total = 0;
  for (uint32_t k = 0; k < n.option_count; k++) {
    const PageOption& option = page.options[n.first_option() + k];
    args.ref_first[k] = total;
    if (option.value_form == FORM_LITERAL) continue;
    const Page& value = option.value_page ? *option.value_page : option_value_page(page, option, n.line);
    if (option.value_form != FORM_REFERENCES) return false;
    for (uint32_t i = 0; i < value.size(); i++) {
      const PageNode& ref = value.nodes[i];
      if (!ref.is_tag) continue;
      if (total == FastArgs::kMaxRefs) return false;
      if (ref.option_count == 0) {
        // The usual case, a variable without options, without a call.
        const TagHandler* entry = find_page_name(run, value, ref.span.at);
        if (!entry || entry->kind != KIND_VARIABLE || !entry->variable || !is_scalar(entry->variable->type))
          return false;
        entries[total++] = entry;
        continue;
      }
      if (!peek_reference(run, option, value, i, &entries[total])) return false;
      total++;
    }
  }
  args.ref_first[n.option_count] = total;
  if (run.tag_limit && run.tags_processed + total > run.tag_limit) return false;
  // Referring to the variables, as processing the values would.  Only a
  // string's range or a reference with options can make that copy a shared
  // table; the entries are then looked up again in the copy.
  uint64_t version = run.names->version;
  uint32_t at = 0;
  for (uint32_t k = 0; k < n.option_count && at < total; k++) {
    const PageOption& option = page.options[n.first_option() + k];
    if (option.value_form == FORM_LITERAL) continue;
    const Page& value = *option.value_page;
    for (uint32_t i = 0; i < value.size(); i++) {
      const PageNode& ref = value.nodes[i];
      if (!ref.is_tag) continue;
      const TagHandler* entry =
          run.names->version == version ? entries[at] : find_page_name(run, value, ref.span.at);
      Value* v;
      if (ref.option_count == 0 && entry && entry->variable &&
          (entry->variable->type == VT_NUMBER || entry->variable->type == VT_INTEGER))
        v = entry->variable.get();  // a number has no range to reset
      else
        v = take_reference(run, option, value, i, entry);
      if (!v) return false;  // not reached: the look-up succeeded above
      args.refs[at++] = v;
    }
  }
  run.tags_processed += total;
  return true;
}

bool fast_number(Run& run, const FastArgs& args, int option, double* out) {
  if (option < 0 || number_mode().decimal) return false;
  const Page& page = *args.page;
  const PageNode& n = page.nodes[args.node];
  const PageOption& o = page.options[n.first_option() + option];
  const ExprProgram* program = option_program(page, o, n.line);
  uint32_t first = args.ref_first[option], count = args.ref_first[option + 1] - first;
  if (!program || program->references != count) return false;
  double numbers[FastArgs::kMaxRefs];
  for (uint32_t k = 0; k < count; k++) {
    const Value* v = args.refs[first + k];
    if (v->type == VT_NUMBER)
      numbers[k] = v->number;
    else if (v->type == VT_INTEGER)
      numbers[k] = v->integer;
    else
      return false;
  }
  if (!expr_run(*program, numbers, out)) return false;
  run.eval_status = EVAL_OK;
  return true;
}

Value* fast_variable(Run& run, const FastArgs& args, int option) {
  if (option < 0) return nullptr;
  const Page& page = *args.page;
  const PageOption& o = page.options[page.nodes[args.node].first_option() + option];
  if (o.value_form != FORM_LITERAL) return nullptr;
  std::string_view name = trimmed_front(page.text(o.value));
  if (o.bare_name == 0) o.bare_name = is_bare_variable_name(name) ? 2 : 1;
  if (o.bare_name != 2) {
    // A literal reference with options ("l element=[3]"), cut once: taken
    // here when its resolution cannot fail.
    if (!o.reference_tried) {
      o.reference_tried = true;
      o.reference = cut_reference(page.text(o.value));
    }
    if (!o.reference) return nullptr;
    const ParsedTag& tag = o.reference->tag;
    const VarTable& table = *run.names;
    if (o.variable.version != table.version) {
      o.variable.version = table.version;
      o.variable.entry = vartable_find(*run.names, tag.name);
    }
    const TagHandler* entry = static_cast<const TagHandler*>(o.variable.entry);
    if (!entry || !level4_writable(*entry, tag)) return nullptr;
    return level4_resolve_cut(run, *o.reference);
  }
  VarTable& table = names_for_write(run);
  if (o.variable.version != table.version) {
    o.variable.version = table.version;
    o.variable.entry = vartable_find(table, name);
  }
  const TagHandler* entry = static_cast<const TagHandler*>(o.variable.entry);
  if (!entry || entry->kind != KIND_VARIABLE || !entry->variable) return nullptr;
  return touch_variable(run, *entry, name);
}

void fast_to_tag(const FastArgs& args, ParsedTag& tag) {
  const Page& page = *args.page;
  const PageNode& n = page.nodes[args.node];
  tag.line = n.line;
  tag.is_tag = true;
  tag.name = page.node_name(args.node);
  tag.options.clear();
  tag.refs.clear();
  for (uint32_t k = 0; k < args.count; k++) {
    const PageOption& option = page.options[n.first_option() + k];
    TagOption& done = tag.options.emplace_back();
    done.name.assign(page.text(option.name));
    done.atom = option.atom;
    done.source = &option;
    done.page = &page;
    if (option.value_form == FORM_LITERAL) {
      done.value.assign(page.text(option.value));
      continue;
    }
    done.first_ref = static_cast<uint32_t>(tag.refs.size());
    done.ref_count = args.ref_first[k + 1] - args.ref_first[k];
    done.pending = true;
    for (uint32_t r = args.ref_first[k]; r < args.ref_first[k + 1]; r++) set_ref(tag.refs.emplace_back(), *args.refs[r]);
  }
}
