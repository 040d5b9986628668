// POP3 client: log-in, STAT/LIST, RETR with the message split, DELE, QUIT.
#include "net/pop3.h"

#include <cstdio>

#include "base/nocase.h"
#include "net/net_limits.h"
#include "net/tls.h"
#include "base/nocase.h"

namespace {

// More messages than this is not a mailbox a page can list; refusing it
// keeps a hostile count from sizing the array.
constexpr uint32_t kMaxMessages = 1000000;

std::string_view strip_line_end(std::string_view line) {
  if (!line.empty() && line.back() == '\n') line.remove_suffix(1);
  if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
  return line;
}

// "+OK " with text, or "+OK" alone on its line.
bool is_positive(std::string_view reply) {
  return (reply.size() >= 4 && reply.substr(0, 4) == "+OK ") || reply == "+OK\r\n";
}

// The reply is shown as it came, line end included.
void refuse(std::string& err, std::string_view reply) {
  err += "Error:  Expected +OK response.  Received ";
  err += reply;
  err += ".\n";
}

// Reads a single-line reply into `reply` and checks it.
bool expect_ok(std::string& err, NetConn& conn, std::string& reply) {
  if (!net_read_raw_line(conn, reply, net_limits().line_max)) {
    std::string_view rest = net_unread(conn);
    reply.assign(rest.substr(0, 256));
    net_consume(conn, rest.size());
    // A reply cut short by a limit or the deadline counts as none.
    if (!conn.note.empty()) {
      net_take_note(conn, err);
      refuse(err, reply);
      return false;
    }
  }
  if (is_positive(reply)) return true;
  refuse(err, reply);
  return false;
}

bool command(std::string& err, NetConn& conn, const std::string& text, const std::string& failure,
             std::string& reply) {
  if (!net_send(conn, text)) {
    err += failure;
    net_take_note(conn, err);
    return false;
  }
  return expect_ok(err, conn, reply);
}

bool command(std::string& err, NetConn& conn, const std::string& text, const std::string& failure) {
  std::string reply;
  return command(err, conn, text, failure, reply);
}

std::string number_text(uint32_t number) { return std::to_string(number); }

// The body lines of a multi-line reply up to the "." line, first dots of
// stuffed lines removed; each line and the whole are bounded.
bool read_multiline(std::string& err, NetConn& conn, std::string& lines) {
  const NetLimits& limits = net_limits();
  std::string line;
  for (;;) {
    if (!net_read_raw_line(conn, line, limits.line_max)) {
      if (conn.note.empty()) err += "Error:  Server dropped connection.\n";
      net_take_note(conn, err);
      return false;
    }
    std::string_view text = strip_line_end(line);
    if (text == ".") return true;
    if (lines.size() + line.size() > limits.body_max) {
      err += net_limit_text("The message", limits.body_max, "bytes", "CVML_NET_BODY_MAX");
      return false;
    }
    lines += line[0] == '.' ? std::string_view(line).substr(1) : std::string_view(line);
  }
}

// The decimal number at the start of `text`; digits beyond 32 bits saturate.
uint32_t leading_number(std::string_view text) {
  uint64_t value = 0;
  for (char c : text) {
    if (c < '0' || c > '9') break;
    value = value * 10 + static_cast<uint64_t>(c - '0');
    if (value > UINT32_MAX) return UINT32_MAX;
  }
  return static_cast<uint32_t>(value);
}

bool has_line_break(std::string_view text) {
  return text.find_first_of(std::string_view("\r\n\0", 3)) != std::string_view::npos;
}

}  // namespace

bool pop3_set_server(NetConn& conn, std::string_view host, int port, std::string_view user,
                     std::string_view password) {
  Pop3State* state = net_attach_state<Pop3State>(conn, NET_POP3);
  if (!state) return false;
  state->host = host;
  state->user = user;
  state->password = password;
  conn.port = port;
  return true;
}

Pop3State* pop3_state(NetConn& conn) { return net_get_state<Pop3State>(conn, NET_POP3); }

bool pop3_connect(std::string& err, NetConn& conn) {
  Pop3State* state = pop3_state(conn);
  if (!state || state->host.empty() || state->user.empty() || state->password.empty()) return false;
  // A line break would end USER or PASS early and smuggle in a command.
  if (has_line_break(state->user) || has_line_break(state->password)) {
    err += "Error:  The user name or password contains a line break.\n";
    return false;
  }
  return net_connect(err, conn, state->host, conn.port) && pop3_start_session(err, conn);
}

bool pop3_start_session(std::string& err, NetConn& conn) {
  Pop3State* state = pop3_state(conn);
  if (!state) return false;
  std::string reply;
  if (!expect_ok(err, conn, reply)) return false;
  if (conn.tls_options.mode == TLS_STARTTLS && !conn.tls) {
    if (!command(err, conn, "STLS\r\n", "Error sending STLS\n")) return false;
    conn.buffer.clear();  // nothing sent before the handshake may count after it
    conn.read_pos = 0;
    if (!tls_start(err, conn)) return false;
  }
  if (!command(err, conn, "USER " + state->user + "\r\n", "Error sending USER " + state->user + "\n")) return false;
  if (!command(err, conn, "PASS " + state->password + "\r\n", "Error sending PASS " + state->password + "\n"))
    return false;
  return pop3_refresh(err, conn);
}

bool pop3_refresh(std::string& err, NetConn& conn) {
  Pop3State* state = pop3_state(conn);
  if (!state || !conn.connected) return false;
  if (!command(err, conn, "RSET\r\n", "Error sending RSET\n")) return false;
  std::string reply;
  if (!command(err, conn, "STAT\r\n", "Error sending STAT\n", reply)) return false;
  uint32_t count = leading_number(std::string_view(reply).substr(4));
  if (count > kMaxMessages) {
    err += "Error:  The server reported " + number_text(count) + " messages, more than can be listed.\n";
    return false;
  }
  state->sizes.clear();
  state->count = count;
  if (count == 0) return true;
  state->sizes.assign(count, 0);
  if (!command(err, conn, "LIST\r\n", "Error sending LIST\n")) return false;
  std::string lines;
  if (!read_multiline(err, conn, lines)) return false;
  size_t stored = 0;
  std::string_view rest = lines;
  while (!rest.empty() && stored < count) {
    size_t end = rest.find('\n');
    std::string_view line = rest.substr(0, end == std::string_view::npos ? rest.size() : end + 1);
    rest.remove_prefix(line.size());
    size_t blank = line.find(' ');
    if (blank != std::string_view::npos) state->sizes[stored++] = leading_number(line.substr(blank + 1));
  }
  return true;
}

void pop3_split_message(Pop3State& state, std::string_view message) {
  state.sender.clear();
  state.subject.clear();
  state.header.clear();
  state.body.clear();
  size_t pos = 0;
  while (pos < message.size()) {
    size_t end = message.find('\n', pos);
    size_t next = end == std::string_view::npos ? message.size() : end + 1;
    std::string_view line = message.substr(pos, next - pos);
    std::string_view text = strip_line_end(line);
    pos = next;
    if (text.empty()) {
      state.header.assign(message.substr(0, pos));
      state.body.assign(message.substr(pos));
      return;
    }
    if (text.size() >= 6 && equals_nocase(text.substr(0, 6), "From: "))
      state.sender.assign(text.substr(6));
    else if (text.size() >= 9 && equals_nocase(text.substr(0, 9), "Subject: "))
      state.subject.assign(text.substr(9));
  }
  state.header.assign(message);
}

bool pop3_retrieve(std::string& err, NetConn& conn, uint32_t number) {
  Pop3State* state = pop3_state(conn);
  if (!state || !conn.connected) return false;
  std::string text = number_text(number);
  if (!command(err, conn, "RETR " + text + "\r\n", "Error sending RETR " + text + "\n")) return false;
  std::string message;
  if (!read_multiline(err, conn, message)) return false;
  pop3_split_message(*state, message);
  return true;
}

bool pop3_delete(std::string& err, NetConn& conn, uint32_t number) {
  Pop3State* state = pop3_state(conn);
  if (!state || !conn.connected) return false;
  std::string text = number_text(number);
  return command(err, conn, "DELE " + text + "\r\n", "Error sending DELE " + text + "\n");
}

void pop3_quit(NetConn& conn) {
  if (conn.connected && net_send(conn, "QUIT\r\n")) {
    std::string reply;
    net_read_raw_line(conn, reply);
  }
  net_close(conn);
}
