// CVINCLUDE, CVEXIT and CVRESTART.
#pragma once

#include "page/tokenizer.h"
#include "values/value.h"

ValuePtr cvinclude_handler(const ParsedTag& tag);
ValuePtr cvexit_handler(const ParsedTag& tag);
ValuePtr cvrestart_handler(const ParsedTag& tag);
