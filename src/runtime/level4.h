// Level 4 tags: references to variables, with element, hash, substring,
// property and query-column selectors.
#pragma once

#include <string_view>

#include "page/tag.h"
#include "values/value.h"

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
// Handler of every variable entry: a copy of the selected value.
ValuePtr level4_handler(Run& run, const ParsedTag& tag);
// What the engine prints for a variable tag: the text of the value
// level4_handler would return, without making that copy.
void level4_print(Run& run, const ParsedTag& tag, std::string& out);
