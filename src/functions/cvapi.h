// CV-API: operating-system services for pages (file attributes, directory
// listings, pausing, the system's running time).
#pragma once

#include <string_view>

#include "page/tag.h"
#include "values/value.h"

struct Run;

// <CV-API function=chmod file=name attrib=hsra>
// <CV-API function=dirinfo dir=name var=v>
// <CV-API function=sleep value=milliseconds>
// <CV-API function=uptime>
ValuePtr cvapi_handler(Run& run, const ParsedTag& tag);
// The code of a function name (without regard to case), or -1.
int cvapi_function_code(std::string_view name);
