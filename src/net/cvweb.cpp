// CVWEB: opening connections of each protocol, running their operations, and
// the run-wide connection table that socket numbers index.
#include "net/cvweb.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "runtime/report.h"
#include "runtime/run.h"
#include "base/encoders.h"
#include "net/ftp.h"
#include "net/http.h"
#include "net/net_limits.h"
#include "net/pop3.h"
#include "net/smtp.h"
#include "net/socket.h"
#include "runtime/expression.h"
#include "runtime/level4.h"
#include "base/nocase.h"
#include "runtime/level4.h"
#include "base/nocase.h"
#include "runtime/option_number.h"

namespace {

void close_by_kind(NetConn& conn);

// The run's connections.  Slots are never reused: a socket number stays
// invalid after "disconnect".  Those still open are closed by kind when the
// run ends.
struct Connections : RunState {
  std::vector<std::unique_ptr<NetConn>> slots;
  ~Connections() override;
};

std::vector<std::unique_ptr<NetConn>>& connections(Run& run) {
  return run_state<Connections>(run, STATE_CONNECTIONS).slots;
}

constexpr std::string_view kSeeDocs = "  See the Corvane documentation for details.";
constexpr std::string_view kInternal = "  An internal error occurred in Corvane.";
constexpr std::string_view kSeeManual = "  See the documentation for details.";

std::string requires_with(std::string_view option, std::string_view operation) {
  return "CVWEB requires the '" + std::string(option) + "' option to be used with the '" + std::string(operation) +
         "' option." + std::string(kSeeDocs);
}

std::string not_non_negative(std::string_view option) {
  return "CVWEB requires the '" + std::string(option) +
         "' option to be either a blank string, zero (0), or a positive number.";
}

// A numeric option: evaluated, non-negative.  False when the result is not
// a number (a blank option evaluates to a string) or is negative.
bool non_negative_option(Run& run, const std::string& text, double* out) {
  double d;
  if (!evaluate_real_option(run, text, &d)) return false;
  if (!(d >= 0) || !std::isfinite(d)) return false;
  *out = d;
  return true;
}

// Ports and message numbers: whole numbers, bounded so the cast is defined.
bool whole_option(Run& run, const std::string& text, double limit, int64_t* out) {
  double d;
  if (!non_negative_option(run, text, &d) || d > limit) return false;
  *out = static_cast<int64_t>(d);
  return true;
}

// The socket layer's text goes to the diagnostics before the report.
void fail(Run& run, const ParsedTag& tag, std::string_view message, const std::string& err) {
  if (!err.empty()) report_diagnostic(run, "Error returned from internal socket functions:\n" + err);
  report_error(run, tag, message);
}

// Page text bound for a protocol line: a carriage return, line feed or zero
// byte would end the line early and start one of the page's making.  False
// after the report naming the option.
bool line_safe(Run& run, const ParsedTag& tag, std::string_view option, const std::string* text) {
  if (!text || text->find_first_of(std::string_view("\r\n\0", 3)) == std::string::npos) return true;
  report_error(run, tag, "CVWEB requires the '" + std::string(option) +
                        "' option to contain no carriage return, line feed or zero byte." + std::string(kSeeManual));
  return false;
}

// The named option when it is present and safe for a protocol line; null
// after a report (`*failed` set) or when it is absent.
const std::string* safe_option(Run& run, const ParsedTag& tag, std::string_view option, bool* failed) {
  const std::string* text = tag_option(tag, option);
  if (!line_safe(run, tag, option, text)) {
    *failed = true;
    return nullptr;
  }
  return text;
}

// Replaces the value of the variable `ref` names with `result`.
bool store(Run& run, const ParsedTag& tag, const std::string& ref, ValuePtr result) {
  Value* v = level4_resolve(run, ref);
  if (!v) {
    report_error(run, tag, "An error occurred in obtaining the CVWEB variable.  See the diagnostic message above for details.");
    return false;
  }
  value_clear(*v);
  value_assign(v, result.get());
  return true;
}

// The text a variable holds; empty when it cannot be obtained.
bool fetch_text(Run& run, const ParsedTag& tag, const std::string& ref, std::string* out) {
  Value* v = level4_resolve(run, ref);
  if (!v) {
    report_error(run, tag, "An error occurred in obtaining the CVWEB variable.  See the diagnostic message above for details.");
    return false;
  }
  *out = value_text(*v);
  return true;
}

// Form encoding of a POST body: a hash as name=value pairs, a list as its
// "&"-joined encoded cells, anything else as its text unchanged.
std::string form_body(const Value& v) {
  if (v.type != VT_HASH) return value_text(v);
  std::string out;
  for (const ValueRow& row : v.rows) {
    if (row.size() < 2 || !row[0] || !row[1]) continue;
    if (!out.empty()) out += '&';
    out += url_encode(value_element_text(*row[0])) + "=" + url_encode(value_element_text(*row[1]));
  }
  return out;
}

// [status line, headers as rows of [name, value], body]
ValuePtr http_result(const HttpState& state) {
  ValuePtr headers = value_new();
  value_set_type(*headers, VT_ARRAY);
  headers->columns = 2;
  std::string_view text = state.headers;
  while (!text.empty()) {
    size_t end = text.find('\n');
    std::string_view line = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    size_t colon = line.find(':');
    std::string_view name = line.substr(0, colon);
    std::string_view rest;
    if (colon != std::string_view::npos) {
      rest = line.substr(colon + 1);
      while (!rest.empty() && rest.front() == ' ') rest.remove_prefix(1);
    }
    ValueRow row;
    row.push_back(value_from_string(std::string(name)));
    row.push_back(value_from_string(std::string(rest)));
    headers->rows.push_back(std::move(row));
  }
  ValuePtr result = value_new();
  value_set_type(*result, VT_LIST);
  result->list.push_back(value_from_string(state.status_line));
  result->list.push_back(std::move(headers));
  result->list.push_back(value_from_string(state.body));
  return result;
}

// The named option, or a report of its absence for `operation`.
const std::string* need(Run& run, const ParsedTag& tag, std::string_view option, std::string_view operation) {
  const std::string* value = tag_option(tag, option);
  if (!value) report_error(run, tag, requires_with(option, operation));
  return value;
}

// raw: RecvCheck / SendCheck var [timeout]; GET var; PUT var
void raw_operation(Run& run, const ParsedTag& tag, NetConn& conn, const std::string& op) {
  bool recv_check = keyword_is(op, "RecvCheck"), send_check = keyword_is(op, "SendCheck");
  bool get = keyword_is(op, "GET"), put = keyword_is(op, "PUT");
  if (!recv_check && !send_check && !get && !put) {
    report_error(run, tag, "CVWEB requires the 'raw' option to be 'RecvCheck', 'SendCheck', 'GET', or 'PUT'." +
                          std::string(kSeeDocs));
    return;
  }
  std::string_view name = recv_check ? "RecvCheck" : send_check ? "SendCheck" : get ? "GET" : "PUT";
  const std::string* var = need(run, tag, "var", name);
  if (!var) return;
  if (recv_check || send_check) {
    long seconds = -1, micros = 0;  // no limit without "timeout"
    if (const std::string* timeout = tag_option(tag, "timeout")) {
      double d;
      if (!non_negative_option(run, *timeout, &d) || d > 1e9) {
        report_error(run, tag, not_non_negative("timeout"));
        return;
      }
      seconds = static_cast<long>(d);
      micros = static_cast<long>((d - static_cast<double>(seconds)) * 1e6);
    }
    bool ready = recv_check ? net_wait_readable(conn, seconds, micros) : net_wait_writable(conn, seconds, micros);
    store(run, tag, *var, value_from_integer(ready ? 1 : 0));
    return;
  }
  std::string err;
  if (get) {
    // What is already buffered, else one read of what the peer sends next.
    if (net_unread(conn).empty() && net_fill(conn) == 0) {
      net_take_note(conn, err);
      fail(run, tag, "An occurred in CVWEB while attempting to get the data." + std::string(kInternal), err);
      return;
    }
    std::string data(net_unread(conn));
    net_consume(conn, data.size());
    store(run, tag, *var, value_from_string(std::move(data)));
    return;
  }
  std::string data;
  if (!fetch_text(run, tag, *var, &data)) return;
  if (!net_send(conn, data)) {
    net_take_note(conn, err);
    fail(run, tag, "An occurred in CVWEB while attempting to send the data." + std::string(kInternal), err);
  }
}

// http: GET page var; POST page var POSTvar
void http_operation(Run& run, const ParsedTag& tag, NetConn& conn, const std::string& op) {
  bool post = keyword_is(op, "POST");
  if (!post && !keyword_is(op, "GET")) {
    report_error(run, tag, "CVWEB requires the 'http' option to be either 'GET' or 'POST'." + std::string(kSeeDocs));
    return;
  }
  std::string_view name = post ? "POST" : "GET";
  const std::string* page = need(run, tag, "page", name);
  if (!page) return;
  const std::string* var = need(run, tag, "var", name);
  if (!var) return;
  const std::string* postvar = post ? need(run, tag, "POSTvar", name) : nullptr;
  if (post && !postvar) return;
  HttpUrl url;
  HttpState* state = http_state(conn);
  if (!state) {
    report_error(run, tag, "An internal error occurred in Corvane.");
    return;
  }
  if (!line_safe(run, tag, "page", page)) return;
  if (!http_parse_url(*page, url)) {
    report_error(run, tag, "CVWEB requires the 'page' option to be an absolute URL." + std::string(kSeeDocs));
    return;
  }
  // A page whose scheme differs from the connection's (https on a plain
  // connection, or http on a TLS one) opens the connection again for that
  // scheme, on the page's port or the scheme's own.
  bool secure = url.scheme == "https";
  if (secure != (conn.tls_options.mode == TLS_IMPLICIT)) {
    if (secure && !state->proxy_host.empty()) {
      report_error(run, tag, "CVWEB does not currently support 'https' pages through a proxy." + std::string(kSeeManual));
      return;
    }
    int64_t port = secure ? 443 : 80;
    if (!url.port.empty() && !whole_option(run, url.port, 65535, &port)) port = secure ? 443 : 80;
    conn.tls_options.mode = secure ? TLS_IMPLICIT : TLS_OFF;
    conn.port = static_cast<int32_t>(port);
    net_close(conn);
  }
  std::string body;
  if (post) {
    Value* v = level4_resolve(run, *postvar);
    if (!v) {
      report_error(run, tag, "An error occurred in obtaining the CVWEB variable.  See the diagnostic message above for details.");
      return;
    }
    body = form_body(*v);
  }
  state = http_state(conn);
  state->method = post ? HTTP_POST : HTTP_GET;
  state->version = "1.1";
  state->extra_headers = {"Accept: image/gif,*/*"};
  state->path = "/" + url.path;
  state->file = url.file;
  state->query = url.query;
  state->post_data = std::move(body);

  std::string err;
  HttpOutcome done = http_request(err, conn);
  // A server that closed the connection (after a read-to-close answer, or
  // when idle) gets a new one and the request once more.
  if (done == HTTP_CLOSED) {
    if (!http_connect(err, conn)) {
      fail(run, tag, "CVWEB was unable to reconnect to the web server." + std::string(kInternal), err);
      return;
    }
    done = http_request(err, conn);
  }
  if (done != HTTP_DONE) {
    fail(run, tag, "An occurred in CVWEB while attempting to get the web page." + std::string(kInternal), err);
    return;
  }
  store(run, tag, *var, http_result(*state));
}

// smtp: SetSourceInfo sourceaddr subject; AddDestAddr destaddr;
// SetMessageBody var; Attachment remotefilename var; SendMessage
void smtp_operation(Run& run, const ParsedTag& tag, NetConn& conn, const std::string& op) {
  SmtpState* state = smtp_state(conn);
  if (!state) {
    report_error(run, tag, "An internal error occurred in Corvane.");
    return;
  }
  if (keyword_is(op, "SetSourceInfo")) {
    const std::string* source = need(run, tag, "sourceaddr", "SetSourceInfo");
    if (!source || !line_safe(run, tag, "sourceaddr", source)) return;
    const std::string* subject = need(run, tag, "subject", "SetSourceInfo");
    if (!subject || !line_safe(run, tag, "subject", subject)) return;
    smtp_set_sender(conn, *source);
    // A second call replaces the subject rather than adding another.
    state->headers.clear();
    smtp_add_header(conn, "Subject", *subject);
  } else if (keyword_is(op, "AddDestAddr")) {
    const std::string* dest = need(run, tag, "destaddr", "AddDestAddr");
    if (dest && line_safe(run, tag, "destaddr", dest)) smtp_add_recipient(conn, *dest);
  } else if (keyword_is(op, "SetMessageBody")) {
    const std::string* var = need(run, tag, "var", "SetMessageBody");
    std::string text;
    if (var && fetch_text(run, tag, *var, &text)) smtp_set_body(conn, text);
  } else if (keyword_is(op, "Attachment")) {
    const std::string* name = need(run, tag, "remotefilename", "Attachment");
    if (!name || !line_safe(run, tag, "remotefilename", name)) return;
    const std::string* var = need(run, tag, "var", "Attachment");
    std::string data;
    if (var && fetch_text(run, tag, *var, &data)) smtp_add_attachment(conn, *name, data);
  } else if (keyword_is(op, "SendMessage")) {
    std::string err;
    if (!smtp_send(err, conn))
      fail(run, tag, "An occurred in CVWEB while attempting to send the message (e-mail)." + std::string(kInternal), err);
  } else {
    report_error(run, tag,
                 "CVWEB requires the 'smtp' option to be 'SetSourceInfo', 'AddDestAddr', 'SetMessageBody', "
                 "'Attachment', or 'SendMessage'." + std::string(kSeeDocs));
  }
}

// The "messagenum" option; false after its report.
bool message_number(Run& run, const ParsedTag& tag, std::string_view operation, uint32_t* out) {
  const std::string* text = need(run, tag, "messagenum", operation);
  if (!text) return false;
  int64_t n;
  if (!whole_option(run, *text, 4294967295.0, &n)) {
    report_error(run, tag, not_non_negative("messagenum"));
    return false;
  }
  *out = static_cast<uint32_t>(n);
  return true;
}

// pop3: MessageCount var; GetMessage messagenum var; DeleteMessage messagenum.
// A fetched message is stored as [sender, subject, header block, body].
void pop3_operation(Run& run, const ParsedTag& tag, NetConn& conn, const std::string& op) {
  Pop3State* state = pop3_state(conn);
  if (!state) {
    report_error(run, tag, "An internal error occurred in Corvane.");
    return;
  }
  std::string err;
  uint32_t number = 0;
  if (keyword_is(op, "MessageCount")) {
    // The 'LIST' in this message is what pages have always been told.
    const std::string* var = need(run, tag, "var", "LIST");
    if (var) store(run, tag, *var, value_from_integer(static_cast<int32_t>(std::min<uint32_t>(state->count, INT32_MAX))));
  } else if (keyword_is(op, "GetMessage")) {
    if (!message_number(run, tag, "GetMessage", &number)) return;
    const std::string* var = need(run, tag, "var", "GetMessage");
    if (!var) return;
    if (!pop3_retrieve(err, conn, number)) {
      fail(run, tag, "An occurred in CVWEB while attempting to retrieve the message (e-mail)." + std::string(kInternal),
           err);
      return;
    }
    ValuePtr message = value_new();
    value_set_type(*message, VT_LIST);
    for (const std::string* part : {&state->sender, &state->subject, &state->header, &state->body})
      message->list.push_back(value_from_string(*part));
    store(run, tag, *var, std::move(message));
  } else if (keyword_is(op, "DeleteMessage")) {
    if (!message_number(run, tag, "DeleteMessage", &number)) return;
    if (!pop3_delete(err, conn, number))
      fail(run, tag, "An occurred in CVWEB while attempting to delete the message (e-mail)." + std::string(kInternal), err);
  } else {
    report_error(run, tag, "CVWEB requires the 'pop3' option to be 'MessageCount', 'GetMessage', or 'DeleteMessage'." +
                          std::string(kSeeDocs));
  }
}

// ftp: GET file var; PUT file var; DELETE file; CD dir; MD dir; RD dir;
// LIST var.  GET stores the file's bytes as a string; LIST stores the
// listing as one string, exactly as the server sent it (its lines keep their
// "\r\n" ends), since listing formats differ from server to server.
void ftp_operation(Run& run, const ParsedTag& tag, NetConn& conn, const std::string& op) {
  if (!ftp_state(conn)) {
    report_error(run, tag, "An internal error occurred in Corvane.");
    return;
  }
  std::string err;
  if (keyword_is(op, "GET")) {
    const std::string* file = need(run, tag, "file", "GET");
    if (!file || !line_safe(run, tag, "file", file)) return;
    const std::string* var = need(run, tag, "var", "GET");
    if (!var) return;
    std::string data;
    if (!ftp_get(err, conn, *file, data)) {
      fail(run, tag, "CVWEB was unable to receive the file from the FTP server." + std::string(kInternal), err);
      return;
    }
    store(run, tag, *var, value_from_string(std::move(data)));
  } else if (keyword_is(op, "PUT")) {
    const std::string* file = need(run, tag, "file", "PUT");
    if (!file || !line_safe(run, tag, "file", file)) return;
    const std::string* var = need(run, tag, "var", "PUT");
    std::string data;
    if (!var || !fetch_text(run, tag, *var, &data)) return;
    if (!ftp_put(err, conn, *file, data))
      fail(run, tag, "CVWEB was unable to upload the file to the FTP server." + std::string(kInternal), err);
  } else if (keyword_is(op, "DELETE")) {
    const std::string* file = need(run, tag, "file", "DELETE");
    if (file && line_safe(run, tag, "file", file) && !ftp_delete(err, conn, *file))
      fail(run, tag, "CVWEB was unable to delete the file on the FTP server." + std::string(kInternal), err);
  } else if (keyword_is(op, "CD") || keyword_is(op, "MD") || keyword_is(op, "RD")) {
    bool cd = keyword_is(op, "CD"), md = keyword_is(op, "MD");
    const std::string* dir = need(run, tag, "dir", cd ? "CD" : md ? "MD" : "RD");
    if (!dir || !line_safe(run, tag, "dir", dir)) return;
    bool done = cd ? ftp_cd(err, conn, *dir) : md ? ftp_md(err, conn, *dir) : ftp_rd(err, conn, *dir);
    if (!done)
      fail(run, tag,
           std::string(cd   ? "CVWEB was unable to change to the specified directory on the FTP server."
                       : md ? "CVWEB was unable to create the specified directory on the FTP server."
                            : "CVWEB was unable to delete the specified directory on the FTP server.") +
               std::string(kInternal),
           err);
  } else if (keyword_is(op, "LIST")) {
    const std::string* var = need(run, tag, "var", "LIST");
    if (!var) return;
    std::string listing;
    if (!ftp_list(err, conn, listing)) {
      fail(run, tag,
           "CVWEB was unable to receive the current directory listing from the FTP server." + std::string(kInternal),
           err);
      return;
    }
    store(run, tag, *var, value_from_string(std::move(listing)));
  } else {
    report_error(run, tag, "CVWEB requires the 'ftp' option to be 'GET', 'PUT', 'DELETE', 'CD', 'MD', 'RD', or 'LIST'." +
                          std::string(kSeeDocs));
  }
}

// Ends the session the way its protocol expects: mail and file servers get
// QUIT (which also commits POP3 deletions), the others are just closed.
void close_by_kind(NetConn& conn) {
  if (!conn.connected) return;
  if (conn.kind == NET_SMTP) smtp_quit(conn);
  else if (conn.kind == NET_POP3) pop3_quit(conn);
  else if (conn.kind == NET_FTP) ftp_quit(conn);
  net_close(conn);
}

// Runs the operation the tag asks of an open connection.
void run_operation(Run& run, const ParsedTag& tag, size_t slot) {
  NetConn& conn = *connections(run)[slot];
  const NetLimits& limits = net_limits();
  conn.timeout_seconds = limits.timeout_seconds;
  net_start_deadline(conn, limits.deadline_seconds);
  if (tag_option(tag, "disconnect")) {
    close_by_kind(conn);
    connections(run)[slot].reset();
    return;
  }
  struct KindRow {
    int32_t kind;
    const char* option;
    void (*operation)(Run&, const ParsedTag&, NetConn&, const std::string&);
  };
  static const KindRow kRows[] = {{NET_RAW, "raw", raw_operation},    {NET_HTTP, "http", http_operation},
                                  {NET_SMTP, "smtp", smtp_operation}, {NET_POP3, "pop3", pop3_operation},
                                  {NET_FTP, "ftp", ftp_operation}};
  for (const KindRow& row : kRows) {
    if (row.kind != conn.kind) continue;
    const std::string* op = tag_option(tag, row.option);
    if (!op) {
      report_error(run, tag, "CVWEB requires the '" + std::string(row.option) + "' option to be used with this socket." +
                            std::string(kSeeDocs));
      return;
    }
    row.operation(run, tag, conn, *op);
    return;
  }
  report_error(run, tag, "An internal error occurred in Corvane.");
}

// The "server" options of one protocol, then its connection.  False after
// a report.
bool open_connection(Run& run, const ParsedTag& tag, NetConn& conn, const std::string& server, int32_t kind, int port) {
  std::string err;
  bool failed = false;
  const std::string* user = safe_option(run, tag, "username", &failed);
  const std::string* password = safe_option(run, tag, "password", &failed);
  if (failed) return false;
  switch (kind) {
    case NET_RAW:
      if (net_connect(err, conn, server, port)) return true;
      // Raw connections have always reported with the POP3 text.
      fail(run, tag, "CVWEB was unable to connect to the POP3 server." + std::string(kInternal), err);
      return false;
    case NET_HTTP: {
      http_attach(conn);
      http_set_host(conn, server, port);
      const std::string* proxy = safe_option(run, tag, "setproxy", &failed);
      if (failed) return false;
      if (proxy) {
        int64_t proxy_port = 80;
        const std::string* proxy_port_text = tag_option(tag, "setproxyport");
        if (proxy_port_text && !whole_option(run, *proxy_port_text, 65535, &proxy_port)) {
          report_error(run, tag, not_non_negative("port"));
          return false;
        }
        http_set_proxy(conn, *proxy, static_cast<int>(proxy_port));
      }
      const std::string* method = tag_option(tag, "setproxyauthmethod");
      const std::string* puser = tag_option(tag, "setproxyusername");
      const std::string* ppass = tag_option(tag, "setproxypassword");
      if (method && puser && ppass) {
        if (!keyword_is(*method, "BASIC")) {
          report_error(run, tag, "CVWEB does not currently support any other proxy authentication format except 'BASIC'.");
          return false;
        }
        http_set_proxy_auth(conn, "BASIC", *puser, *ppass);
      }
      method = tag_option(tag, "setauthmethod");
      puser = tag_option(tag, "setauthusername");
      ppass = tag_option(tag, "setauthpassword");
      if (method && puser && ppass) {
        if (!keyword_is(*method, "BASIC")) {
          report_error(run, tag, "CVWEB does not currently support any other authentication format except 'BASIC'.");
          return false;
        }
        http_set_auth(conn, "BASIC", *puser, *ppass);
      }
      if (http_connect(err, conn)) return true;
      fail(run, tag, "CVWEB was unable to connect to the web server." + std::string(kInternal), err);
      return false;
    }
    case NET_SMTP: {
      const std::string* helo = safe_option(run, tag, "heloname", &failed);
      const std::string* method = tag_option(tag, "authmethod");
      if (failed) return false;
      if (method && !keyword_is(*method, "PLAIN") && !keyword_is(*method, "LOGIN")) {
        report_error(run, tag, "CVWEB requires the 'authmethod' option to be 'PLAIN' or 'LOGIN'." + std::string(kSeeManual));
        return false;
      }
      if (smtp_set_server(conn, server, port)) {
        SmtpState* state = smtp_state(conn);
        if (helo) state->helo_name = *helo;
        if (user) state->user = *user;
        if (password) state->password = *password;
        if (method) state->auth_method = keyword_is(*method, "PLAIN") ? "PLAIN" : "LOGIN";
        if (smtp_connect(err, conn)) return true;
      }
      fail(run, tag, "CVWEB was unable to connect to the SMTP server." + std::string(kInternal), err);
      return false;
    }
    case NET_POP3:
      if (!user || !password) {
        report_error(run, tag,
                     "CVWEB requires the 'username' and 'password' options to be used when the 'protocol' option is "
                     "'pop3'." + std::string(kSeeDocs));
        return false;
      }
      if (pop3_set_server(conn, server, port, *user, *password) && pop3_connect(err, conn)) return true;
      fail(run, tag, "CVWEB was unable to connect to the POP3 server." + std::string(kInternal), err);
      return false;
    case NET_FTP: {
      int64_t base = kFtpDefaultDataPort;
      const std::string* base_text = tag_option(tag, "basedataport");
      if (base_text && !whole_option(run, *base_text, 65535, &base)) {
        report_error(run, tag, not_non_negative("basedataport"));
        return false;
      }
      const std::string* account = safe_option(run, tag, "account", &failed);
      if (failed) return false;
      bool passive = tag_option(tag, "passive") != nullptr;
      if (ftp_set_server(conn, server, port, user ? *user : std::string(), password ? *password : std::string(),
                         account ? *account : std::string(), passive, static_cast<int>(base)) &&
          ftp_connect(err, conn))
        return true;
      fail(run, tag, "CVWEB was unable to connect to the FTP server." + std::string(kInternal), err);
      return false;
    }
  }
  report_error(run, tag, "CVWEB does not currently support the requested protocol." + std::string(kSeeDocs));
  return false;
}

// The port a protocol uses for TLS from the first byte.
int implicit_port(int32_t kind) {
  switch (kind) {
    case NET_HTTP: return 443;
    case NET_SMTP: return 465;
    case NET_POP3: return 995;
    case NET_FTP: return 990;
    default: return 0;
  }
}

// tls=off|starttls|implicit, tlsverify=on|off, tlscafile=path.  False after
// a report.
bool read_tls_options(Run& run, const ParsedTag& tag, int32_t kind, NetTlsOptions* out) {
  if (const std::string* mode = tag_option(tag, "tls")) {
    bool upgrade = kind == NET_SMTP || kind == NET_POP3 || kind == NET_FTP;
    if (keyword_is(*mode, "off")) out->mode = TLS_OFF;
    else if (keyword_is(*mode, "implicit")) out->mode = TLS_IMPLICIT;
    else if (upgrade && keyword_is(*mode, "starttls")) out->mode = TLS_STARTTLS;
    else {
      report_error(run, tag, upgrade ? "CVWEB requires the 'tls' option to be 'off', 'starttls', or 'implicit'." +
                                      std::string(kSeeManual)
                                : "CVWEB requires the 'tls' option to be 'off' or 'implicit' for this protocol." +
                                      std::string(kSeeManual));
      return false;
    }
  }
  if (const std::string* verify = tag_option(tag, "tlsverify")) {
    if (!keyword_is(*verify, "on") && !keyword_is(*verify, "off")) {
      report_error(run, tag, "CVWEB requires the 'tlsverify' option to be 'on' or 'off'." + std::string(kSeeManual));
      return false;
    }
    out->verify = keyword_is(*verify, "on");
  }
  if (const std::string* ca_file = tag_option(tag, "tlscafile")) {
    if (!line_safe(run, tag, "tlscafile", ca_file)) return false;
    out->ca_file = *ca_file;
  }
  return true;
}

}  // namespace

// <CVWEB socketvar=reference server=host [protocol=http|ftp|smtp|pop3] [port=n]
//        [tls=off|starttls|implicit] [tlsverify=on|off] [tlscafile=path] ...>
// <CVWEB socketvar=reference disconnect>
// <CVWEB socketvar=reference raw|http|smtp|pop3|ftp=operation ...>
ValuePtr cvweb_handler(Run& run, const ParsedTag& tag) {
  const std::string* socketvar = tag_option(tag, "socketvar");
  if (!socketvar) {
    report_error(run, tag, option_required_message("CVWEB", "socketvar"));
    return value_new();
  }
  Value* socket_value = level4_resolve(run, *socketvar);
  if (!socket_value) {
    report_error(run, tag, "An error occurred in obtaining the CVWEB variable.  See the diagnostic message above for details.");
    return value_new();
  }
  const std::string* server = tag_option(tag, "server");
  if (!server) {
    int64_t index = -1;
    if (!stored_handle(*socket_value, &index)) index = -1;
    if (index < 0 || index >= static_cast<int64_t>(connections(run).size()) ||
        !connections(run)[static_cast<size_t>(index)]) {
      report_error(run, tag, "CVWEB requires the 'socketvar' option to contain a valid indirect reference to an open socket.");
      return value_new();
    }
    run_operation(run, tag, static_cast<size_t>(index));
    return value_new();
  }

  const std::string* protocol = tag_option(tag, "protocol");
  const std::string* port_text = tag_option(tag, "port");
  if (!protocol && !port_text) {
    report_error(run, tag, "CVWEB requires either the 'protocol' and/or 'port' option to be used." + std::string(kSeeDocs));
    return value_new();
  }
  int32_t kind = NET_RAW;
  int default_port = 0;
  if (protocol) {
    if (keyword_is(*protocol, "http")) kind = NET_HTTP, default_port = 80;
    else if (keyword_is(*protocol, "ftp")) kind = NET_FTP, default_port = 21;
    else if (keyword_is(*protocol, "smtp")) kind = NET_SMTP, default_port = 25;
    else if (keyword_is(*protocol, "pop3")) kind = NET_POP3, default_port = 110;
    else {
      report_error(run, tag,
                   "CVWEB only recognizes 'http', 'ftp', 'smtp', and 'pop3' as valid options for the 'protocol' "
                   "option." + std::string(kSeeDocs));
      return value_new();
    }
  }
  NetTlsOptions tls;
  if (!line_safe(run, tag, "server", server) || !read_tls_options(run, tag, kind, &tls)) return value_new();
  if (tls.mode == TLS_IMPLICIT) default_port = implicit_port(kind);
  int64_t port = default_port;
  if (port_text && !whole_option(run, *port_text, 65535, &port)) {
    report_error(run, tag, not_non_negative("port"));
    return value_new();
  }
  // The protocol's own TLS port means TLS from the start.
  if (tls.mode == TLS_DEFAULT && kind != NET_RAW && port == implicit_port(kind)) tls.mode = TLS_IMPLICIT;

  size_t slot = connections(run).size();
  connections(run).push_back(net_conn_new());
  NetConn& conn = *connections(run)[slot];
  const NetLimits& limits = net_limits();
  conn.tls_options = tls;
  conn.timeout_seconds = limits.timeout_seconds;
  net_start_deadline(conn, limits.deadline_seconds);
  if (!open_connection(run, tag, conn, *server, kind, static_cast<int>(port))) {
    connections(run)[slot].reset();
    return value_new();
  }
  // Resolved again: evaluating the options may have rebuilt the variable.
  store(run, tag, *socketvar, value_from_integer(static_cast<int32_t>(slot)));
  return value_new();
}

Connections::~Connections() {
  // The goodbyes at the end of the run get a few seconds of their own.
  constexpr int kCloseSeconds = 5;
  for (std::unique_ptr<NetConn>& conn : slots) {
    if (!conn) continue;
    net_start_deadline(*conn, std::min(kCloseSeconds, net_limits().deadline_seconds));
    close_by_kind(*conn);
  }
}
