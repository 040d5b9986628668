// CVINCLUDE, CVEXIT and CVRESTART.
#pragma once

#include "page/tag.h"
#include "values/value.h"

struct Run;

ValuePtr cvinclude_handler(Run& run, const ParsedTag& tag);
ValuePtr cvexit_handler(Run& run, const ParsedTag& tag);
ValuePtr cvrestart_handler(Run& run, const ParsedTag& tag);
