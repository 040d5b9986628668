// Output: the header and body buffers, when and how they are sent, the
// page's output mode and the tags that change the header block.
#pragma once

#include "page/tag.h"
#include "values/value.h"

void send_headers();
void send_body();
void send_page();
// Writes bytes to standard output, unbuffered by the C library.
void write_stdout(std::string_view bytes);
// Appends to the page body buffer.
void body_append(std::string_view bytes);

ValuePtr cvmlmode_handler(const ParsedTag& tag);
ValuePtr cvheader_handler(const ParsedTag& tag);
ValuePtr cvlocation_handler(const ParsedTag& tag);
ValuePtr cvflush_handler(const ParsedTag& tag);

// Resolves the directory part of `target` against `directory` ("/a/b/"):
// ".." and "." components, an empty component restarting at "/".  Returns
// false when a scheme followed by "//" makes the target absolute.
bool resolve_page_directory(std::string_view directory, std::string_view target, std::string* result);
// The text after the final "/", or all of it.
std::string_view last_path_part(std::string_view path);
