// Program entry: mode decision, page location, start-up order, clean-up.
#include "program/startup.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <new>

#include "runtime/budget.h"
#include "runtime/output.h"
#include "runtime/report.h"
#include "runtime/report_log.h"
#include "runtime/request.h"
#include "runtime/run.h"
#include "values/decimal.h"

namespace {

const char kPlainHeader[] = "Content-Type: text/plain\n\n";

// Given to every run (harnesses that must end pages that loop for ever).
uint32_t tag_limit_for_runs = 0;
// The budget of every run: CVML_MAX_* for CGI, the server's flags for FastCGI.
RunLimits limits_for_runs = limits_from_environment();

bool fail_start(Run& run, const std::string& message) {
  // A FastCGI server is told that the request failed.
  std::string status = run.io.status_lines ? "Status: 500 Internal Server Error\n" : "";
  write_response(run, status + kPlainHeader + message);
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

std::string env_or_empty(const Run& run, const char* name) {
  const char* v = run_env(run, name);
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
bool names_this_program(Run& run, const char* path) {
  struct stat named;
  if (::stat(path, &named) != 0) return false;
  // The program's own file does not change while it runs: looked up once.
  static struct stat self;
  static bool known = ::stat("/proc/self/exe", &self) == 0;
  if (!known && !run.argv.empty() && run.argv[0].find('/') != std::string::npos)
    known = ::stat(run.argv[0].c_str(), &self) == 0;
  return known && named.st_dev == self.st_dev && named.st_ino == self.st_ino;
}

bool command_line_setup(Run& run) {
  Settings& s = run.settings;
  if (run.argv.size() < 2) return fail_start(run, "Syntax:  CVML[.EXE] FilenameToParse\n");
  std::string arg = slashes_forward(run.argv[1]);
  std::string dir = directory_part(arg);
  if (!dir.empty() && dir[0] != '/' && dir.size() > 1 && dir[1] == ':') dir.erase(0, 2);
  bool absolute = !dir.empty() && dir[0] == '/';
  if (!absolute) dir.insert(0, "/");
  s.page_file = file_part(arg);
  if (s.page_file.empty()) s.page_file = "index.cvm";

  char cwd[PATH_MAX];
  if (!::getcwd(cwd, sizeof cwd))
    return fail_start(run, "An error occurred while obtaining the current working directory.\n");
  s.doc_root = slashes_forward(cwd);
  drop_trailing_slash(s.doc_root);

  // No drives here: the web root is what stands before the first "/" (an
  // empty text) and page directories are absolute.  A relative page is
  // found from the working directory; an absolute one stays where it is.
  size_t first = s.doc_root.find('/');
  if (first != std::string::npos) {
    std::string base = absolute ? "/" : s.doc_root.substr(first);
    if (!resolve_path(base, std::string_view(dir).substr(1), &s.page_dir))
      return fail_start(run, "Unable to translate the path information.\n");
    s.doc_root.erase(first);
  } else {
    s.page_dir = dir;
  }
  if (s.page_dir.empty() || s.page_dir.back() != '/') s.page_dir += '/';
  s.cgi_mode = false;
  return true;
}

bool web_server_setup(Run& run) {
  Settings& s = run.settings;
  s.doc_root = slashes_forward(env_or_empty(run, "DOCUMENT_ROOT"));
  drop_trailing_slash(s.doc_root);
  if (::chdir(s.doc_root.empty() ? "/" : s.doc_root.c_str()) != 0)
    return fail_start(run, "Unable to change directories to DOCUMENT_ROOT.  DOCUMENT_ROOT = " + s.doc_root + ".\n");
  // A server that maps the page to this program as its handler names the
  // page in SCRIPT_FILENAME; then extra path information in the URL (which
  // becomes PATH_TRANSLATED) never chooses the page.
  const char* script = run_env(run, "SCRIPT_FILENAME");
  const char* translated =
      script && *script && !names_this_program(run, script) ? script : run_env(run, "PATH_TRANSLATED");
  if (!translated)
    return fail_start(run, "Server doesn't support proper CGI execution.  Expected PATH_TRANSLATED environment "
                      "variable to contain file information.\n");
  std::string path = slashes_forward(translated);
  if (!starts_with_nocase(path, s.doc_root))
    return fail_start(run, "Expecting PATH_TRANSLATED to contain DOCUMENT_ROOT.  DOCUMENT_ROOT = " + s.doc_root +
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

// ---------------------------------------------------------------------------
// Start-up

bool cgi_setup(Run& run) {
  const char* root = run_env(run, "DOCUMENT_ROOT");
  return root && *root ? web_server_setup(run) : command_line_setup(run);
}

void config_setup(Run& run, std::string_view program_path) {
  Settings& s = run.settings;
  std::string path = slashes_forward(program_path);
  size_t slash = path.rfind('/');
  // A program started through PATH carries no directory: the current one.
  s.program_dir = slash == std::string::npos ? "./" : path.substr(0, slash + 1);
  s.config_path = s.program_dir + "cvml.cfg";
}

void defaults_setup(Run& run) {
  Settings& s = run.settings;
  s.content_type = "text/html";
  s.header_page = "header.cvm";
  s.footer_page = "footer.cvm";
  s.default_output_mode = OUTPUT_NORMAL;
  s.default_debug = DEBUG_ON;
  run.stop = run.flush_requested = run.header_discard = run.body_discard = false;
  run.abandon = false;
  run.tags_processed = 0;
}

bool engine_init(Run& run) {
  defaults_setup(run);
  if (!tag_table_init(run)) return false;
  request_variables(run);
  run.header = dyn_new();
  run.body = dyn_new();
  run.sql_stats = dyn_new();
  run.stats = dyn_new();
  if (!run.errors) run.errors = dyn_new();  // the request may have warned already
  return run.header && run.body && run.sql_stats && run.stats && run.errors;
}

void set_tag_limit_for_runs(uint32_t limit) { tag_limit_for_runs = limit; }
void set_limits_for_runs(const RunLimits& limits) { limits_for_runs = limits; }
const RunLimits& run_limits_in_force() { return limits_for_runs; }

void configure_program() {
  const char* general = std::getenv("CVML_GENERAL_PATH");
  general_path_only = general && std::string_view(general) == "1";
  arithmetic_shortcuts = !general_path_only;
  limits_for_runs = limits_from_environment();
  set_report_mode(report_mode_from_environment());
}

void run_request(std::vector<std::string> argv, std::vector<std::string> env, const RequestIO& io) {
  Run run;
  run.io = io;
  run.tag_limit = tag_limit_for_runs;
  run.limits = limits_for_runs;
  run.start_ms = now_ms();
  run.argv = std::move(argv);
  run.env = std::move(env);
  // The run's decimal mode and precision are the ones in force while it runs.
  struct NumbersInForce {
    explicit NumbersInForce(NumberMode* mode) { set_number_mode(mode); }
    ~NumbersInForce() { set_number_mode(nullptr); }
  } numbers_in_force(&run.numbers);
  // What the run allocates counts against its memory budget until here
  // again; an allocation past it, or one the system refuses, ends the run's
  // work with std::bad_alloc, and the page so far is still sent.
  RunMemoryScope memory_in_force(run);
  try {
    if (!cgi_setup(run)) return;
    config_setup(run, run.argv.empty() ? "" : run.argv[0]);
    if (!engine_init(run)) {
      fail_start(run, "Error:  Error initializing Corvane...aborting.\n");
      return;
    }

    const Settings& s = run.settings;
    context_push(run);
    PageContext* ctx = current_context(run);
    ctx->directory = s.page_dir;
    ctx->file_name = s.page_file;
    ctx->full_path = s.doc_root + s.page_dir + s.page_file;
    PagePtr page;
    if (uint64_t size = page_file_too_large(run, ctx->full_path)) {
      std::string what = "The page " + ctx->full_path;
      report_diagnostic(run, "Error:  " + page_limit_message(what, size, run.limits.page_bytes) + "\n");
    } else if (!(page = load_page(ctx->full_path))) {
      report_diagnostic(run, "Error opening " + ctx->full_path + " for processing.\n");
    }
    if (!page) {
      run.failed = true;
      page = std::make_shared<Page>();
    }
    install_page(run, ctx, std::move(page));

    run_pages(run);
  } catch (const std::bad_alloc&) {
    report_memory_failure(run);
  }
  // The page's work is done: sending what it made may take a copy of the
  // reports, and that is never refused.
  run.memory.limit = 0;
  try {
    send_page(run);
  } catch (const std::bad_alloc&) {
    // The system has no memory left even for the response.
  }
  // Open files, connections, database connections and uploaded copies are
  // let go with the run.
}

namespace {

size_t read_stdin(void*, char* buffer, size_t size) {
  for (;;) {
    ssize_t n = ::read(STDIN_FILENO, buffer, size);
    if (n >= 0) return static_cast<size_t>(n);
    if (errno != EINTR) return 0;
  }
}

bool write_stdout(void*, std::string_view bytes) {
  // Written straight to the descriptor: the bytes go out exactly as they
  // are, with no translation and no buffering left behind at exit.
  while (!bytes.empty()) {
    ssize_t n = ::write(STDOUT_FILENO, bytes.data(), bytes.size());
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;  // the client has gone; nothing more can be delivered
    }
    bytes.remove_prefix(static_cast<size_t>(n));
  }
  return true;
}

}  // namespace

int cvml_main(int argc, char** argv, char** envp) {
  configure_program();
  std::vector<std::string> args, env;
  for (int i = 0; i < argc; ++i) args.emplace_back(argv[i]);
  for (char** e = envp; e && *e; ++e) env.emplace_back(*e);
  RequestIO io;
  io.read = read_stdin;
  io.write = write_stdout;
  run_request(std::move(args), std::move(env), io);
  return 0;
}
