// CV-CONVERT and CV-LIST: change a variable's type, insert into or remove
// from a list, all in place and without output.
#pragma once

#include "page/tag.h"
#include "values/value.h"

struct Run;

// <CV-CONVERT var=reference type="number|string|list|array|hash">
ValuePtr cvconvert_handler(Run& run, const ParsedTag& tag);
// <CV-LIST operation="insert|remove" listvar=reference
//          location="first|last|element" [element=expression] [var=reference]>
ValuePtr cvlist_handler(Run& run, const ParsedTag& tag);
