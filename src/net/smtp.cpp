// SMTP client: the HELO greeting, and one MIME message per transaction.
#include "net/smtp.h"

#include <chrono>
#include <random>

#include "base/encoders.h"

namespace {

// A reply longer than this is not a reply; reading stops there.
constexpr size_t kMaxReply = 65536;
constexpr size_t kMaxLine = 990;

// Reads one whole reply, continuation lines ("250-") included, with its
// line ends, so the next command starts on a fresh reply.
std::string read_reply(NetConn& conn) {
  std::string reply;
  for (;;) {
    std::string_view unread = net_unread(conn);
    size_t end = unread.find('\n');
    if (end == std::string_view::npos) {
      if (unread.size() > kMaxReply || net_fill(conn) == 0) {
        reply += net_unread(conn);
        net_consume(conn, net_unread(conn).size());
        return reply;
      }
      continue;
    }
    std::string_view line = unread.substr(0, end + 1);
    reply += line;
    net_consume(conn, end + 1);
    bool continued = line.size() > 3 && line[3] == '-';
    if (!continued || reply.size() > kMaxReply) return reply;
  }
}

// "220 ", "250 " or "354 ": the reply must begin with the code and a blank.
bool expect(std::string& err, NetConn& conn, std::string_view code) {
  std::string reply = read_reply(conn);
  if (reply.size() >= 4 && reply.compare(0, 3, code) == 0 && reply[3] == ' ') return true;
  err += "Error:  Expected ";
  err += code;
  err += " response.  Received ";
  err += reply;
  if (reply.empty() || reply.back() != '\n') err += '\n';
  return false;
}

bool send_command(std::string& err, NetConn& conn, std::string_view command, std::string_view failure) {
  if (net_send(conn, command)) return true;
  err += failure;
  return false;
}

// A line break inside an address or header would end the command or header
// early and let page input add commands of its own.
bool has_line_break(std::string_view text) { return text.find_first_of("\r\n") != std::string_view::npos; }

bool check_lines(std::string& err, const SmtpState& state) {
  bool broken = has_line_break(state.sender);
  for (const std::string& text : state.recipients) broken = broken || has_line_break(text);
  for (const std::string& text : state.headers) broken = broken || has_line_break(text);
  if (broken) err += "Error:  An address or header line contains a line break.\n";
  return !broken;
}

}  // namespace

bool smtp_set_server(NetConn& conn, std::string_view host, int port) {
  SmtpState* state = net_attach_state<SmtpState>(conn, NET_SMTP);
  if (!state) return false;
  state->host = host;
  conn.port = port;
  return true;
}

SmtpState* smtp_state(NetConn& conn) { return net_get_state<SmtpState>(conn, NET_SMTP); }

bool smtp_connect(std::string& err, NetConn& conn) {
  SmtpState* state = smtp_state(conn);
  if (!state || state->host.empty()) return false;
  if (!net_connect(err, conn, state->host, conn.port)) return false;
  if (!expect(err, conn, "220")) return false;
  std::string local;
  if (!net_local_host_name(err, local)) return false;
  if (!send_command(err, conn, "HELO " + local + "\r\n", "Error sending HELO " + local + "\n")) return false;
  return expect(err, conn, "250");
}

void smtp_quit(NetConn& conn) {
  if (conn.connected) net_send(conn, "QUIT\r\n");
  net_close(conn);
}

void smtp_set_sender(NetConn& conn, std::string_view address) {
  if (SmtpState* state = smtp_state(conn)) state->sender = address;
}

void smtp_add_recipient(NetConn& conn, std::string_view address) {
  if (SmtpState* state = smtp_state(conn)) state->recipients.emplace_back(address);
}

void smtp_add_header(NetConn& conn, std::string_view name, std::string_view value) {
  SmtpState* state = smtp_state(conn);
  if (!state) return;
  std::string line(name);
  line += ": ";
  line += value;
  state->headers.push_back(std::move(line));
}

void smtp_set_body(NetConn& conn, std::string_view text) {
  if (SmtpState* state = smtp_state(conn)) state->body = smtp_prepare_body(text);
}

void smtp_add_attachment(NetConn& conn, std::string_view path, std::string_view data) {
  SmtpState* state = smtp_state(conn);
  if (!state) return;
  size_t slash = path.find_last_of("/\\");
  std::string_view name = slash == std::string_view::npos ? path : path.substr(slash + 1);
  state->attachments.push_back({base64_encode(data, "\r\n"), std::string(name)});
}

void smtp_clear_attachments(NetConn& conn) {
  if (SmtpState* state = smtp_state(conn)) state->attachments.clear();
}

std::string smtp_prepare_body(std::string_view text) {
  std::string out;
  out.reserve(text.size() + text.size() / 64 + 8);
  // The body follows an empty line in the message, so its first byte starts
  // a line too and a leading "." must be doubled like any other.
  bool line_start = true;
  size_t since_break = 0;
  for (size_t i = 0; i < text.size(); ++i) {
    char c = text[i];
    bool ends_line = c == '\n' && i > 0 && text[i - 1] == '\r';
    bool line_end_next = c == '\r' && i + 1 < text.size() && text[i + 1] == '\n';
    if (since_break >= kMaxLine && !line_end_next && !ends_line) {
      out += "\r\n";
      since_break = 0;
      line_start = true;
    }
    if (c == '.' && line_start) {
      out += '.';
      ++since_break;
    }
    out += c;
    ++since_break;
    line_start = false;
    if (ends_line) {
      since_break = 0;
      line_start = true;
    }
  }
  return out;
}

std::string smtp_make_boundary(std::string_view body) {
  static std::mt19937 random(static_cast<unsigned>(std::chrono::system_clock::now().time_since_epoch().count()));
  std::string boundary;
  do {
    boundary = "--";
    while (boundary.size() < 70 && (boundary.size() < 10 || body.find(boundary) != std::string_view::npos))
      boundary += static_cast<char>('A' + random() % 26);
  } while (boundary.size() >= 70);
  return boundary;
}

std::string smtp_build_message(const SmtpState& state, std::string_view boundary) {
  std::string message = "From: " + state.sender + "\r\nTo: ";
  for (size_t i = 0; i < state.recipients.size(); ++i) {
    if (i > 0) message += ", ";
    message += state.recipients[i];
  }
  message += "\r\n";
  for (const std::string& line : state.headers) message += line + "\r\n";
  message += "MIME-Version: 1.0\r\nContent-Type: multipart/mixed; boundary=\"";
  message += boundary.substr(2);
  message += "\"\r\n\r\n";
  message += "If you can see this text, then your mail client does not support\r\n";
  message += "MIME extensions for SMTP data transfers.\r\n";
  message += boundary;
  message += "\r\nContent-type: text/plain; charset=\"ISO-8859-1\"\r\n\r\n";
  message += state.body;
  message += "\r\n";
  for (const SmtpAttachment& attachment : state.attachments) {
    message += boundary;
    message += "\r\nContent-type: Application/Octet-Stream; Name=\"" + attachment.name + "\"\r\n";
    message += "Content-Transfer-Encoding: Base64\r\n\r\n";
    message += attachment.base64 + "\r\n";
  }
  message += boundary;
  message += "--\r\n.\r\n";
  return message;
}

bool smtp_send(std::string& err, NetConn& conn) {
  SmtpState* state = smtp_state(conn);
  if (!state || !conn.connected || state->sender.empty() || state->recipients.empty() || state->body.empty())
    return false;
  if (!check_lines(err, *state)) return false;
  std::string message = smtp_build_message(*state, smtp_make_boundary(state->body));
  if (!send_command(err, conn, "RSET\r\n", "Error sending RSET\n") || !expect(err, conn, "250")) return false;
  if (!send_command(err, conn, "MAIL FROM:<" + state->sender + ">\r\n",
                    "Error sending MAIL FROM:<" + state->sender + ">\n") ||
      !expect(err, conn, "250"))
    return false;
  for (const std::string& recipient : state->recipients) {
    if (!send_command(err, conn, "RCPT TO:<" + recipient + ">\r\n", "Error sending RCPT TO:<" + recipient + ">\n") ||
        !expect(err, conn, "250"))
      return false;
  }
  if (!send_command(err, conn, "DATA\r\n", "Error sending DATA\n") || !expect(err, conn, "354")) return false;
  if (!send_command(err, conn, message, "Error sending data:\n")) return false;
  return expect(err, conn, "250");
}
