// CV-STR: the string function tag, one operation chosen by "function".
#pragma once

#include <string_view>

#include "page/tag.h"
#include "values/value.h"

struct Run;

// <CV-STR function=name ...>: see the function table in cvstr.cpp.
ValuePtr cvstr_handler(Run& run, const ParsedTag& tag);
// The code of a function name (compared without regard to case), or -1.
int cvstr_function_code(std::string_view name);
