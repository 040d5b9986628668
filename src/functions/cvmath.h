// CV-MATH: the mathematics function tag, which also switches decimal mode
// and sets the decimal engine's precision.
#pragma once

#include <string_view>

#include "page/tag.h"
#include "values/value.h"

struct Run;

// <CV-MATH operation=name ...>: the result value, or an empty value when
// the operation prints nothing or after a report.
ValuePtr cvmath_handler(Run& run, const ParsedTag& tag);

// The code of an operation name, compared without regard to case; -1 for
// a name that is not an operation.
int cvmath_operation_code(std::string_view name);
