// The server's own address for redirects, from the CGI environment.
#include "runtime/server_address.h"

#include "runtime/run.h"

#include <cctype>
#include <cstdlib>
#include <string>

namespace {

bool all_digits(std::string_view text) {
  if (text.empty() || text.size() > 5) return false;
  for (char c : text) {
    if (!std::isdigit(static_cast<unsigned char>(c))) return false;
  }
  return true;
}

bool is_name_byte(char c) {
  return std::isalnum(static_cast<unsigned char>(c)) || c == '-' || c == '.' || c == '_';
}

std::string_view env_view(const Run& run, const char* name) {
  const char* v = run_env(run, name);
  return v ? std::string_view(v) : std::string_view();
}

// A bare IPv6 literal ("::1") as some servers give it in SERVER_NAME.
bool is_bare_ipv6(std::string_view text) {
  if (text.find(':') == text.rfind(':')) return false;  // at most one ":"
  for (char c : text) {
    if (!std::isxdigit(static_cast<unsigned char>(c)) && c != ':' && c != '.') return false;
  }
  return true;
}

}  // namespace

bool is_host_and_port(std::string_view text) {
  std::string_view host = text, port;
  if (!text.empty() && text[0] == '[') {
    size_t close = text.find(']');
    if (close == std::string_view::npos || close < 2) return false;
    for (char c : text.substr(1, close - 1)) {
      if (!std::isxdigit(static_cast<unsigned char>(c)) && c != ':' && c != '.') return false;
    }
    std::string_view rest = text.substr(close + 1);
    if (rest.empty()) return true;
    return rest[0] == ':' && all_digits(rest.substr(1));
  }
  size_t colon = text.find(':');
  if (colon != std::string_view::npos) {
    host = text.substr(0, colon);
    port = text.substr(colon + 1);
    if (!all_digits(port)) return false;
  }
  if (host.empty() || host.size() > 253) return false;
  for (char c : host) {
    if (!is_name_byte(c)) return false;
  }
  return true;
}

std::string server_base_url(Run& run) {
  std::string_view https = env_view(run, "HTTPS");
  bool secure = https.size() == 2 && std::tolower(static_cast<unsigned char>(https[0])) == 'o' &&
                std::tolower(static_cast<unsigned char>(https[1])) == 'n';
  std::string host;
  for (const char* name : {"SERVER_NAME", "HTTP_HOST"}) {
    std::string_view candidate = env_view(run, name);
    if (is_bare_ipv6(candidate)) {
      host = "[" + std::string(candidate) + "]";
      break;
    }
    if (is_host_and_port(candidate)) {
      host = candidate;
      break;
    }
  }
  if (host.empty()) host = "localhost";
  // The host carries a port when a ":" follows its name or its "]".
  size_t bracket = host.rfind(']');
  bool has_port = host.find(':', bracket == std::string::npos ? 0 : bracket) != std::string::npos;
  std::string_view port_text = env_view(run, "SERVER_PORT");
  long port = all_digits(port_text) ? std::strtol(std::string(port_text).c_str(), nullptr, 10) : 0;
  if (!has_port && port > 0 && port <= 65535 && port != (secure ? 443 : 80)) {
    host += ':';
    host += std::to_string(port);
  }
  return (secure ? "https://" : "http://") + host;
}
