// The persistent FastCGI server: workers that each answer one request at a
// time, every request in a run of its own, as a CGI process would.
//
// Started by a web server with the listening socket as standard input, or
// with --listen.  Each request's parameters become the run's environment
// and its streams the run's input and output; the page is found as in CGI
// mode.  The response is the CGI response with a "Status:" line where a
// redirect or a failed page needs one.
#pragma once

#include <string>

#include "program/server_options.h"

// Runs the server; returns the process's exit status.  `program` is the
// path the program was started by, `version` the version it prints.
int serve_fastcgi(const ServerOptions& options, const std::string& program, const std::string& version);
