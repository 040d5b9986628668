// CVINCLUDE, CVEXIT and CVRESTART: running another page inside this one,
// ending the run, and throwing away the output collected so far.
#include "tags/composition.h"

#include <filesystem>
#include <memory>
#include <string>
#include <system_error>

#include "runtime/budget.h"
#include "runtime/run.h"
#include "runtime/output.h"
#include "runtime/report.h"
#include "runtime/level4.h"

namespace {

// Included pages may nest this deep.  Each level holds a context and its
// page in memory, so the bound keeps a page that includes itself (directly
// or through others) from exhausting memory.
constexpr size_t kMaxIncludeDepth = 64;

const char kIncludeNeedsSource[] =
    "CVINCLUDE requires the 'file' option or the 'var' option to be used.  See the Corvane "
    "documentation for details.";
const char kIncludeWebProtocol[] =
    "CVINCLUDE does not recognize web protocols or absolute paths based at the root of the drive.";
const char kIncludeOpenFailed[] = "Error opening the file for processing.  Make sure that the file exists.";
const char kIncludeNoVariable[] =
    "An error occurred in obtaining the CVINCLUDE variable.  See the diagnostic message above for "
    "details.";
const char kIncludeBadVariables[] =
    "CVINCLUDE requires the 'variables' option to be either 'global' or 'local'.  See the Corvane "
    "documentation for details.";
const char kIncludeTooDeep[] =
    "CVINCLUDE exceeded the maximum include depth of 64.  The most likely cause is a page that "
    "includes itself.";
const char kExitBadType[] =
    "The CVEXIT 'type' option may only be 'normal' or 'error'.  See the Corvane documentation for "
    "details.";

bool equals_nocase(std::string_view a, std::string_view b) { return compare_bytes_nocase(a, b) == 0; }

// Page contexts below the current one, not counting the ones that only
// process option text.
size_t include_depth(Run& run) {
  size_t depth = 0;
  for (const auto& ctx : run.contexts) {
    if (!ctx->text_only) ++depth;
  }
  return depth;
}


// Fills the new context from the file named by "file"; false after
// reporting the failure (the new context is popped first).
bool load_file(Run& run, const ParsedTag& tag, const PageContext& outer, PageContext* inner, const std::string& file) {
  std::string directory;
  // A NUL byte would end the path the system sees early, past the checks.
  if (file.find('\0') != std::string::npos || !resolve_page_directory(outer.directory, file, &directory)) {
    context_pop(run);
    report_error(run, tag, kIncludeWebProtocol);
    return false;
  }
  std::string file_name(last_path_part(file));
  if (file_name.empty()) file_name = "index.cvm";
  inner->directory = directory;
  inner->file_name = file_name;
  inner->full_path = run.settings.doc_root + directory + file_name;

  if (uint64_t size = page_file_too_large(run, inner->full_path)) {
    std::string message = page_limit_message("The file " + inner->full_path, size, run.limits.page_bytes);
    context_pop(run);
    report_error(run, tag, message);
    return false;
  }
  std::error_code ec;
  PagePtr page;
  if (!std::filesystem::is_directory(inner->full_path, ec)) page = load_page(inner->full_path);
  if (!page) {
    report_diagnostic(run, "Error opening " + inner->full_path + " for processing.\n");
    context_pop(run);
    report_error(run, tag, kIncludeOpenFailed);
    return false;
  }
  install_page(run, inner, std::move(page));
  return true;
}

// Fills the new context from a variable's text; the page names stay those
// of the including page.
bool load_variable(Run& run, const ParsedTag& tag, const PageContext& outer, PageContext* inner, const std::string& name) {
  Value* value = level4_resolve(run, name);
  if (!value) {
    context_pop(run);
    report_error(run, tag, kIncludeNoVariable);
    return false;
  }
  std::string text = value_text(*value);
  if (run.limits.page_bytes && text.size() > run.limits.page_bytes) {
    context_pop(run);
    report_error(run, tag, page_limit_message("The text of the variable " + name, text.size(), run.limits.page_bytes));
    return false;
  }
  inner->directory = outer.directory;
  inner->file_name = outer.file_name;
  inner->full_path = outer.full_path;
  install_page(run, inner, compile_page(text, 1));
  return true;
}

}  // namespace

// <CVINCLUDE file="..." | var="..." variables="global|local">
// The included page runs in a context of its own on top of this one; the
// main loop processes it to its end before continuing after this tag.
ValuePtr cvinclude_handler(Run& run, const ParsedTag& tag) {
  const std::string* file = tag_option(tag, "file");
  const std::string* var = tag_option(tag, "var");
  if ((file == nullptr) == (var == nullptr)) {
    report_error(run, tag, kIncludeNeedsSource);
    return value_new();
  }
  if (include_depth(run) > kMaxIncludeDepth) {
    report_error(run, tag, kIncludeTooDeep);
    return value_new();
  }
  PageContext* outer = current_context(run);
  context_push(run);
  PageContext* inner = current_context(run);
  bool loaded = file ? load_file(run, tag, *outer, inner, *file) : load_variable(run, tag, *outer, inner, *var);
  if (!loaded) return value_new();

  if (const std::string* scope = tag_option(tag, "variables")) {
    if (equals_nocase(*scope, "local")) {
      inner->local_scope = true;
    } else if (!equals_nocase(*scope, "global")) {
      // The new context stays; the stopped main loop pops it.
      report_error(run, tag, kIncludeBadVariables);
      return value_new();
    }
  }
  outer->current = next_node(*outer, outer->current);
  inner->stay = true;
  return value_new();
}

// <CVEXIT type="normal|error" error="...">
ValuePtr cvexit_handler(Run& run, const ParsedTag& tag) {
  const std::string* type = tag_option(tag, "type");
  if (!type || equals_nocase(*type, "normal")) {
    run.stop = true;
  } else if (equals_nocase(*type, "error")) {
    const std::string* text = tag_option(tag, "error");
    if (text && current_context(run)->output_mode != OUTPUT_OFF) body_append(run, *text);
    run.stop = true;
  } else {
    report_error(run, tag, kExitBadType);
  }
  return value_new();
}

// <CVRESTART keepheader keepbody>: only the options' presence counts.  The
// main loop empties the buffers once this tag has been processed.
ValuePtr cvrestart_handler(Run& run, const ParsedTag& tag) {
  if (!tag_option(tag, "keepheader")) run.header_discard = true;
  if (!tag_option(tag, "keepbody")) run.body_discard = true;
  return value_new();
}
