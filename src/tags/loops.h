// CVFOR and CVWHILE with their closing tags.
#pragma once

#include "page/tag.h"
#include "values/value.h"

ValuePtr cvfor_handler(const ParsedTag& tag);
ValuePtr cvfor_close_handler(const ParsedTag& tag);
ValuePtr cvwhile_handler(const ParsedTag& tag);
ValuePtr cvwhile_close_handler(const ParsedTag& tag);

// Fast handlers (see runtime/execute.h).
struct FastArgs;
bool cvfor_fast(FastArgs& args);
bool cvfor_close_fast(FastArgs& args);
bool cvwhile_fast(FastArgs& args);
bool cvwhile_close_fast(FastArgs& args);
