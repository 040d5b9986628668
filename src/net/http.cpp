// HTTP client: request building, response reading (sized, to-close and
// chunked bodies) and URL splitting.
#include "net/http.h"

#include <sys/socket.h>

#include "base/regex.h"
#include "base/nocase.h"

namespace {

constexpr std::string_view kUrlPattern =
    "^(http):\\/\\/((?:\\w+\\.)*\\w+)(?::(\\d*))?(?:\\/((?:[^\\?\\/]+\\/)*)?([^\\?\\/]+)?(?:\\?(.*))?)?$";

bool starts_nocase(std::string_view line, std::string_view prefix) {
  return line.size() >= prefix.size() && equals_nocase(line.substr(0, prefix.size()), prefix);
}

// The chunk size of a size line: the text after its last CR, read as
// hexadecimal up to the first other character.  Sizes past 2^48 are
// clamped; no server can deliver them and the read then fails on close.
uint64_t chunk_size(std::string_view line) {
  size_t cr = line.rfind('\r');
  if (cr != std::string_view::npos) line.remove_prefix(cr + 1);
  uint64_t size = 0;
  for (char c : line) {
    int digit;
    if (c >= '0' && c <= '9') digit = c - '0';
    else if (c >= 'a' && c <= 'f') digit = c - 'a' + 10;
    else if (c >= 'A' && c <= 'F') digit = c - 'A' + 10;
    else break;
    size = size * 16 + static_cast<uint64_t>(digit);
    if (size > (uint64_t{1} << 48)) return uint64_t{1} << 48;
  }
  return size;
}

bool read_chunked_body(NetConn& conn, HttpState& state) {
  std::string line;
  if (!net_read_line(conn, line)) return false;
  for (uint64_t size = chunk_size(line); size != 0; size = chunk_size(line)) {
    while (net_unread(conn).size() < size) {
      if (net_fill(conn) == 0) return false;
    }
    state.body.append(net_unread(conn).substr(0, size));
    net_consume(conn, size);
    // The CR LF after the chunk's data.
    for (;;) {
      std::string_view rest = net_unread(conn);
      size_t skip = 0;
      while (skip < rest.size() && (rest[skip] == '\r' || rest[skip] == '\n')) ++skip;
      net_consume(conn, skip);
      if (skip < rest.size()) break;
      if (net_fill(conn) == 0) return false;
    }
    if (!net_read_line(conn, line)) return false;
  }
  // Trailer lines up to the first empty one.
  while (net_read_line(conn, line) && !line.empty()) {
    state.headers += line;
    state.headers += '\n';
  }
  return true;
}

}  // namespace

bool http_parse_url(std::string_view url, HttpUrl& out) {
  std::vector<RegexCapture> groups;
  if (regex_match(kUrlPattern, url, &groups) != REGEX_MATCH) return false;
  std::string* parts[] = {&out.scheme, &out.host, &out.port, &out.path, &out.file, &out.query};
  for (size_t i = 0; i < 6; ++i) {
    parts[i]->clear();
    if (i + 1 < groups.size() && groups[i + 1].capturing) {
      *parts[i] = std::string(url.substr(groups[i + 1].start, groups[i + 1].end - groups[i + 1].start));
    }
  }
  return true;
}

HttpState* http_attach(NetConn& conn) { return net_attach_state<HttpState>(conn, NET_HTTP); }

HttpState* http_state(NetConn& conn) { return net_get_state<HttpState>(conn, NET_HTTP); }

void http_set_host(NetConn& conn, std::string_view host, int port) {
  if (HttpState* state = http_state(conn)) {
    state->host = host;
    conn.port = port;
  }
}

void http_set_path(NetConn& conn, std::string_view path, std::string_view file) {
  if (HttpState* state = http_state(conn)) {
    state->path = path;
    state->file = file;
  }
}

void http_set_proxy(NetConn& conn, std::string_view host, int port) {
  if (HttpState* state = http_state(conn)) {
    state->proxy_host = host;
    state->proxy_port = port;
  }
}

void http_set_proxy_auth(NetConn& conn, std::string_view scheme, std::string_view user, std::string_view password) {
  if (HttpState* state = http_state(conn)) {
    state->proxy_auth_scheme = scheme;
    state->proxy_auth_value = net_auth_value(user, password, scheme);
  }
}

void http_set_auth(NetConn& conn, std::string_view scheme, std::string_view user, std::string_view password) {
  if (HttpState* state = http_state(conn)) {
    state->auth_scheme = scheme;
    state->auth_value = net_auth_value(user, password, scheme);
  }
}

bool http_connect(std::string& err, NetConn& conn) {
  HttpState* state = http_state(conn);
  if (!state || state->host.empty()) return false;
  if (!state->proxy_host.empty()) return net_connect(err, conn, state->proxy_host, state->proxy_port);
  return net_connect(err, conn, state->host, conn.port);
}

void http_disconnect(NetConn& conn) { net_close(conn); }

std::string http_build_request(const HttpState& state, int port) {
  bool post = state.method == HTTP_POST && !state.post_data.empty();
  std::string out = post ? "POST " : state.method == HTTP_HEAD ? "HEAD " : "GET ";
  if (!state.proxy_host.empty()) {
    out += "http://" + state.host + ":" + std::to_string(port);
  }
  out += state.path.empty() ? "/" : state.path;
  out += state.file;
  if (!state.query.empty()) out += "?" + state.query;
  // Without a version the request is sent as HTTP/1.1.
  out += " HTTP/" + (state.version.empty() ? std::string("1.1") : state.version) + "\n";
  if (!state.proxy_auth_value.empty()) {
    out += "Proxy-Authorization: " + state.proxy_auth_scheme + " " + state.proxy_auth_value + "\n";
  }
  if (!state.auth_value.empty()) {
    out += "Authorization: " + state.auth_scheme + " " + state.auth_value + "\n";
  }
  out += "Host: " + state.host + "\n";
  out += "Connection: keep-alive\n";
  for (const std::string& line : state.extra_headers) out += line + "\n";
  if (post) {
    out += "Content-type: application/x-www-form-urlencoded\n";
    out += "Content-length: " + std::to_string(state.post_data.size()) + "\n\n";
    out += state.post_data;
  } else {
    out += "\n";
  }
  return out;
}

bool http_read_response(NetConn& conn, HttpState& state, bool head_only) {
  state.status_line.clear();
  state.headers.clear();
  state.body.clear();
  std::string line;
  if (!net_read_line(conn, line)) return false;
  state.status_line = line;
  bool sized = false, to_close = false, chunked = false;
  uint64_t expected = 0;
  for (;;) {
    if (!net_read_line(conn, line)) return false;
    if (line.empty()) break;
    if (!sized && starts_nocase(line, "Content-length: ")) {
      sized = true;
      expected = 0;
      for (size_t i = 16; i < line.size() && line[i] >= '0' && line[i] <= '9' && expected < (uint64_t{1} << 48); ++i) {
        expected = expected * 10 + static_cast<uint64_t>(line[i] - '0');
      }
    } else if (starts_nocase(line, "Connection: close")) {
      to_close = true;
    } else if (starts_nocase(line, "Transfer-Encoding: chunked")) {
      chunked = true;
    }
    state.headers += line;
    state.headers += '\n';
  }
  if (head_only) return true;
  if (chunked) return read_chunked_body(conn, state);
  state.body.assign(net_unread(conn));
  net_consume(conn, state.body.size());
  while (state.body.size() < expected || to_close) {
    if (net_fill(conn) == 0) break;
    state.body.append(net_unread(conn));
    net_consume(conn, net_unread(conn).size());
  }
  if (to_close) net_close(conn);
  return to_close || !sized || state.body.size() == expected;
}

bool http_request(NetConn& conn) {
  HttpState* state = http_state(conn);
  if (!state) return false;
  state->status_line.clear();
  state->headers.clear();
  state->body.clear();
  if (!conn.connected || !conn.socket) return false;
  conn.buffer.clear();
  conn.read_pos = 0;
  if (!net_send(conn, http_build_request(*state, conn.port))) return false;
  return http_read_response(conn, *state, state->method == HTTP_HEAD);
}
