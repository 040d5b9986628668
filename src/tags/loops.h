// CVFOR and CVWHILE with their closing tags.
#pragma once

#include "page/tag.h"
#include "values/value.h"

struct Run;

ValuePtr cvfor_handler(Run& run, const ParsedTag& tag);
ValuePtr cvfor_close_handler(Run& run, const ParsedTag& tag);
ValuePtr cvwhile_handler(Run& run, const ParsedTag& tag);
ValuePtr cvwhile_close_handler(Run& run, const ParsedTag& tag);

// Fast handlers (see runtime/execute.h).
struct FastArgs;
bool cvfor_fast(Run& run, FastArgs& args);
bool cvfor_close_fast(Run& run, FastArgs& args);
bool cvwhile_fast(Run& run, FastArgs& args);
bool cvwhile_close_fast(Run& run, FastArgs& args);
