// Error and warning reports, stack and variable dumps, page statistics.
#include "runtime/report.h"

#include <cctype>

#include "runtime/run.h"
#include "runtime/output.h"
#include "runtime/report_log.h"
#include "base/nocase.h"

namespace {

void put(DynStringPtr& buffer, std::string_view text) {
  if (!buffer) buffer = dyn_new();
  dyn_puts(buffer.get(), text);
}

std::string escape_markup(std::string_view text) {
  std::string out;
  for (char c : text) {
    if (c == '<') out += "&lt;";
    else if (c == '>') out += "&gt;";
    else if (c == '"') out += "&quot;";
    else if (c == '&') out += "&amp;";
    else out += c;
  }
  return out;
}

std::string line_of(const PageContext* ctx) {
  return std::to_string(ctx ? node_line(*ctx, ctx->current) : 0);
}

std::string printed(Run& run, const ParsedTag& node) {
  std::string out;
  print_node(run, node, out);
  return out;
}

}  // namespace

std::string option_required_message(std::string_view tag, std::string_view option) {
  std::string m(tag);
  m += " requires the '";
  m += option;
  m += "' option to be used.  See the Corvane documentation for details.";
  return m;
}

void report_diagnostic(Run& run, std::string_view text, bool only_full) {
  const PageContext* ctx = current_context(run);
  uint8_t debug = ctx ? ctx->debug : run.settings.default_debug;
  if (debug == DEBUG_OFF || (only_full && debug != DEBUG_ON)) return;
  put(run.errors, text);
}

void report_internal_error(Run& run) {
  run.failed = true;
  report_diagnostic(run, "Fatal Error:  An internal error has occurred in Corvane.\n");
}

void report_error(Run& run, const ParsedTag& tag, std::string_view message) {
  PageContext* ctx = current_context(run);
  run.failed = true;
  if (ctx && ctx->debug != DEBUG_OFF) {
    write_page_statistics(run);
    std::string r = "\n\nError in \"" + ctx->full_path + "\" on or near line #" + line_of(ctx) + ":\n";
    if (tag.is_tag) {
      r += "Error:  Error in <" + tag.name + ">.  ";
      r += message;
      r += "\nHere is the processed tag that caused the error:\n";
      r += printed(run, tag);
      if (node_is_tag(*ctx, ctx->current)) {
        r += "\n\nHere is the original tag that caused the error:\n";
        print_node(run, *ctx->page, ctx->current, r);
      }
    } else {
      r += message;
      r += "  Here is the processed text that caused the error:\n";
      r += tag.text;
    }
    r += "\n\nBelow is the processed page that Corvane saw (note that it may only be a portion of the "
         "original page and may look distorted due to improperly written code):\n\n";
    for (uint32_t i = 0; ctx->page && i < ctx->page->size(); i++) print_node(run, *ctx->page, i, r);
    r += "\n\n";
    put(run.errors, r);
  }
  run.stop = true;
}

ValuePtr report_failure(Run& run, const ParsedTag& tag, std::string_view message) {
  report_error(run, tag, message);
  return value_new();
}

void report_unneeded_tag(Run& run, const ParsedTag& tag) {
  const PageContext* ctx = current_context(run);
  if (!ctx || ctx->debug != DEBUG_ON) return;
  std::string r = "Warning in \"" + ctx->file_name + "\" on or near line #" + line_of(ctx) + ":\n";
  r += "Warning:  <" + tag.name +
       "> is not a necessary tag.  Corvane recognizes this tag only to provide this warning.  "
       "Remove this tag from the source to stop these warnings.\n\n\n";
  put(run.errors, r);
}

ValuePtr unneeded_tag_handler(Run& run, const ParsedTag& tag) {
  report_unneeded_tag(run, tag);
  return value_new();
}

void write_page_statistics(Run& run) {
  const PageContext* ctx = current_context(run);
  if (!ctx || ctx->debug != DEBUG_ON) return;
  if (!run.stats || run.stats->data.empty()) put(run.stats, "Page Statistics:\n\n");
  put(run.stats, ctx->full_path + " - " + std::to_string(now_ms() - ctx->start_ms) + "ms\n");
  write_stack_dump(run);
  write_variable_dump(run);
}

void write_stack_dump(Run& run) {
  const PageContext* ctx = current_context(run);
  if (!ctx || ctx->tag_stack.empty()) return;
  std::string r = "\n\nStack dump of " + ctx->full_path + ":\n\n";
  for (uint32_t node : ctx->tag_stack) {
    if (node_is_tag(*ctx, node))
      r += "Tag (Line #" + std::to_string(node_line(*ctx, node)) + "): " + ctx->page->node_name(node) + "\n";
    else
      r += "Text from line #" + std::to_string(node_line(*ctx, node)) + " found on stack.\n";
  }
  put(run.stats, r);
}

void write_variable_dump(Run& run) {
  const PageContext* ctx = current_context(run);
  if (!ctx || !run.names) return;
  std::string r = "\n\nLevel 4 tag dump of " + ctx->full_path + ":\n\n";
  // Names can come from the request; shown in HTML they are escaped.
  bool html = run.settings.cgi_mode && report_mode() == REPORTS_PAGE;
  for (const TableEntry& e : run.names->entries) {
    if (e.entry.kind != KIND_VARIABLE) continue;
    r += "  ";
    r += html ? escape_markup(e.name) : e.name;
    r += "\n";
  }
  put(run.stats, r);
}

// ---------------------------------------------------------------------------
// Sending

namespace {

// Escaping of the SQL statistics: markup characters as entities, CR LF as
// LF, a CR before anything else dropped.
std::string escape_sql_stats(std::string_view in) {
  std::string out;
  out.reserve(in.size() + in.size() / 8);
  for (size_t i = 0; i < in.size(); ++i) {
    char c = in[i];
    if (c == '\r') {
      if (i + 1 < in.size() && in[i + 1] == '\n') {
        out += '\n';
        ++i;
      } else if (i + 1 < in.size()) {
        out += in[++i];
      }
      continue;
    }
    if (c == '<') out += "&lt;";
    else if (c == '>') out += "&gt;";
    else if (c == '"') out += "&quot;";
    else out += c;
  }
  return out;
}

// Escaping of the error buffer for HTML: entities, and every line break as
// "<br>\n".  A CR before anything else is kept, and so is a final CR.
std::string escape_errors(std::string_view in) {
  std::string out;
  out.reserve(in.size() + in.size() / 4);
  for (size_t i = 0; i < in.size(); ++i) {
    char c = in[i];
    if (c == '\r') {
      if (i + 1 < in.size() && in[i + 1] == '\n') {
        out += "<br>\n";
        ++i;
      } else if (i + 1 < in.size()) {
        out += '\r';
        out += in[++i];
      } else {
        out += '\r';
      }
      continue;
    }
    if (c == '<') out += "&lt;";
    else if (c == '>') out += "&gt;";
    else if (c == '"') out += "&quot;";
    else if (c == '\n') out += "<br>\n";
    else out += c;
  }
  return out;
}

bool has_text(const DynStringPtr& buffer) { return buffer && !buffer->data.empty(); }

}  // namespace

void send_reports(Run& run) {
  bool cgi = run.settings.cgi_mode;
  if (report_mode() == REPORTS_LOG) {
    if (has_text(run.sql_stats) || has_text(run.stats) || has_text(run.errors)) log_reports(run);
    if (run.failed) write_response(run, report_notice(run));
    return;
  }
  if (has_text(run.sql_stats)) {
    std::string r;
    if (cgi) r += "<hr>\n<pre>\n";
    r += escape_sql_stats(run.sql_stats->data);
    if (cgi) r += "</pre>\n";
    write_response(run, r);
  }
  if (has_text(run.stats)) {
    if (cgi)
      write_response(run, "<hr>\n<pre>\n" + run.stats->data + "</pre>\n");
    else
      write_response(run, run.stats->data);
  }
  if (has_text(run.errors)) {
    if (cgi)
      write_response(run, "<hr>\n" + escape_errors(run.errors->data));
    else
      write_response(run, run.errors->data);
  }
}

// ---------------------------------------------------------------------------
// CVDEBUG type="on|error|off"

ValuePtr cvdebug_handler(Run& run, const ParsedTag& tag) {
  const std::string* type = tag_option(tag, "type");
  if (!type) {
    report_error(run, tag, option_required_message("CVDEBUG", "type"));
    return value_new();
  }
  PageContext* ctx = current_context(run);
  if (keyword_is(*type, "on")) ctx->debug = DEBUG_ON;
  else if (keyword_is(*type, "error")) ctx->debug = DEBUG_ERRORS;
  else if (keyword_is(*type, "off")) ctx->debug = DEBUG_OFF;
  else
    report_error(run, tag, "The CVDEBUG 'type' option may only be 'on', 'error', or 'off'.  "
                      "See the Corvane documentation for details.");
  return value_new();
}
