// Output: the header and body buffers, when and how they are sent, the
// page's output mode and the tags that change the header block.
#pragma once

#include "base/paths.h"

#include "page/tag.h"
#include "values/value.h"

struct Run;

void send_headers(Run& run);
void send_body(Run& run);
void send_page(Run& run);
// Writes response bytes through the run's output (standard output for CGI).
void write_response(Run& run, std::string_view bytes);
// Appends to the page body buffer.
void body_append(Run& run, std::string_view bytes);

ValuePtr cvmlmode_handler(Run& run, const ParsedTag& tag);
ValuePtr cvheader_handler(Run& run, const ParsedTag& tag);
ValuePtr cvlocation_handler(Run& run, const ParsedTag& tag);
ValuePtr cvflush_handler(Run& run, const ParsedTag& tag);


