// CVWEB: the tag through which pages open and use network connections, and
// the run-wide table of those connections.
#pragma once

#include "page/tag.h"
#include "values/value.h"

struct Run;

// <CVWEB socketvar=reference [server=host protocol=... port=...] ...>
ValuePtr cvweb_handler(Run& run, const ParsedTag& tag);

// Ends every open connection the way its protocol ends a session (QUIT for
// mail and file servers) and empties the table.  Called once at the end of
