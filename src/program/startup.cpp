// Program entry: mode decision, page location, start-up order, clean-up.
#include "program/startup.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "db/cvquery.h"
#include "runtime/run.h"
#include "runtime/output.h"
#include "runtime/report.h"
#include "runtime/run.h"
#include "runtime/output.h"
#include "runtime/report.h"
#include "runtime/uploads.h"
#include "functions/cvfile.h"
#include "net/cvweb.h"
#include "values/decimal.h"

namespace {

const char kPlainHeader[] = "Content-Type: text/plain\n\n";

// Survives engine_reset(), which clears the engine's own copy.
uint32_t tag_limit_for_runs = 0;

bool fail_start(const std::string& message) {
  write_stdout(std::string(kPlainHeader) + message);
  return false;
}

std::string slashes_forward(std::string_view path) {
  std::string out(path);
  for (char& c : out) {
    if (c == '\\') c = '/';
  }
  return out;
}

void drop_trailing_slash(std::string& path) {
  if (!path.empty() && path.back() == '/') path.pop_back();
}

std::string env_or_empty(const char* name) {
  const char* v = std::getenv(name);
  return v ? v : "";
}

bool starts_with_nocase(std::string_view text, std::string_view prefix) {
  if (text.size() < prefix.size()) return false;
  for (size_t i = 0; i < prefix.size(); ++i) {
    if (std::toupper(static_cast<unsigned char>(text[i])) != std::toupper(static_cast<unsigned char>(prefix[i])))
      return false;
  }
  return true;
}

// True when `path` is this program's own file: a server that runs the
// program as an action handler (or through fcgiwrap) names the program in
// SCRIPT_FILENAME and the page in PATH_TRANSLATED.
bool names_this_program(const char* path) {
  struct stat named, self;
  if (::stat(path, &named) != 0) return false;
  bool known = ::stat("/proc/self/exe", &self) == 0;
  if (!known && !engine.argv.empty() && engine.argv[0].find('/') != std::string::npos)
    known = ::stat(engine.argv[0].c_str(), &self) == 0;
  return known && named.st_dev == self.st_dev && named.st_ino == self.st_ino;
}

bool command_line_setup() {
  Settings& s = engine.settings;
  if (engine.argv.size() < 2) return fail_start("Syntax:  CVML[.EXE] FilenameToParse\n");
  std::string arg = slashes_forward(engine.argv[1]);
  std::string dir = directory_part(arg);
  if (!dir.empty() && dir[0] != '/' && dir.size() > 1 && dir[1] == ':') dir.erase(0, 2);
  bool absolute = !dir.empty() && dir[0] == '/';
  if (!absolute) dir.insert(0, "/");
  s.page_file = file_part(arg);
  if (s.page_file.empty()) s.page_file = "index.cvm";

  char cwd[PATH_MAX];
  if (!::getcwd(cwd, sizeof cwd))
    return fail_start("An error occurred while obtaining the current working directory.\n");
  s.doc_root = slashes_forward(cwd);
  drop_trailing_slash(s.doc_root);

  // No drives here: the web root is what stands before the first "/" (an
  // empty text) and page directories are absolute.  A relative page is
  // found from the working directory; an absolute one stays where it is.
  size_t first = s.doc_root.find('/');
  if (first != std::string::npos) {
    std::string base = absolute ? "/" : s.doc_root.substr(first);
    if (!resolve_path(base, std::string_view(dir).substr(1), &s.page_dir))
      return fail_start("Unable to translate the path information.\n");
    s.doc_root.erase(first);
  } else {
    s.page_dir = dir;
  }
  if (s.page_dir.empty() || s.page_dir.back() != '/') s.page_dir += '/';
  s.cgi_mode = false;
  return true;
}

bool web_server_setup() {
  Settings& s = engine.settings;
  s.doc_root = slashes_forward(env_or_empty("DOCUMENT_ROOT"));
  drop_trailing_slash(s.doc_root);
  if (::chdir(s.doc_root.empty() ? "/" : s.doc_root.c_str()) != 0)
    return fail_start("Unable to change directories to DOCUMENT_ROOT.  DOCUMENT_ROOT = " + s.doc_root + ".\n");
  // A server that maps the page to this program as its handler names the
  // page in SCRIPT_FILENAME; then extra path information in the URL (which
  // becomes PATH_TRANSLATED) never chooses the page.
  const char* script = std::getenv("SCRIPT_FILENAME");
  const char* translated =
      script && *script && !names_this_program(script) ? script : std::getenv("PATH_TRANSLATED");
  if (!translated)
    return fail_start("Server doesn't support proper CGI execution.  Expected PATH_TRANSLATED environment "
                      "variable to contain file information.\n");
  std::string path = slashes_forward(translated);
  if (!starts_with_nocase(path, s.doc_root))
    return fail_start("Expecting PATH_TRANSLATED to contain DOCUMENT_ROOT.  DOCUMENT_ROOT = " + s.doc_root +
                      ", PATH_TRANSLATED = " + path + ".\n");
  std::string rest = path.substr(s.doc_root.size());
  s.page_dir = directory_part(rest);
  if (s.page_dir.empty() || s.page_dir[0] != '/') s.page_dir.insert(0, "/");
  if (s.page_dir.back() != '/') s.page_dir += '/';
  s.page_file = file_part(rest);
  if (s.page_file.empty()) s.page_file = "index.cvm";
  s.cgi_mode = true;
  return true;
}

}  // namespace

// ---------------------------------------------------------------------------
// Path helpers

std::string directory_part(std::string_view path) {
  size_t slash = path.rfind('/');
  return slash == std::string_view::npos ? std::string() : std::string(path.substr(0, slash + 1));
}

std::string file_part(std::string_view path) {
  size_t slash = path.rfind('/');
  return std::string(slash == std::string_view::npos ? path : path.substr(slash + 1));
}

bool resolve_path(std::string_view base, std::string_view relative, std::string* result) {
  std::vector<std::string_view> parts;
  auto walk = [&parts](std::string_view path) {
    size_t begin = 0;
    while (begin <= path.size()) {
      size_t slash = path.find('/', begin);
      if (slash == std::string_view::npos) slash = path.size();
      std::string_view part = path.substr(begin, slash - begin);
      if (part == "..") {
        if (parts.empty()) return false;
        parts.pop_back();
      } else if (!part.empty() && part != ".") {
        parts.push_back(part);
      }
      begin = slash + 1;
    }
    return true;
  };
  if (!walk(base) || !walk(relative)) return false;
  std::string out = "/";
  for (std::string_view part : parts) {
    out += part;
    out += '/';
  }
  *result = std::move(out);
  return true;
}

// ---------------------------------------------------------------------------
// Start-up

bool cgi_setup() {
  const char* root = std::getenv("DOCUMENT_ROOT");
  return root && *root ? web_server_setup() : command_line_setup();
}

void config_setup(std::string_view program_path) {
  Settings& s = engine.settings;
  std::string path = slashes_forward(program_path);
  size_t slash = path.rfind('/');
  // A program started through PATH carries no directory: the current one.
  s.program_dir = slash == std::string::npos ? "./" : path.substr(0, slash + 1);
  s.config_path = s.program_dir + "cvml.cfg";
}

void defaults_setup() {
  Settings& s = engine.settings;
  s.content_type = "text/html";
  s.header_page = "header.cvm";
  s.footer_page = "footer.cvm";
  s.default_output_mode = OUTPUT_NORMAL;
  s.default_debug = DEBUG_ON;
  decimal_mode = 0;
  engine.stop = engine.flush_requested = engine.header_discard = engine.body_discard = false;
  engine.abandon = false;
  engine.tags_processed = 0;
}

bool engine_init() {
  defaults_setup();
  decimal_engine_start();
  if (!tag_table_init()) return false;
  request_variables();
  engine.header = dyn_new();
  engine.body = dyn_new();
  engine.sql_stats = dyn_new();
  engine.stats = dyn_new();
  if (!engine.errors) engine.errors = dyn_new();  // the request may have warned already
  return engine.header && engine.body && engine.sql_stats && engine.stats && engine.errors;
}

void set_tag_limit_for_runs(uint32_t limit) { tag_limit_for_runs = limit; }

int cvml_main(int argc, char** argv, char** envp) {
  engine_reset();
  const char* general = std::getenv("CVML_GENERAL_PATH");
  general_path_only = general && std::string_view(general) == "1";
  arithmetic_shortcuts = !general_path_only;
  engine.tag_limit = tag_limit_for_runs;
  for (int i = 0; i < argc; ++i) engine.argv.emplace_back(argv[i]);
  for (char** e = envp; e && *e; ++e) engine.envp.emplace_back(*e);

  if (!cgi_setup()) return 0;
  config_setup(argc > 0 ? argv[0] : "");
  if (!engine_init()) {
    fail_start("Error:  Error initializing Corvane...aborting.\n");
    remove_uploads();
    return 0;
  }

  const Settings& s = engine.settings;
  context_push();
  PageContext* ctx = current_context();
  ctx->directory = s.page_dir;
  ctx->file_name = s.page_file;
  ctx->full_path = s.doc_root + s.page_dir + s.page_file;
  PagePtr page = load_page(ctx->full_path);
  if (!page) {
    report_diagnostic("Error opening " + ctx->full_path + " for processing.\n");
    page = std::make_shared<Page>();
  }
  install_page(ctx, std::move(page));

  run_pages();
  send_page();
  cvfile_close_all();
  database_shutdown();
  decimal_engine_stop();
  cvweb_close_all();
  remove_uploads();
  return 0;
}
