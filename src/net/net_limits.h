// Bounds on what the network clients read from a server and on how long one
// CVWEB operation may take.  Defaults are far above what a normal page meets;
// the administrator overrides them through CVML_NET_* environment variables.
#pragma once

#include <cstddef>
#include <string>

struct NetLimits {
  int deadline_seconds = 60;             // CVML_NET_DEADLINE: one whole CVWEB operation
  int timeout_seconds = 30;              // CVML_NET_TIMEOUT: one wait for the server
  size_t status_line_max = 8192;         // CVML_NET_STATUS_LINE_MAX: HTTP status line
  size_t header_line_max = 65536;        // CVML_NET_HEADER_LINE_MAX: one HTTP header line
  size_t header_count_max = 1000;        // CVML_NET_HEADER_COUNT_MAX: HTTP header and trailer lines
  size_t body_max = 64u * 1024 * 1024;   // CVML_NET_BODY_MAX: body, message, file or listing
  size_t line_max = 65536;               // CVML_NET_LINE_MAX: reply, message or listing line
};

// The defaults with every CVML_NET_* variable that holds a positive whole
// number applied; other values are ignored.
NetLimits net_limits_from_environment();

// The limits in force for the run: read from the environment on first use
// unless net_set_limits gave others.
const NetLimits& net_limits();
void net_set_limits(const NetLimits& limits);

// "Error:  <what> exceeded the limit of <n> <unit> (<variable>).\n"
std::string net_limit_text(const char* what, size_t limit, const char* unit, const char* variable);
