// CVVAR, CVUNVAR, CVBINARY and CVDIRECT: create, assign, remove and emit
// variables, and capture a stretch of the page into one.
#pragma once

#include "page/tag.h"
#include "values/value.h"

struct Run;

ValuePtr cvvar_handler(Run& run, const ParsedTag& tag);
ValuePtr cvunvar_handler(Run& run, const ParsedTag& tag);
ValuePtr cvbinary_handler(Run& run, const ParsedTag& tag);
ValuePtr cvdirect_handler(Run& run, const ParsedTag& tag);
ValuePtr cvdirect_close_handler(Run& run, const ParsedTag& tag);

// Fast handler (see runtime/execute.h).
struct FastArgs;
bool cvvar_fast(Run& run, FastArgs& args);
