// CVIF, CVELSEIF, CVELSE and /CVIF.
#pragma once

#include "page/tag.h"
#include "values/value.h"

ValuePtr cvif_handler(const ParsedTag& tag);
ValuePtr cvelseif_handler(const ParsedTag& tag);
ValuePtr cvelse_handler(const ParsedTag& tag);
ValuePtr cvif_close_handler(const ParsedTag& tag);

// Fast handlers (see runtime/execute.h).
struct FastArgs;
bool cvif_fast(FastArgs& args);
bool cvelseif_fast(FastArgs& args);
bool cvelse_fast(FastArgs& args);
bool cvif_close_fast(FastArgs& args);
