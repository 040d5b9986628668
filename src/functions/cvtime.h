// CV-TIME: the current time, and date serials formatted or parsed.
#pragma once

#include "page/tag.h"
#include "values/value.h"

// <CV-TIME [timeframe=GMT|local] [value=serial format=text | var=name format=text]>
ValuePtr cvtime_handler(const ParsedTag& tag);
