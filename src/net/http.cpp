// HTTP client: request building, response reading (sized, to-close and
// chunked bodies) within the network limits, and URL splitting.
#include "net/http.h"

#include <sys/socket.h>

#include "values/regex.h"
#include "base/nocase.h"
#include "values/regex.h"
#include "net/net_limits.h"
#include "base/nocase.h"

namespace {

// Scheme, host (DNS labels, or an IPv6 address in brackets), port digits,
// directory run, file, query.
constexpr std::string_view kUrlPattern =
    "^(https?):\\/\\/((?:[A-Za-z0-9](?:[A-Za-z0-9-]*[A-Za-z0-9])?\\.)*[A-Za-z0-9](?:[A-Za-z0-9-]*[A-Za-z0-9])?"
    "|\\[[0-9A-Fa-f:.]+\\])(?::(\\d*))?(?:\\/((?:[^\\?\\/]+\\/)*)?([^\\?\\/]+)?(?:\\?(.*))?)?$";

bool is_blank(char c) { return c == ' ' || c == '\t'; }

std::string_view trim(std::string_view text) {
  while (!text.empty() && is_blank(text.front())) text.remove_prefix(1);
  while (!text.empty() && is_blank(text.back())) text.remove_suffix(1);
  return text;
}

// True when `line` is a header named `name` (any case, blanks allowed
// around the colon's value); its value goes to `value`.
bool header_is(std::string_view line, std::string_view name, std::string_view* value) {
  size_t colon = line.find(':');
  if (colon == std::string_view::npos || !equals_nocase(trim(line.substr(0, colon)), name)) return false;
  *value = trim(line.substr(colon + 1));
  return true;
}

// True when the comma-separated `list` holds `token` (any case); with
// `last_only`, only its last element counts.
bool has_token(std::string_view list, std::string_view token, bool last_only) {
  bool found = false;
  while (true) {
    size_t comma = list.find(',');
    found = equals_nocase(trim(list.substr(0, comma)), token) || (found && !last_only);
    if (comma == std::string_view::npos) return found;
    list.remove_prefix(comma + 1);
  }
}

// A whole decimal number of at most 18 digits; false otherwise.
bool read_length(std::string_view text, uint64_t* out) {
  if (text.empty() || text.size() > 18) return false;
  uint64_t value = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
    value = value * 10 + static_cast<uint64_t>(c - '0');
  }
  *out = value;
  return true;
}

// The chunk size of a size line: its text after the last CR, without any
// chunk extension (";..."), read as hexadecimal.  False when it is not a
// run of at most 15 hexadecimal digits.
bool chunk_size(std::string_view line, uint64_t* out) {
  size_t cr = line.rfind('\r');
  if (cr != std::string_view::npos) line.remove_prefix(cr + 1);
  line = trim(line.substr(0, line.find(';')));
  if (line.empty() || line.size() > 15) return false;
  uint64_t size = 0;
  for (char c : line) {
    int digit;
    if (c >= '0' && c <= '9') digit = c - '0';
    else if (c >= 'a' && c <= 'f') digit = c - 'a' + 10;
    else if (c >= 'A' && c <= 'F') digit = c - 'A' + 10;
    else return false;
    size = size * 16 + static_cast<uint64_t>(digit);
  }
  *out = size;
  return true;
}

// A failed read: the socket layer's reason, or that the server closed.
HttpOutcome cut_short(std::string& err, NetConn& conn, std::string_view what) {
  if (conn.note.empty()) err += "Error:  The server closed the connection in the middle of the " + std::string(what) + ".\n";
  net_take_note(conn, err);
  return HTTP_FAILED;
}

HttpOutcome over_body_limit(std::string& err) {
  err += net_limit_text("The response body", net_limits().body_max, "bytes", "CVML_NET_BODY_MAX");
  return HTTP_FAILED;
}

// One header or trailer line into the headers text; false (with the reason)
// past the line or count limit or when the server stops.
bool read_header_line(std::string& err, NetConn& conn, HttpState& state, size_t& count, std::string& line) {
  const NetLimits& limits = net_limits();
  if (!net_read_line(conn, line, limits.header_line_max, "CVML_NET_HEADER_LINE_MAX")) {
    cut_short(err, conn, "headers");
    return false;
  }
  if (line.empty()) return true;
  if (++count > limits.header_count_max) {
    err += net_limit_text("The header lines from the server", limits.header_count_max, "lines",
                          "CVML_NET_HEADER_COUNT_MAX");
    return false;
  }
  state.headers += line;
  state.headers += '\n';
  return true;
}

HttpOutcome read_chunked_body(std::string& err, NetConn& conn, HttpState& state, size_t& count) {
  const NetLimits& limits = net_limits();
  std::string line;
  for (;;) {
    if (!net_read_line(conn, line, limits.header_line_max, "CVML_NET_HEADER_LINE_MAX"))
      return cut_short(err, conn, "body");
    uint64_t size = 0;
    if (!chunk_size(line, &size)) {
      err += "Error:  The server sent a bad chunk size: " + line.substr(0, 64) + "\n";
      return HTTP_FAILED;
    }
    if (size == 0) break;
    if (size > limits.body_max - state.body.size()) return over_body_limit(err);
    while (size > 0) {
      if (net_unread(conn).empty() && net_fill(conn) == 0) return cut_short(err, conn, "body");
      std::string_view piece = net_unread(conn).substr(0, size);
      state.body.append(piece);
      net_consume(conn, piece.size());
      size -= piece.size();
    }
    // The CR LF after the chunk's data.
    for (;;) {
      std::string_view rest = net_unread(conn);
      size_t skip = 0;
      while (skip < rest.size() && (rest[skip] == '\r' || rest[skip] == '\n')) ++skip;
      net_consume(conn, skip);
      if (skip < rest.size()) break;
      if (net_fill(conn) == 0) return cut_short(err, conn, "body");
    }
  }
  // Trailer lines up to the first empty one.
  do {
    if (!read_header_line(err, conn, state, count, line)) return HTTP_FAILED;
  } while (!line.empty());
  return HTTP_DONE;
}

// The three-digit status code of a status line, or 0.
int status_code(std::string_view line) {
  size_t blank = line.find(' ');
  if (blank == std::string_view::npos || line.size() < blank + 4) return 0;
  int code = 0;
  for (size_t i = blank + 1; i < blank + 4; ++i) {
    if (line[i] < '0' || line[i] > '9') return 0;
    code = code * 10 + (line[i] - '0');
  }
  return code;
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
  return net_valid_host(out.host);
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
  out += " HTTP/" + (state.version.empty() ? std::string("1.1") : state.version) + "\r\n";
  if (!state.proxy_auth_value.empty()) {
    out += "Proxy-Authorization: " + state.proxy_auth_scheme + " " + state.proxy_auth_value + "\r\n";
  }
  if (!state.auth_value.empty()) {
    out += "Authorization: " + state.auth_scheme + " " + state.auth_value + "\r\n";
  }
  out += "Host: " + state.host + "\r\n";
  out += "Connection: keep-alive\r\n";
  for (const std::string& line : state.extra_headers) out += line + "\r\n";
  if (post) {
    out += "Content-type: application/x-www-form-urlencoded\r\n";
    out += "Content-length: " + std::to_string(state.post_data.size()) + "\r\n\r\n";
    out += state.post_data;
  } else {
    out += "\r\n";
  }
  return out;
}

HttpOutcome http_read_response(std::string& err, NetConn& conn, HttpState& state, bool head_only) {
  const NetLimits& limits = net_limits();
  state.status_line.clear();
  state.headers.clear();
  state.body.clear();
  std::string line;
  size_t count = 0;
  bool sized = false, to_close = false, chunked = false, encoded = false;
  uint64_t expected = 0;
  int code = 0;
  do {  // interim answers ("100 Continue") come before the real one
    if (!net_read_line(conn, line, limits.status_line_max, "CVML_NET_STATUS_LINE_MAX")) {
      if (conn.eof && conn.buffer.empty() && conn.note.empty()) return HTTP_CLOSED;
      return cut_short(err, conn, "status line");
    }
    state.status_line = line;
    state.headers.clear();
    code = status_code(line);
    for (;;) {
      if (!read_header_line(err, conn, state, count, line)) return HTTP_FAILED;
      if (line.empty()) break;
      std::string_view value;
      if (header_is(line, "Content-Length", &value)) {
        if (sized) continue;  // the first one counts
        if (!read_length(value, &expected)) {
          err += "Error:  The server sent a bad Content-Length header: " + line.substr(0, 64) + "\n";
          return HTTP_FAILED;
        }
        sized = true;
      } else if (header_is(line, "Connection", &value)) {
        to_close = to_close || has_token(value, "close", false);
      } else if (header_is(line, "Transfer-Encoding", &value)) {
        encoded = true;
        chunked = has_token(value, "chunked", true);
      }
    }
  } while (code >= 100 && code < 200 && code != 101);
  if (head_only || code == 204 || code == 304) return HTTP_DONE;
  if (chunked) return read_chunked_body(err, conn, state, count);
  // Without a length (or with a transfer coding that is not chunked) the
  // body runs to the close.
  if (!sized || encoded) to_close = true, sized = false;
  if (sized && expected > limits.body_max) return over_body_limit(err);
  for (;;) {
    std::string_view piece = net_unread(conn);
    if (sized) piece = piece.substr(0, expected - state.body.size());
    if (piece.size() > limits.body_max - state.body.size()) return over_body_limit(err);
    state.body.append(piece);
    net_consume(conn, piece.size());
    if (sized && state.body.size() == expected) break;
    if (net_fill(conn) > 0) continue;
    if (!conn.eof || sized) return cut_short(err, conn, "body");
    break;  // read to the close
  }
  if (to_close) net_close(conn);
  return HTTP_DONE;
}

HttpOutcome http_request(std::string& err, NetConn& conn) {
  HttpState* state = http_state(conn);
  if (!state) return HTTP_FAILED;
  state->status_line.clear();
  state->headers.clear();
  state->body.clear();
  if (!conn.connected || !conn.socket) return HTTP_CLOSED;
  conn.buffer.clear();
  conn.read_pos = 0;
  conn.eof = false;
  if (!net_send(conn, http_build_request(*state, conn.port))) {
    if (!conn.note.empty()) return cut_short(err, conn, "request");
    return HTTP_CLOSED;
  }
  return http_read_response(err, conn, *state, state->method == HTTP_HEAD);
}
