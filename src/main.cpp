// cvml: runs one page per process, as a CGI program or from a shell, or
// serves pages over FastCGI.
//
// From a shell, flags come before the page: --help, --version and
// --check PAGE...; "--" ends them, so a page whose name begins with "--"
// still runs.  The FastCGI server's flags (--listen, --workers, ...) make
// the program a server.  Under a web server the arguments are never flags:
// a server may pass words of the query string as arguments.  A listening
// socket as standard input (the FastCGI convention) makes the program a
// FastCGI server whatever the environment says; its arguments are then
// the server's flags.
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "program/fastcgi_server.h"
#include "program/listen_socket.h"
#include "program/page_check.h"
#include "program/server_options.h"
#include "program/startup.h"

#ifndef CVML_VERSION
#define CVML_VERSION "unknown"
#endif

namespace {

const char kHelp[] =
    "Usage: cvml PAGE             run a page; the current directory is the web root\n"
    "       cvml --check PAGE...  check pages without running them\n"
    "       cvml --help           print this text\n"
    "       cvml --version        print the version\n"
    "       cvml -- PAGE          run a page whose name begins with \"--\"\n"
    "       cvml --listen ADDRESS [FLAG...]  serve pages over FastCGI (below)\n"
    "\n"
    "Run by a web server as a CGI program, cvml runs the page the server names\n"
    "(SCRIPT_FILENAME, or PATH_TRANSLATED when SCRIPT_FILENAME names cvml itself)\n"
    "and reads no flags (GATEWAY_INTERFACE set, or DOCUMENT_ROOT with a request).\n"
    "\n"
    "--check prints one \"file:line: message\" line for each problem found:\n"
    "blocks left open or closed out of order, unknown tags and options, missing\n"
    "options, option words and arithmetic that cannot work, include files that\n"
    "do not exist.  It exits with status 1 when it found something, else 0.\n"
    "\n"
    "Environment:\n"
    "  CVML_MAX_MEMORY  memory one request may hold, in bytes (K, M or G may\n"
    "                   follow; 0 for no bound); default 128M\n"
    "  CVML_MAX_OUTPUT  largest page body, likewise; default 256M\n"
    "  CVML_MAX_PAGE    largest page or included file, likewise; default 16M\n"
    "  CVML_MAX_UPLOAD  largest POST body read, likewise; default 32M\n"
    "  CVML_REPORTS     \"log\" sends reports to standard error (the server's error\n"
    "                   log) and shows the visitor a short notice\n"
    "  CVML_UPLOAD_DIR  directory for the temporary copies of uploaded files;\n"
    "                   default TMPDIR, else /tmp\n"
    "  DOCUMENT_ROOT    the web root; set, it makes the run a CGI request (--check\n"
    "                   looks for includes starting with / under it)\n"
    "\n"
    "%SERVER%"
    "\n"
    "See cvml(1).\n";

// A web server sets GATEWAY_INTERFACE, and always a request method; a shell
// that only sets DOCUMENT_ROOT (for --check) is not a server.
bool run_by_server() {
  const char* root = std::getenv("DOCUMENT_ROOT");
  return std::getenv("GATEWAY_INTERFACE") || (root && *root && std::getenv("REQUEST_METHOD"));
}

void print(std::FILE* to, std::string_view text) {
  std::fwrite(text.data(), 1, text.size(), to);
  std::fflush(to);
}

int serve(int argc, char** argv) {
  ServerOptions options;
  std::string err;
  if (!parse_server_options(std::vector<std::string>(argv + 1, argv + argc), &options, &err)) {
    print(stderr, "cvml: " + err + " (cvml --help lists the server's flags)\n");
    return 2;
  }
  return serve_fastcgi(options, argv[0], CVML_VERSION);
}

}  // namespace

int main(int argc, char** argv, char** envp) {
  if (listening_socket_on_stdin()) return serve(argc, argv);
  if (argc < 2 || run_by_server()) return cvml_main(argc, argv, envp);
  std::string_view first = argv[1];
  if (first == "--help") {
    std::string help = kHelp;
    help.replace(help.find("%SERVER%"), 8, kServerHelp);
    print(stdout, help);
    return 0;
  }
  if (is_server_flag(argv[1])) {
    ServerOptions options;
    std::string err;
    std::vector<std::string> args(argv + 1, argv + argc);
    if (parse_server_options(args, &options, &err) && options.listen.empty()) {
      print(stderr, "cvml: the server needs --listen ADDRESS (or a listening socket as standard input)\n");
      return 2;
    }
    return serve(argc, argv);
  }
  if (first == "--version") {
    print(stdout, "cvml " CVML_VERSION "\n");
    return 0;
  }
  if (first == "--check") {
    if (argc < 3) {
      print(stderr, "cvml: --check needs at least one page\n");
      return 2;
    }
    std::vector<std::string> pages(argv + 2, argv + argc);
    return check_pages(pages) > 0 ? 1 : 0;
  }
  if (first == "--") {
    // The page follows; the "--" itself is not one of the page's arguments.
    std::vector<char*> rest{argv[0]};
    rest.insert(rest.end(), argv + 2, argv + argc);
    rest.push_back(nullptr);
    return cvml_main(argc - 1, rest.data(), envp);
  }
  if (first.size() > 2 && first.substr(0, 2) == "--") {
    print(stderr, "cvml: unknown option " + std::string(first) +
                      " (cvml --help lists the options; cvml -- " + std::string(first) +
                      " runs a page of that name)\n");
    return 2;
  }
  return cvml_main(argc, argv, envp);
}
