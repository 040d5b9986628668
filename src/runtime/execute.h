// The compiled path: shortcuts that give exactly what the general path
// gives, each guarded by a check of what it assumes (the name table's
// version, a value's type), falling back to the general path otherwise.
#pragma once

#include <string>

#include "runtime/run.h"

// The name table entry for a name of `page`, remembered per page name while
// the table does not change; null when the name is not in the table.
const TagHandler* find_page_name(const Page& page, uint32_t name);
// Forms a value made of text and bare references (FORM_REFERENCES) from the
// variables' values, leaving numbers unprinted.  False, with nothing
// changed, when a reference is not a variable holding a number, an integer,
// a string or nothing: the general path then processes the value.
bool take_references(const Page& value, ParsedTag& tag, TagOption& option);
// The output of a variable tag without options, when its value is a scalar
// (what the Level 4 handler would print); false otherwise.
bool print_variable(const TagHandler& entry, std::string_view name, std::string& out);
