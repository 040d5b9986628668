// CVINCLUDE, CVEXIT and CVRESTART.
#pragma once

#include "page/tag.h"
#include "values/value.h"

ValuePtr cvinclude_handler(const ParsedTag& tag);
ValuePtr cvexit_handler(const ParsedTag& tag);
ValuePtr cvrestart_handler(const ParsedTag& tag);
