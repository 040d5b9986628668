// Fuzz target for the network clients' reading of what servers send: the
// input's first byte picks a client, the rest is the server's side of the
// connection (HTTP responses with chunked and sized bodies, SMTP replies to
// the greeting, EHLO, AUTH and a whole send, POP3 replies and a message,
// FTP replies, PASV and EPSV replies and a listing).  Small limits make the
// limit paths reachable; every read must end, within the limits.
#include <sys/socket.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "net/ftp.h"
#include "net/http.h"
#include "net/net_limits.h"
#include "net/pop3.h"
#include "net/smtp.h"

namespace {

// A connection whose server has sent `reply` and stopped sending; what the
// client sends lands in the peer's buffer (inputs are far smaller than it).
struct Scripted {
  NetConn conn;
  int peer = -1;
  explicit Scripted(std::string_view reply) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) return;
    peer = ends[1];
    size_t sent = 0;
    while (sent < reply.size()) {
      ssize_t n = send(peer, reply.data() + sent, reply.size() - sent, MSG_NOSIGNAL);
      if (n <= 0) break;
      sent += static_cast<size_t>(n);
    }
    shutdown(peer, SHUT_WR);
    conn.socket = std::make_unique<SocketRec>();
    conn.socket->handle = ends[0];
    conn.connected = true;
    conn.timeout_seconds = 1;
    net_start_deadline(conn, 2);
  }
  ~Scripted() {
    net_close(conn);
    if (peer >= 0) close(peer);
  }
};

void check(bool condition) {
  if (!condition) __builtin_trap();
}

void http(std::string_view input, bool head_only) {
  Scripted s(input);
  HttpState* state = http_attach(s.conn);
  std::string err;
  http_read_response(err, s.conn, *state, head_only);
  const NetLimits& limits = net_limits();
  check(state->body.size() <= limits.body_max);
  check(state->status_line.size() <= limits.status_line_max);
}

void smtp(std::string_view input, bool with_auth) {
  Scripted s(input);
  smtp_set_server(s.conn, "mail.example", 25);
  SmtpState* state = smtp_state(s.conn);
  state->helo_name = "client.example";
  if (with_auth) {
    state->user = "ann";
    state->password = "pw";
  }
  s.conn.tls_options.verify = false;
  std::string err;
  if (!smtp_start_session(err, s.conn)) return;
  smtp_set_sender(s.conn, "Ann <a@example.com>");
  smtp_add_recipient(s.conn, "b@example.com");
  smtp_set_body(s.conn, "Hello\n.\nthere\r");
  smtp_send(err, s.conn);
}

void pop3(std::string_view input) {
  Scripted s(input);
  pop3_set_server(s.conn, "mail.example", 110, "ann", "pw");
  std::string err;
  if (!pop3_start_session(err, s.conn)) return;
  Pop3State* state = pop3_state(s.conn);
  check(state->sizes.size() == state->count || state->sizes.empty());
  if (pop3_retrieve(err, s.conn, 1)) check(state->header.size() + state->body.size() <= net_limits().body_max);
  pop3_delete(err, s.conn, 2);
}

void ftp(std::string_view input) {
  {
    Scripted s(input);
    ftp_set_server(s.conn, "ftp.example", 21, "ann", "pw", "acct", true, 0);
    std::string err;
    ftp_start_session(err, s.conn);
    FtpReply reply;
    while (ftp_read_reply(s.conn, reply)) {
      uint32_t address;
      int port;
      ftp_parse_pasv(reply.text, address, port);
      if (ftp_parse_epsv(reply.text, port)) check(port > 0 && port < 65536);
    }
  }
  Scripted data(input);
  std::string err, listing;
  if (ftp_receive(err, data.conn, listing, true)) check(listing.size() <= net_limits().body_max);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool limited = [] {
    NetLimits limits;
    limits.status_line_max = 200;
    limits.header_line_max = 300;
    limits.header_count_max = 20;
    limits.body_max = 2000;
    limits.line_max = 400;
    net_set_limits(limits);
    return true;
  }();
  (void)limited;
  if (size == 0) return 0;
  std::string_view input(reinterpret_cast<const char*>(data) + 1, size - 1);
  switch (data[0] % 7) {
    case 0: http(input, false); break;
    case 1: http(input, true); break;
    case 2: smtp(input, false); break;
    case 3: smtp(input, true); break;
    case 4: pop3(input); break;
    case 5: ftp(input); break;
    case 6: {
      HttpUrl url;
      http_parse_url(input, url);
      break;
    }
  }
  return 0;
}
