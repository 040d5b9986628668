// CV-TIME: the current time, and date serials formatted or parsed.
#pragma once

#include "page/tag.h"
#include "values/value.h"

struct Run;

// <CV-TIME [timeframe=GMT|local] [value=serial format=text | var=name format=text]>
ValuePtr cvtime_handler(Run& run, const ParsedTag& tag);
