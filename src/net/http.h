// HTTP client: one request/response exchange at a time on a NetConn, and the
// splitting of absolute "http://" and "https://" URLs.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "net/socket.h"

enum HttpMethod : uint8_t { HTTP_GET = 0, HTTP_POST = 1, HTTP_HEAD = 2 };

// The protocol state of a connection of kind NET_HTTP.  Empty texts stand
// for absent fields.
struct HttpState {
  std::string host;        // also the "Host: " header
  std::string path;        // directory part of the request path
  std::string file;        // file part of the request path
  std::string proxy_host;  // when set, requests go to the proxy
  int32_t proxy_port = 0;
  std::string proxy_auth_scheme, proxy_auth_value;
  std::string auth_scheme, auth_value;
  std::string query;  // text after "?"
  uint8_t method = HTTP_GET;
  std::string version;  // such as "1.1"
  std::vector<std::string> extra_headers;  // complete lines, no line end
  std::string post_data;
  // The last response.
  std::string status_line;
  std::string headers;  // every header line, each followed by "\n"
  std::string body;
};

// The parts of an absolute URL; empty texts for absent parts.
struct HttpUrl {
  std::string scheme, host, port, path, file, query;
};

// Splits `url` ("http[s]://host[:port][/dir/.../][file][?query]"); false when
// it is not of that form.  The host is a DNS name or an IPv6 address in
// brackets (kept with its brackets).  `path` is the directory run without a
// leading "/".
bool http_parse_url(std::string_view url, HttpUrl& out);

// Attaches (or resets) the HTTP state; null when the connection carries
// another protocol.
HttpState* http_attach(NetConn& conn);
HttpState* http_state(NetConn& conn);

// Field setters; each replaces the previous text.
void http_set_host(NetConn& conn, std::string_view host, int port);
void http_set_path(NetConn& conn, std::string_view path, std::string_view file);
void http_set_proxy(NetConn& conn, std::string_view host, int port);
void http_set_proxy_auth(NetConn& conn, std::string_view scheme, std::string_view user, std::string_view password);
void http_set_auth(NetConn& conn, std::string_view scheme, std::string_view user, std::string_view password);

// Connects to the proxy when one is set, otherwise to the host and the
// connection's port (with TLS when the connection's mode asks for it).
// False (without text of its own) when no host is set.
bool http_connect(std::string& err, NetConn& conn);
void http_disconnect(NetConn& conn);

// The request text for the state's fields; `port` is the connection's port.
// Every line ends in CR LF.
std::string http_build_request(const HttpState& state, int port);

// How an exchange ended.
enum HttpOutcome : uint8_t {
  HTTP_DONE,    // a whole response was read
  HTTP_CLOSED,  // the connection was closed before any of the response came
  HTTP_FAILED   // the response was cut short, malformed or over a limit
};

// Reads a status line, headers and body from the connection into the state,
// within the run's network limits.  Reasons for a failure go to `err`.
HttpOutcome http_read_response(std::string& err, NetConn& conn, HttpState& state, bool head_only);
// One exchange: build, send, read.
HttpOutcome http_request(std::string& err, NetConn& conn);
