// CVFOR and CVWHILE with their closing tags.
#pragma once

#include "page/tag.h"
#include "values/value.h"

ValuePtr cvfor_handler(const ParsedTag& tag);
ValuePtr cvfor_close_handler(const ParsedTag& tag);
ValuePtr cvwhile_handler(const ParsedTag& tag);
ValuePtr cvwhile_close_handler(const ParsedTag& tag);
