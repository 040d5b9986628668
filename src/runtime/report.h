// Error and warning reports, stack and variable dumps, page statistics.
//
// Nothing is written to the output at the time: reports collect in buffers
// that are sent after the page.
#pragma once

#include <string_view>

#include "page/tag.h"
#include "values/value.h"

struct Run;

// Files an error for `tag` (as the handler received it) and stops the page.
void report_error(Run& run, const ParsedTag& tag, std::string_view message);
// report_error, then the empty value a failing handler returns.
ValuePtr report_failure(Run& run, const ParsedTag& tag, std::string_view message);
// The warning for a closing tag that closes nothing.
void report_unneeded_tag(Run& run, const ParsedTag& tag);
// A line for the error buffer, written when the current context's
// diagnostics switch is on (any level) or, with `only_full`, only at level 1.
void report_diagnostic(Run& run, std::string_view text, bool only_full = false);
// The fatal internal-error line, when diagnostics are on.
void report_internal_error(Run& run);
void write_page_statistics(Run& run);
void write_stack_dump(Run& run);
void write_variable_dump(Run& run);
void send_reports(Run& run);

// Shared handler of the closing tags that have no block to close.
ValuePtr unneeded_tag_handler(Run& run, const ParsedTag& tag);
ValuePtr cvdebug_handler(Run& run, const ParsedTag& tag);

// "%s requires the '%s' option to be used.  See the Corvane documentation for details."
std::string option_required_message(std::string_view tag, std::string_view option);
