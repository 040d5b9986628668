// CVVAR, CVUNVAR, CVBINARY and CVDIRECT: create, assign, remove and emit
// variables, and capture a stretch of the page into one.
#pragma once

#include "page/tag.h"
#include "values/value.h"

ValuePtr cvvar_handler(const ParsedTag& tag);
ValuePtr cvunvar_handler(const ParsedTag& tag);
ValuePtr cvbinary_handler(const ParsedTag& tag);
ValuePtr cvdirect_handler(const ParsedTag& tag);
ValuePtr cvdirect_close_handler(const ParsedTag& tag);

// Fast handler (see runtime/execute.h).
struct FastArgs;
bool cvvar_fast(FastArgs& args);
