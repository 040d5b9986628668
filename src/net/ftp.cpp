// FTP client: control-connection replies, log-in, and binary transfers over
// passive or active data connections.
#include "net/ftp.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "net/net_limits.h"
#include "net/tls.h"

namespace {

// Active mode tries this many consecutive ports when one is taken.
constexpr int kPortAttempts = 50;

int code_of(std::string_view line) {
  if (line.size() < 3) return 0;
  int code = 0;
  for (size_t i = 0; i < 3; ++i) {
    if (line[i] < '0' || line[i] > '9') return 0;
    code = code * 10 + (line[i] - '0');
  }
  return code;
}

bool has_line_break(std::string_view text) {
  return text.find_first_of(std::string_view("\r\n\0", 3)) != std::string_view::npos;
}

// A failed read: the socket layer's reason, or that the server closed.
void dropped(std::string& err, NetConn& conn) {
  if (conn.note.empty()) err += "Error:  Server dropped connection.\n";
  net_take_note(conn, err);
}

// Reads a reply; true when its code begins with `digit` ('1' preliminary,
// '2' completed, '3' more needed).
bool expect(std::string& err, NetConn& conn, char digit, FtpReply& reply) {
  if (!ftp_read_reply(conn, reply)) {
    dropped(err, conn);
    return false;
  }
  if (reply.code / 100 == digit - '0') return true;
  err += "Error:  Expected ";
  err += digit;
  err += "xx response.  Received ";
  err += reply.text;
  if (reply.text.empty() || reply.text.back() != '\n') err += '\n';
  return false;
}

// Reads a reply of any code.
bool read_any(std::string& err, NetConn& conn, FtpReply& reply) {
  if (ftp_read_reply(conn, reply)) return true;
  dropped(err, conn);
  return false;
}

bool send_command(std::string& err, NetConn& conn, const std::string& line) {
  if (net_send(conn, line + "\r\n")) return true;
  err += "Error sending " + line + "\n";
  net_take_note(conn, err);
  return false;
}

// Sends one command whose argument comes from the page and expects a reply
// of class `digit`.
bool simple_command(std::string& err, NetConn& conn, std::string_view verb, std::string_view argument) {
  if (!ftp_state(conn) || !conn.connected) return false;
  if (has_line_break(argument)) {
    err += "Error:  The name contains a line break.\n";
    return false;
  }
  std::string line(verb);
  line += ' ';
  line += argument;
  FtpReply reply;
  return send_command(err, conn, line) && expect(err, conn, '2', reply);
}

// A data connection: in active mode the listening socket until the server
// connects, then the connected socket.
struct DataLink {
  std::unique_ptr<SocketRec> listener;
  NetConn conn;  // the data socket, read and written through the socket layer
};

// The numeric text of an address (IPv4 or IPv6).
std::string address_text(const sockaddr_storage& address) {
  char text[INET6_ADDRSTRLEN] = {};
  if (address.ss_family == AF_INET6)
    inet_ntop(AF_INET6, &reinterpret_cast<const sockaddr_in6&>(address).sin6_addr, text, sizeof text);
  else
    inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in&>(address).sin_addr, text, sizeof text);
  return text;
}

bool same_host(const sockaddr_storage& a, const sockaddr_storage& b) {
  if (a.ss_family != b.ss_family) return false;
  if (a.ss_family == AF_INET6)
    return std::memcmp(&reinterpret_cast<const sockaddr_in6&>(a).sin6_addr,
                       &reinterpret_cast<const sockaddr_in6&>(b).sin6_addr, sizeof(in6_addr)) == 0;
  return reinterpret_cast<const sockaddr_in&>(a).sin_addr.s_addr ==
         reinterpret_cast<const sockaddr_in&>(b).sin_addr.s_addr;
}

}  // namespace

bool ftp_parse_epsv(std::string_view text, int& port) {
  size_t open = text.find('(');
  if (open == std::string_view::npos || text.size() < open + 5) return false;
  char d = text[open + 1];
  if (text.substr(open + 1, 3) != std::string(3, d)) return false;
  size_t pos = open + 4;
  long value = 0;
  size_t start = pos;
  while (pos < text.size() && pos - start < 5 && text[pos] >= '0' && text[pos] <= '9') value = value * 10 + (text[pos++] - '0');
  if (pos == start || pos >= text.size() || text[pos] != d || value < 1 || value > 65535) return false;
  port = static_cast<int>(value);
  return true;
}

namespace {

// EPSV (PASV when the server refuses it): the data connection goes to the
// control connection's peer, not to an address in the reply, so a server
// cannot point the client elsewhere.
bool open_passive(std::string& err, NetConn& conn, FtpState& state, DataLink& link) {
  FtpReply reply;
  int port = 0;
  bool extended = !state.epsv_refused;
  if (extended) {
    if (!send_command(err, conn, "EPSV") || !read_any(err, conn, reply)) return false;
    if (reply.code / 100 == 5 && conn.socket->address.ss_family == AF_INET) {
      state.epsv_refused = true;
      extended = false;
    } else if (reply.code != 229 || !ftp_parse_epsv(reply.text, port)) {
      err += "Error:  Expected 229 response.  Received " + reply.text;
      if (reply.text.empty() || reply.text.back() != '\n') err += '\n';
      return false;
    }
  }
  if (!extended) {
    if (!send_command(err, conn, "PASV") || !expect(err, conn, '2', reply)) return false;
    uint32_t address = 0;
    if (reply.code != 227 || !ftp_parse_pasv(reply.text, address, port)) {
      err += "Error:  Expected 227 response.  Received " + reply.text;
      if (reply.text.empty() || reply.text.back() != '\n') err += '\n';
      return false;
    }
  }
  std::string host = address_text(conn.socket->address);
  link.conn.socket = net_connect_socket(err, AF_INET, SOCK_STREAM, 0, false, host, port,
                                        static_cast<int>(net_wait_ms(conn)));
  link.conn.connected = link.conn.socket != nullptr;
  return link.conn.connected;
}

// PORT (EPRT over IPv6): listen on the control connection's local address,
// on the next data port from the base (or on any free port when the base
// is 0).
bool open_active(std::string& err, NetConn& conn, FtpState& state, DataLink& link) {
  sockaddr_storage local{};
  socklen_t length = sizeof local;
  if (::getsockname(conn.socket->handle, reinterpret_cast<sockaddr*>(&local), &length) != 0) {
    err += "Error obtaining the local address of the connection.\n";
    return false;
  }
  for (int attempt = 0; attempt < kPortAttempts && !link.listener; ++attempt) {
    int port = state.next_data_port;
    if (state.base_data_port > 0) state.next_data_port = port >= 65535 ? state.base_data_port : port + 1;
    std::string bind_err;
    link.listener = net_bind_socket(bind_err, SOCK_STREAM, 0, false, local, port);
    if (link.listener && ::listen(link.listener->handle, 1) != 0) link.listener.reset();
    if (!link.listener && (attempt + 1 == kPortAttempts || state.base_data_port == 0)) {
      err += bind_err.empty() ? "Error listening on the data port.\n" : bind_err;
      return false;
    }
  }
  sockaddr_storage bound{};
  length = sizeof bound;
  ::getsockname(link.listener->handle, reinterpret_cast<sockaddr*>(&bound), &length);
  char line[128];
  if (local.ss_family == AF_INET6) {
    unsigned port = ntohs(reinterpret_cast<sockaddr_in6&>(bound).sin6_port);
    std::snprintf(line, sizeof line, "EPRT |2|%s|%u|", address_text(local).c_str(), port);
  } else {
    uint32_t address = ntohl(reinterpret_cast<sockaddr_in&>(local).sin_addr.s_addr);
    unsigned port = ntohs(reinterpret_cast<sockaddr_in&>(bound).sin_port);
    std::snprintf(line, sizeof line, "PORT %u,%u,%u,%u,%u,%u", address >> 24, (address >> 16) & 255,
                  (address >> 8) & 255, address & 255, port >> 8, port & 255);
  }
  FtpReply reply;
  return send_command(err, conn, line) && expect(err, conn, '2', reply);
}

// Active mode: waits for the server's connection, which must come from the
// control connection's peer.
bool accept_data(std::string& err, NetConn& conn, DataLink& link) {
  if (!link.listener) return true;
  NetConn waiting;
  waiting.socket = std::move(link.listener);
  waiting.deadline = conn.deadline;
  waiting.deadline_seconds = conn.deadline_seconds;
  if (!net_poll(waiting, false, net_wait_ms(conn))) {
    err += "Error:  The server did not open the data connection.\n";
    net_take_note(waiting, err);
    return false;
  }
  sockaddr_storage peer{};
  socklen_t length = sizeof peer;
  int handle;
  do {
    handle = ::accept4(waiting.socket->handle, reinterpret_cast<sockaddr*>(&peer), &length,
                       SOCK_NONBLOCK | SOCK_CLOEXEC);
  } while (handle < 0 && errno == EINTR);
  if (handle < 0) {
    err += "Error accepting the data connection.\n";
    return false;
  }
  link.conn.socket = std::make_unique<SocketRec>();
  link.conn.socket->handle = handle;
  link.conn.socket->address = peer;
  link.conn.socket->address_length = length;
  link.conn.connected = true;
  if (!same_host(peer, conn.socket->address)) {
    err += "Error:  The data connection came from another host.\n";
    return false;
  }
  return true;
}

}  // namespace

bool ftp_receive(std::string& err, NetConn& data, std::string& received, bool listing) {
  const NetLimits& limits = net_limits();
  size_t line_start = 0;
  for (;;) {
    if (net_fill(data) == 0) {
      if (data.eof) return true;
      net_take_note(data, err);
      return false;
    }
    std::string_view piece = net_unread(data);
    if (piece.size() > limits.body_max - received.size()) {
      err += net_limit_text(listing ? "The listing" : "The file", limits.body_max, "bytes", "CVML_NET_BODY_MAX");
      return false;
    }
    received += piece;
    net_consume(data, piece.size());
    if (listing) {
      size_t end;
      while ((end = received.find('\n', line_start)) != std::string::npos) line_start = end + 1;
      if (received.size() - line_start > limits.line_max) {
        err += net_limit_text("A listing line", limits.line_max, "bytes", "CVML_NET_LINE_MAX");
        return false;
      }
    }
  }
}

namespace {

// Runs one transfer command: data connection, command, preliminary reply,
// the data in one direction, and the completion reply.
bool transfer(std::string& err, NetConn& conn, const std::string& line, std::string* received,
              std::string_view sent, bool listing = false) {
  FtpState* state = ftp_state(conn);
  if (!state || !conn.connected || !conn.socket) return false;
  DataLink link;
  link.conn.timeout_seconds = conn.timeout_seconds;
  link.conn.deadline = conn.deadline;
  link.conn.deadline_seconds = conn.deadline_seconds;
  link.conn.tls_options = conn.tls_options;
  link.conn.peer_name = conn.peer_name;
  if (!(state->passive ? open_passive(err, conn, *state, link) : open_active(err, conn, *state, link))) return false;
  FtpReply reply;
  if (!send_command(err, conn, line) || !expect(err, conn, '1', reply)) return false;
  if (!accept_data(err, conn, link)) {
    // The server answers the failed data connection (425) on the control
    // connection; reading that answer keeps the next command's reply in step.
    ftp_read_reply(conn, reply);
    return false;
  }
  // Protected transfers run TLS on the data connection too, offering the
  // control connection's session again (servers may insist on that).
  bool moved = !state->protect || tls_start(err, link.conn, &conn);
  if (moved) {
    moved = received ? ftp_receive(err, link.conn, *received, listing) : net_send(link.conn, sent);
    if (!moved && !received) net_take_note(link.conn, err);
    if (moved && !received) tls_finish_sending(link.conn);
  }
  net_close(link.conn);
  if (!moved) err += "Error:  The data connection failed before the transfer was complete.\n";
  bool done = expect(err, conn, '2', reply);
  return moved && done;
}

}  // namespace

bool ftp_read_reply(NetConn& conn, FtpReply& reply) {
  reply = FtpReply{};
  const size_t limit = net_limits().line_max;
  std::string line;
  if (!net_read_raw_line(conn, line, limit)) return false;
  reply.code = code_of(line);
  reply.text = line;
  if (reply.code == 0 || line.size() < 4 || line[3] != '-') return true;
  // A multi-line reply ends at the line with the same code and a blank.
  for (;;) {
    if (!net_read_raw_line(conn, line, limit)) return false;
    if (reply.text.size() + line.size() > limit) {
      conn.note = net_limit_text("A reply from the server", limit, "bytes", "CVML_NET_LINE_MAX");
      return false;
    }
    reply.text += line;
    if (line.size() >= 4 && code_of(line) == reply.code && line[3] == ' ') return true;
  }
}

bool ftp_parse_pasv(std::string_view text, uint32_t& address, int& port) {
  size_t pos = text.find('(');
  if (pos == std::string_view::npos) {
    pos = text.find_first_of("0123456789", 4);
    if (pos == std::string_view::npos) return false;
  } else {
    ++pos;
  }
  unsigned parts[6];
  for (int i = 0; i < 6; ++i) {
    if (i > 0) {
      if (pos >= text.size() || text[pos] != ',') return false;
      ++pos;
    }
    size_t start = pos;
    unsigned value = 0;
    while (pos < text.size() && pos - start < 4 && text[pos] >= '0' && text[pos] <= '9')
      value = value * 10 + static_cast<unsigned>(text[pos++] - '0');
    if (pos == start || value > 255) return false;
    parts[i] = value;
  }
  address = parts[0] << 24 | parts[1] << 16 | parts[2] << 8 | parts[3];
  port = static_cast<int>(parts[4] << 8 | parts[5]);
  return true;
}

bool ftp_set_server(NetConn& conn, std::string_view host, int port, std::string_view user,
                    std::string_view password, std::string_view account, bool passive, int base_data_port) {
  FtpState* state = net_attach_state<FtpState>(conn, NET_FTP);
  if (!state) return false;
  state->host = host;
  state->user = user.empty() ? std::string_view("anonymous") : user;
  state->password = password;
  state->account = account;
  state->passive = passive;
  if (base_data_port < 0 || base_data_port > 65535) base_data_port = kFtpDefaultDataPort;
  state->base_data_port = state->next_data_port = base_data_port;
  conn.port = port;
  conn.tls_options.resumable = true;
  return true;
}

FtpState* ftp_state(NetConn& conn) { return net_get_state<FtpState>(conn, NET_FTP); }

bool ftp_connect(std::string& err, NetConn& conn) {
  FtpState* state = ftp_state(conn);
  if (!state || state->host.empty()) return false;
  if (has_line_break(state->user) || has_line_break(state->password) || has_line_break(state->account)) {
    err += "Error:  The user name, password or account contains a line break.\n";
    return false;
  }
  return net_connect(err, conn, state->host, conn.port) && ftp_start_session(err, conn);
}

bool ftp_start_session(std::string& err, NetConn& conn) {
  FtpState* state = ftp_state(conn);
  if (!state) return false;
  FtpReply reply;
  // 120: the server will be ready shortly; its 220 follows.
  if (!ftp_read_reply(conn, reply) || (reply.code == 120 && !ftp_read_reply(conn, reply)) || reply.code != 220) {
    net_take_note(conn, err);
    err += "Error:  Expected 220 response.  Received " + reply.text;
    if (reply.text.empty() || reply.text.back() != '\n') err += '\n';
    return false;
  }
  // Explicit FTPS: the log-in already runs inside TLS.
  if (conn.tls_options.mode == TLS_STARTTLS && !conn.tls) {
    if (!send_command(err, conn, "AUTH TLS") || !expect(err, conn, '2', reply)) return false;
    conn.buffer.clear();  // nothing sent before the handshake may count after it
    conn.read_pos = 0;
    if (!tls_start(err, conn)) return false;
  }
  if (!send_command(err, conn, "USER " + state->user) || !read_any(err, conn, reply)) return false;
  if (reply.code == 331) {
    if (!send_command(err, conn, "PASS " + state->password) || !read_any(err, conn, reply)) return false;
  }
  if (reply.code == 332) {
    if (!send_command(err, conn, "ACCT " + state->account) || !expect(err, conn, '2', reply)) return false;
  } else if (reply.code / 100 != 2) {
    err += "Error:  Expected 230 response.  Received " + reply.text;
    if (reply.text.empty() || reply.text.back() != '\n') err += '\n';
    return false;
  }
  if (conn.tls) {
    // Data connections are protected too.
    if (!send_command(err, conn, "PBSZ 0") || !expect(err, conn, '2', reply)) return false;
    if (!send_command(err, conn, "PROT P") || !expect(err, conn, '2', reply)) return false;
    state->protect = true;
  }
  return send_command(err, conn, "TYPE I") && expect(err, conn, '2', reply);
}

bool ftp_get(std::string& err, NetConn& conn, std::string_view remote, std::string& data) {
  if (has_line_break(remote)) {
    err += "Error:  The name contains a line break.\n";
    return false;
  }
  data.clear();
  return transfer(err, conn, "RETR " + std::string(remote), &data, {});
}

bool ftp_put(std::string& err, NetConn& conn, std::string_view remote, std::string_view data) {
  if (has_line_break(remote)) {
    err += "Error:  The name contains a line break.\n";
    return false;
  }
  return transfer(err, conn, "STOR " + std::string(remote), nullptr, data);
}

bool ftp_delete(std::string& err, NetConn& conn, std::string_view remote) {
  return simple_command(err, conn, "DELE", remote);
}
bool ftp_cd(std::string& err, NetConn& conn, std::string_view dir) { return simple_command(err, conn, "CWD", dir); }
bool ftp_md(std::string& err, NetConn& conn, std::string_view dir) { return simple_command(err, conn, "MKD", dir); }
bool ftp_rd(std::string& err, NetConn& conn, std::string_view dir) { return simple_command(err, conn, "RMD", dir); }

bool ftp_list(std::string& err, NetConn& conn, std::string& listing) {
  listing.clear();
  return transfer(err, conn, "LIST", &listing, {}, true);
}

void ftp_quit(NetConn& conn) {
  if (conn.connected && net_send(conn, "QUIT\r\n")) {
    FtpReply reply;
    ftp_read_reply(conn, reply);
  }
  net_close(conn);
}
