// Level 4 tags: references to variables, with element, hash, substring,
// property and query-column selectors.
#pragma once

#include <string_view>

#include "page/tag.h"
#include "values/value.h"
#include "values/vartable.h"

struct Run;

// Resolves a reference text ("name element=[2]") to the selected value,
// creating what is missing.  The value stays owned by its variable.  Null
// after writing a diagnostic line when diagnostics are on.
Value* level4_resolve(Run& run, std::string_view text);
// The same for a tag already cut, when its printed form would be cut back
// into the same tag.
// The same for a reference text cut before (cut_reference).
Value* level4_resolve_cut(Run& run, const CutReference& cut);
Value* level4_resolve_tag(Run& run, const ParsedTag& tag);
// The scalar that level4_resolve_tag would select for `tag`, a reference to
// the variable `entry`, when it would select an element, hash entry or
// substring that exists without creating, converting or reporting anything;
// else null.  Changes nothing: the caller resolves the tag for real when
// this gives a value.
// Only for a tag that level4_direct accepts.
const Value* level4_peek(const TagHandler& entry, const ParsedTag& tag);
// True when `tag`, cut from a literal text, is resolved as it stands.
bool level4_direct(const ParsedTag& tag);
// True when level4_resolve_cut would select, or make, a scalar of the
// existing variable `entry` through element and hash options without
// failing or converting anything that holds a value.
bool level4_writable(const TagHandler& entry, const ParsedTag& tag);
// Handler of every variable entry: a copy of the selected value.
ValuePtr level4_handler(Run& run, const ParsedTag& tag);
// What the engine prints for a variable tag: the text of the value
// level4_handler would return, without making that copy.
void level4_print(Run& run, const ParsedTag& tag, std::string& out);
