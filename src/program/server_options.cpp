// The FastCGI server's flags.
#include "program/server_options.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <string_view>

const char kServerHelp[] =
    "FastCGI server (started by a web server with the listening socket as standard\n"
    "input, or with --listen):\n"
    "  --listen ADDRESS      listen on 127.0.0.1:9000, [::1]:9000, :9000 (every\n"
    "                        address) or unix:/run/cvml.sock\n"
    "  --workers N           worker processes; default: the number of cores (1 on a\n"
    "                        socket given as standard input)\n"
    "  --max-requests N      a worker is replaced after N requests; default never\n"
    "  --max-time SECONDS    wall time of one request (500ms, 2m also read);\n"
    "                        default 30, 0 for none\n"
    "  --max-memory SIZE     memory one request may hold (K, M or G may follow)\n"
    "  --page-cache SIZE     compiled pages kept by each worker; default 32M\n"
    "  --reports log|page    error reports, statistics and dumps go to the error\n"
    "                        log, the visitor seeing a short notice (log, the\n"
    "                        default), or after the page as in CGI mode (page)\n"
    "SIGTERM or SIGINT stops the server once the requests in progress are answered;\n"
    "SIGHUP replaces every worker with a fresh one the same way.\n";

namespace {

struct Flag {
  const char* name;
  bool (*apply)(const std::string& value, ServerOptions* o, std::string* err);
};

bool whole_number(const std::string& text, uint64_t* n) {
  if (text.empty() || text.size() > 18) return false;
  uint64_t v = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
    v = v * 10 + static_cast<uint64_t>(c - '0');
  }
  *n = v;
  return true;
}

bool set_listen(const std::string& v, ServerOptions* o, std::string* err) {
  if (v.empty()) {
    *err = "--listen needs an address such as 127.0.0.1:9000 or unix:/run/cvml.sock";
    return false;
  }
  o->listen = v;
  return true;
}

bool set_workers(const std::string& v, ServerOptions* o, std::string* err) {
  uint64_t n = 0;
  if (!whole_number(v, &n) || n < 1 || n > 1024) {
    *err = "--workers takes a number from 1 to 1024, not '" + v + "'";
    return false;
  }
  o->workers = static_cast<unsigned>(n);
  return true;
}

bool set_max_requests(const std::string& v, ServerOptions* o, std::string* err) {
  if (!whole_number(v, &o->max_requests)) {
    *err = "--max-requests takes a whole number (0 for no limit), not '" + v + "'";
    return false;
  }
  return true;
}

bool set_max_time(const std::string& v, ServerOptions* o, std::string* err) {
  if (!parse_duration(v, &o->max_time_ms)) {
    *err = "--max-time takes seconds (or 500ms, 2m; 0 for no limit), not '" + v + "'";
    return false;
  }
  return true;
}

bool set_max_memory(const std::string& v, ServerOptions* o, std::string* err) {
  if (!parse_byte_size(v, &o->max_memory) || o->max_memory == 0) {
    *err = "--max-memory takes a size such as 256M, not '" + v + "'";
    return false;
  }
  return true;
}

bool set_page_cache(const std::string& v, ServerOptions* o, std::string* err) {
  if (!parse_byte_size(v, &o->page_cache)) {
    *err = "--page-cache takes a size such as 32M (0 for none), not '" + v + "'";
    return false;
  }
  return true;
}

bool set_reports(const std::string& v, ServerOptions* o, std::string* err) {
  if (v == "log") {
    o->reports = ReportsTo::log;
  } else if (v == "page") {
    o->reports = ReportsTo::page;
  } else {
    *err = "--reports takes log or page, not '" + v + "'";
    return false;
  }
  return true;
}

constexpr Flag kFlags[] = {
    {"--listen", set_listen},         {"--workers", set_workers},       {"--max-requests", set_max_requests},
    {"--max-time", set_max_time},     {"--max-memory", set_max_memory}, {"--page-cache", set_page_cache},
    {"--reports", set_reports},
};

const Flag* find_flag(std::string_view name) {
  for (const Flag& f : kFlags) {
    if (name == f.name) return &f;
  }
  return nullptr;
}

std::string_view flag_name(std::string_view arg) { return arg.substr(0, arg.find('=')); }

}  // namespace

bool parse_duration(const std::string& text, uint64_t* ms) {
  std::string_view t = text;
  double scale = 1000;
  if (t.size() > 2 && t.substr(t.size() - 2) == "ms") {
    scale = 1;
    t.remove_suffix(2);
  } else if (!t.empty() && t.back() == 's') {
    t.remove_suffix(1);
  } else if (!t.empty() && t.back() == 'm') {
    scale = 60000;
    t.remove_suffix(1);
  }
  if (t.empty() || t.size() > 12) return false;
  for (char c : t) {
    if ((c < '0' || c > '9') && c != '.') return false;
  }
  std::string number(t);
  char* end = nullptr;
  double v = std::strtod(number.c_str(), &end);
  if (end != number.c_str() + number.size() || !std::isfinite(v)) return false;
  double total = std::round(v * scale);
  if (total > 86400.0 * 1000 * 365) return false;
  *ms = static_cast<uint64_t>(total);
  return true;
}

bool parse_byte_size(const std::string& text, uint64_t* bytes) {
  if (text.empty()) return false;
  std::string digits = text;
  int shift = 0;
  switch (digits.back()) {
    case 'k': case 'K': shift = 10; break;
    case 'm': case 'M': shift = 20; break;
    case 'g': case 'G': shift = 30; break;
    default: break;
  }
  if (shift) digits.pop_back();
  uint64_t n = 0;
  if (!whole_number(digits, &n) || n > (UINT64_MAX >> 1 >> shift)) return false;
  *bytes = n << shift;
  return true;
}

bool is_server_flag(const std::string& arg) { return find_flag(flag_name(arg)) != nullptr; }

bool parse_server_options(const std::vector<std::string>& args, ServerOptions* options, std::string* err) {
  for (size_t i = 0; i < args.size(); i++) {
    const std::string& arg = args[i];
    const Flag* flag = find_flag(flag_name(arg));
    if (!flag) {
      *err = arg.rfind("--", 0) == 0 ? "unknown option " + arg
                                      : "the server runs the pages its web server names, not '" + arg + "'";
      return false;
    }
    std::string value;
    size_t eq = arg.find('=');
    if (eq != std::string::npos) {
      value = arg.substr(eq + 1);
    } else if (i + 1 < args.size()) {
      value = args[++i];
    } else {
      *err = std::string(flag->name) + " needs a value";
      return false;
    }
    if (!flag->apply(value, options, err)) return false;
  }
  return true;
}
