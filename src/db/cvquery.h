// CVQUERY, /CVQUERY and CV-ROWSEEK: statements run from a page into query
// variables, and the current-row pointer that pages move through them.
#pragma once

#include "page/tag.h"
#include "values/value.h"

struct Run;

ValuePtr cvquery_handler(Run& run, const ParsedTag& tag);
ValuePtr cvquery_close_handler(Run& run, const ParsedTag& tag);
ValuePtr cvrowseek_handler(Run& run, const ParsedTag& tag);

// Disconnects every cached connection and frees the ODBC environment; the
