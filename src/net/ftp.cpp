// FTP client: control-connection replies, log-in, and binary transfers over
// passive or active data connections.
#include "net/ftp.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdio>

namespace {

// A control reply longer than this is refused rather than buffered.
constexpr size_t kMaxReply = 65536;
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

bool has_line_break(std::string_view text) { return text.find_first_of("\r\n") != std::string_view::npos; }

// Reads a reply; true when its code begins with `digit` ('1' preliminary,
// '2' completed, '3' more needed).
bool expect(std::string& err, NetConn& conn, char digit, FtpReply& reply) {
  if (!ftp_read_reply(conn, reply)) {
    err += "Error:  Server dropped connection.\n";
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
  err += "Error:  Server dropped connection.\n";
  return false;
}

bool send_command(std::string& err, NetConn& conn, const std::string& line) {
  if (net_send(conn, line + "\r\n")) return true;
  err += "Error sending " + line + "\n";
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

std::string address_text(in_addr address) {
  char text[INET_ADDRSTRLEN] = {};
  inet_ntop(AF_INET, &address, text, sizeof text);
  return text;
}

// PASV: the data connection goes to the control connection's peer, not to
// the address in the reply, so a server cannot point the client elsewhere.
bool open_passive(std::string& err, NetConn& conn, DataLink& link) {
  FtpReply reply;
  if (!send_command(err, conn, "PASV") || !expect(err, conn, '2', reply)) return false;
  uint32_t address = 0;
  int port = 0;
  if (reply.code != 227 || !ftp_parse_pasv(reply.text, address, port)) {
    err += "Error:  Expected 227 response.  Received " + reply.text;
    if (reply.text.empty() || reply.text.back() != '\n') err += '\n';
    return false;
  }
  std::string host = address_text(conn.socket->address.sin_addr);
  link.conn.socket = net_connect_socket(err, AF_INET, SOCK_STREAM, 0, false, host, port);
  link.conn.connected = link.conn.socket != nullptr;
  return link.conn.connected;
}

// PORT: listen on the control connection's local address, on the next data
// port from the base (or on any free port when the base is 0).
bool open_active(std::string& err, NetConn& conn, FtpState& state, DataLink& link) {
  sockaddr_in local{};
  socklen_t length = sizeof local;
  if (::getsockname(conn.socket->handle, reinterpret_cast<sockaddr*>(&local), &length) != 0) {
    err += "Error obtaining the local address of the connection.\n";
    return false;
  }
  for (int attempt = 0; attempt < kPortAttempts && !link.listener; ++attempt) {
    int port = state.next_data_port;
    if (state.base_data_port > 0) state.next_data_port = port >= 65535 ? state.base_data_port : port + 1;
    std::string bind_err;
    link.listener = net_bind_socket(bind_err, AF_INET, SOCK_STREAM, 0, false, local.sin_addr.s_addr, port);
    if (link.listener && ::listen(link.listener->handle, 1) != 0) link.listener.reset();
    if (!link.listener && (attempt + 1 == kPortAttempts || state.base_data_port == 0)) {
      err += bind_err.empty() ? "Error listening on the data port.\n" : bind_err;
      return false;
    }
  }
  sockaddr_in bound{};
  length = sizeof bound;
  ::getsockname(link.listener->handle, reinterpret_cast<sockaddr*>(&bound), &length);
  uint32_t address = ntohl(local.sin_addr.s_addr);
  unsigned port = ntohs(bound.sin_port);
  char line[64];
  std::snprintf(line, sizeof line, "PORT %u,%u,%u,%u,%u,%u", address >> 24, (address >> 16) & 255,
                (address >> 8) & 255, address & 255, port >> 8, port & 255);
  FtpReply reply;
  return send_command(err, conn, line) && expect(err, conn, '2', reply);
}

// Active mode: waits for the server's connection, which must come from the
// control connection's peer.
bool accept_data(std::string& err, NetConn& conn, DataLink& link) {
  if (!link.listener) return true;
  NetConn waiting;
  waiting.socket = std::move(link.listener);
  if (!net_wait_readable(waiting, conn.timeout_seconds, 0)) {
    err += "Error:  The server did not open the data connection.\n";
    return false;
  }
  sockaddr_in peer{};
  socklen_t length = sizeof peer;
  int handle;
  do {
    handle = ::accept(waiting.socket->handle, reinterpret_cast<sockaddr*>(&peer), &length);
  } while (handle < 0 && errno == EINTR);
  if (handle < 0) {
    err += "Error accepting the data connection.\n";
    return false;
  }
  link.conn.socket = std::make_unique<SocketRec>();
  link.conn.socket->handle = handle;
  link.conn.connected = true;
  if (peer.sin_addr.s_addr != conn.socket->address.sin_addr.s_addr) {
    err += "Error:  The data connection came from another host.\n";
    return false;
  }
  return true;
}

// Reads the data connection to its end; false when it fails or falls
// silent for longer than the time-out.
bool receive_all(NetConn& data, std::string& received) {
  char chunk[4096];
  for (;;) {
    if (!net_wait_readable(data, data.timeout_seconds, 0)) return false;
    ssize_t got = ::recv(data.socket->handle, chunk, sizeof chunk, 0);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return false;
    if (got == 0) return true;
    received.append(chunk, static_cast<size_t>(got));
  }
}

// Sends all of `bytes`; a server that stops reading ends the send after the
// time-out instead of holding the page.
bool send_all(NetConn& data, std::string_view bytes) {
  timeval limit{data.timeout_seconds, 0};
  ::setsockopt(data.socket->handle, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
  return net_send(data, bytes);
}

// Runs one transfer command: data connection, command, preliminary reply,
// the data in one direction, and the completion reply.
bool transfer(std::string& err, NetConn& conn, const std::string& line, std::string* received,
              std::string_view sent) {
  FtpState* state = ftp_state(conn);
  if (!state || !conn.connected || !conn.socket) return false;
  DataLink link;
  link.conn.timeout_seconds = conn.timeout_seconds;
  if (!(state->passive ? open_passive(err, conn, link) : open_active(err, conn, *state, link))) return false;
  FtpReply reply;
  if (!send_command(err, conn, line) || !expect(err, conn, '1', reply)) return false;
  if (!accept_data(err, conn, link)) {
    // The server answers the failed data connection (425) on the control
    // connection; reading that answer keeps the next command's reply in step.
    ftp_read_reply(conn, reply);
    return false;
  }
  bool moved = received ? receive_all(link.conn, *received) : send_all(link.conn, sent);
  net_close(link.conn);
  if (!moved) err += "Error:  The data connection failed before the transfer was complete.\n";
  bool done = expect(err, conn, '2', reply);
  return moved && done;
}

}  // namespace

bool ftp_read_reply(NetConn& conn, FtpReply& reply) {
  reply = FtpReply{};
  std::string line;
  if (!net_read_raw_line(conn, line, kMaxReply)) return false;
  reply.code = code_of(line);
  reply.text = line;
  if (reply.code == 0 || line.size() < 4 || line[3] != '-') return true;
  // A multi-line reply ends at the line with the same code and a blank.
  for (;;) {
    if (!net_read_raw_line(conn, line, kMaxReply) || reply.text.size() > kMaxReply) return false;
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
  if (!net_connect(err, conn, state->host, conn.port)) return false;
  FtpReply reply;
  // 120: the server will be ready shortly; its 220 follows.
  if (!ftp_read_reply(conn, reply) || (reply.code == 120 && !ftp_read_reply(conn, reply)) || reply.code != 220) {
    err += "Error:  Expected 220 response.  Received " + reply.text;
    if (reply.text.empty() || reply.text.back() != '\n') err += '\n';
    return false;
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
  return transfer(err, conn, "LIST", &listing, {});
}

void ftp_quit(NetConn& conn) {
  if (conn.connected && net_send(conn, "QUIT\r\n")) {
    FtpReply reply;
    ftp_read_reply(conn, reply);
  }
  net_close(conn);
}
