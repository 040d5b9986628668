// CVFILE: files below the web space, opened into handles that later tags
// name to read, write, seek, query and close them.
#pragma once

#include <string>
#include <string_view>

#include "page/tag.h"
#include "values/value.h"

struct Run;

// <CVFILE filename=name (openfile filevar=var | removefile)>
// <CVFILE filevar=var (closefile | seek=n [position=start|current|end] |
//         read=all|line|n var=v | writevar=v | positionvar=v | eofvar=v | filesizevar=v)>
// A handle is the slot's index, kept in the variable as a plain integer.
ValuePtr cvfile_handler(Run& run, const ParsedTag& tag);
// Closes every file the run left open and empties the table, so the next

// The file-system path of a name given relative to the current page:
// web root, the page directory the name resolves to, and its last part
// (`default_name` when that part is empty).  False for a name with a web
// protocol or drive prefix, or one holding a zero byte.
bool web_space_path(Run& run, std::string_view name, std::string_view default_name, std::string* path);
