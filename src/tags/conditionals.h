// CVIF, CVELSEIF, CVELSE and /CVIF.
#pragma once

#include "page/tag.h"
#include "values/value.h"

struct Run;

ValuePtr cvif_handler(Run& run, const ParsedTag& tag);
ValuePtr cvelseif_handler(Run& run, const ParsedTag& tag);
ValuePtr cvelse_handler(Run& run, const ParsedTag& tag);
ValuePtr cvif_close_handler(Run& run, const ParsedTag& tag);

// Fast handlers (see runtime/execute.h).
struct FastArgs;
bool cvif_fast(Run& run, FastArgs& args);
bool cvelseif_fast(Run& run, FastArgs& args);
bool cvelse_fast(Run& run, FastArgs& args);
bool cvif_close_fast(Run& run, FastArgs& args);
