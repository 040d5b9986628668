// CVIF, CVELSEIF, CVELSE and /CVIF.
#pragma once

#include "page/tag.h"
#include "values/value.h"

ValuePtr cvif_handler(const ParsedTag& tag);
ValuePtr cvelseif_handler(const ParsedTag& tag);
ValuePtr cvelse_handler(const ParsedTag& tag);
ValuePtr cvif_close_handler(const ParsedTag& tag);
