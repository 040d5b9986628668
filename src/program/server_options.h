// The FastCGI server's flags: where it listens, its workers, and the
// bounds of each request.  They come before anything else on the command
// line, as every flag of the program does.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

enum class ReportsTo : uint8_t { log, page };

struct ServerOptions {
  // "127.0.0.1:9000", "[::1]:9000", ":9000" (every address) or
  // "unix:/run/cvml.sock"; empty: the listening socket the web server
  // gave as standard input.
  std::string listen;
  unsigned workers = 0;            // 0: the number of cores (1 on standard input)
  uint64_t max_requests = 0;       // a worker retires after this many; 0 never
  uint64_t max_time_ms = 30000;    // wall time of one request; 0 no bound
  uint64_t max_memory = 0;         // memory budget of one request; 0 the run's default
  uint64_t page_cache = 32 << 20;  // compiled pages kept per worker, bytes; 0 none
  ReportsTo reports = ReportsTo::log;
};

// True for an argument that is one of the server's flags ("--listen",
// "--workers=4", ...), which makes the program a server.
bool is_server_flag(const std::string& arg);
// Reads the server's flags, `args` being the arguments after the program's
// name.  Every argument must be a flag (the server runs no page of its
// own).  False with a one-line reason in `err` for anything else.
bool parse_server_options(const std::vector<std::string>& args, ServerOptions* options, std::string* err);

// "30", "2.5", "500ms", "1m": a duration as the flags take it, in
// milliseconds.  False for anything else.
bool parse_duration(const std::string& text, uint64_t* ms);
// "512", "64K", "128M", "1G": a size in bytes (powers of 1024).
bool parse_byte_size(const std::string& text, uint64_t* bytes);

// The lines of `cvml --help` that describe the server.
extern const char kServerHelp[];
