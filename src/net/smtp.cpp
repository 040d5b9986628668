// SMTP client: the EHLO/HELO greeting with STARTTLS and AUTH, and one MIME
// message per transaction.
#include "net/smtp.h"

#include <chrono>
#include <random>

#include "base/encoders.h"
#include "base/encoders.h"
#include "net/net_limits.h"
#include "net/tls.h"
#include "base/nocase.h"

namespace {

constexpr size_t kMaxLine = 990;
// Bytes of text per encoded word: 60 Base64 characters, so a word with its
// "=?UTF-8?B?" and "?=" stays within 75.
constexpr size_t kWordBytes = 45;

// Reads one whole reply, continuation lines ("250-") included, with its
// line ends, so the next command starts on a fresh reply.  A reply longer
// than the line limit is cut there, with the limit noted.
std::string read_reply(NetConn& conn) {
  const size_t limit = net_limits().line_max;
  std::string reply, line;
  for (;;) {
    if (!net_read_raw_line(conn, line, limit)) {
      if (conn.note.empty()) {  // the server closed: what came is the reply
        reply += net_unread(conn);
        net_consume(conn, net_unread(conn).size());
      }
      return reply;
    }
    if (reply.size() + line.size() > limit) {
      conn.note = net_limit_text("A reply from the server", limit, "bytes", "CVML_NET_LINE_MAX");
      return reply;
    }
    reply += line;
    bool continued = line.size() > 3 && line[3] == '-';
    if (!continued) return reply;
  }
}

void refuse(std::string& err, NetConn& conn, std::string_view code, const std::string& reply) {
  net_take_note(conn, err);
  err += "Error:  Expected ";
  err += code;
  err += " response.  Received ";
  err += reply;
  if (reply.empty() || reply.back() != '\n') err += '\n';
}

// "220 ", "250 " or "354 ": the reply must begin with the code and a blank.
bool expect(std::string& err, NetConn& conn, std::string_view code) {
  std::string reply = read_reply(conn);
  // A reply cut short by a limit or the deadline counts as none.
  if (conn.note.empty() && reply.size() >= 4 && reply.compare(0, 3, code) == 0 && reply[3] == ' ') return true;
  refuse(err, conn, code, reply);
  return false;
}

// The last line of a reply that may run over several lines ("250-..."):
// accepted when every line carries `code` and the last one ends it.
bool expect_final(std::string& err, NetConn& conn, std::string_view code, std::string& reply) {
  reply = read_reply(conn);
  size_t pos = 0;
  while (conn.note.empty() && pos < reply.size()) {
    size_t end = reply.find('\n', pos);
    std::string_view line = std::string_view(reply).substr(pos, end == std::string::npos ? std::string::npos : end - pos);
    pos = end == std::string::npos ? reply.size() : end + 1;
    if (line.size() < 4 || line.substr(0, 3) != code || (line[3] != ' ' && line[3] != '-')) break;
    if (line[3] == ' ' && pos == reply.size()) return true;
  }
  refuse(err, conn, code, reply);
  return false;
}

bool send_command(std::string& err, NetConn& conn, std::string_view command, std::string_view failure) {
  if (net_send(conn, command)) return true;
  err += failure;
  net_take_note(conn, err);
  return false;
}

// A line break or zero byte inside an address or header would end the
// command or header early and let page input add commands of its own.
bool unsafe(std::string_view text) { return text.find_first_of(std::string_view("\r\n\0", 3)) != std::string_view::npos; }

bool check_lines(std::string& err, const SmtpState& state) {
  bool broken = unsafe(state.sender);
  for (const std::string& text : state.recipients) broken = broken || unsafe(text);
  for (const std::string& text : state.headers) broken = broken || unsafe(text);
  if (broken) err += "Error:  An address or header line contains a line break.\n";
  return !broken;
}

bool is_ascii(std::string_view text) {
  for (char c : text)
    if (static_cast<unsigned char>(c) >= 0x80) return false;
  return true;
}

// The extensions an EHLO reply names, one per line after the first.
SmtpExtensions read_extensions(std::string_view reply) {
  SmtpExtensions offered;
  offered.ehlo = true;
  size_t pos = reply.find('\n');
  while (pos != std::string_view::npos && pos + 1 < reply.size()) {
    size_t end = reply.find('\n', pos + 1);
    std::string_view line = reply.substr(pos + 1, end == std::string_view::npos ? std::string_view::npos : end - pos - 1);
    pos = end;
    if (line.size() < 4) continue;
    std::string words = " " + std::string(line.substr(4));
    while (!words.empty() && (words.back() == '\r' || words.back() == ' ')) words.pop_back();
    words += ' ';
    for (char& c : words) c = static_cast<char>(fold_upper(static_cast<unsigned char>(c)));
    if (words == " STARTTLS ") offered.starttls = true;
    if (words == " 8BITMIME ") offered.eight_bit = true;
    if (words.rfind(" AUTH ", 0) == 0 || words.rfind(" AUTH=", 0) == 0) {
      offered.auth_plain = offered.auth_plain || words.find(" PLAIN ") != std::string::npos;
      offered.auth_login = offered.auth_login || words.find(" LOGIN ") != std::string::npos;
    }
  }
  return offered;
}

// EHLO, or HELO (whose reply must begin "250 ") when EHLO is refused.
bool greet(std::string& err, NetConn& conn, SmtpState& state, const std::string& name) {
  if (!send_command(err, conn, "EHLO " + name + "\r\n", "Error sending EHLO " + name + "\n")) return false;
  std::string reply = read_reply(conn);
  if (!conn.note.empty()) {
    refuse(err, conn, "250", reply);
    return false;
  }
  if (reply.size() >= 4 && reply.compare(0, 3, "250") == 0) {
    // The last line ends the reply with "250 ".
    size_t last = reply.rfind('\n', reply.size() >= 2 ? reply.size() - 2 : 0);
    std::string_view final_line = std::string_view(reply).substr(last == std::string::npos ? 0 : last + 1);
    if (final_line.size() >= 4 && final_line.substr(0, 4) == "250 ") {
      state.offered = read_extensions(reply);
      return true;
    }
    refuse(err, conn, "250", reply);
    return false;
  }
  if (reply.empty() || reply[0] != '5') {
    refuse(err, conn, "250", reply);
    return false;
  }
  state.offered = SmtpExtensions{};
  if (!send_command(err, conn, "HELO " + name + "\r\n", "Error sending HELO " + name + "\n")) return false;
  return expect(err, conn, "250");
}

bool authenticate(std::string& err, NetConn& conn, const SmtpState& state) {
  bool plain = state.auth_method.empty() ? state.offered.auth_plain : equals_nocase(state.auth_method, "PLAIN");
  bool login = !plain && (state.auth_method.empty() ? state.offered.auth_login : equals_nocase(state.auth_method, "LOGIN"));
  std::string reply;
  if (plain) {
    std::string token("\0", 1);
    token += state.user;
    token += '\0';
    token += state.password;
    return send_command(err, conn, "AUTH PLAIN " + base64_encode(token) + "\r\n", "Error sending AUTH PLAIN\n") &&
           expect_final(err, conn, "235", reply);
  }
  if (login) {
    return send_command(err, conn, "AUTH LOGIN\r\n", "Error sending AUTH LOGIN\n") &&
           expect_final(err, conn, "334", reply) &&
           send_command(err, conn, base64_encode(state.user) + "\r\n", "Error sending AUTH LOGIN\n") &&
           expect_final(err, conn, "334", reply) &&
           send_command(err, conn, base64_encode(state.password) + "\r\n", "Error sending AUTH LOGIN\n") &&
           expect_final(err, conn, "235", reply);
  }
  err += "Error:  The server offers no AUTH method this client uses (PLAIN, LOGIN).\n";
  return false;
}

// Splits "Name <address>" at its angle brackets; false when it has none.
bool split_address(std::string_view text, std::string_view* display, std::string_view* address) {
  size_t open = text.rfind('<');
  size_t close = text.rfind('>');
  if (open == std::string_view::npos || close == std::string_view::npos || close < open) return false;
  *address = text.substr(open + 1, close - open - 1);
  std::string_view name = text.substr(0, open);
  while (!name.empty() && (name.back() == ' ' || name.back() == '\t')) name.remove_suffix(1);
  while (!name.empty() && (name.front() == ' ' || name.front() == '\t')) name.remove_prefix(1);
  if (name.size() >= 2 && name.front() == '"' && name.back() == '"') name = name.substr(1, name.size() - 2);
  *display = name;
  return true;
}

// The length of the UTF-8 sequence `lead` starts, or 0 for a byte that
// cannot start one.
size_t sequence_length(unsigned char lead) {
  if (lead < 0x80) return 1;
  if (lead >= 0xC2 && lead <= 0xDF) return 2;
  if (lead >= 0xE0 && lead <= 0xEF) return 3;
  if (lead >= 0xF0 && lead <= 0xF4) return 4;
  return 0;
}

}  // namespace

bool smtp_is_utf8(std::string_view text) {
  for (size_t i = 0; i < text.size();) {
    unsigned char lead = static_cast<unsigned char>(text[i]);
    size_t length = sequence_length(lead);
    if (length == 0 || i + length > text.size()) return false;
    for (size_t k = 1; k < length; ++k) {
      if ((static_cast<unsigned char>(text[i + k]) & 0xC0) != 0x80) return false;
    }
    unsigned char second = length > 1 ? static_cast<unsigned char>(text[i + 1]) : 0;
    // Overlong forms, surrogates and code points past U+10FFFF.
    if ((lead == 0xE0 && second < 0xA0) || (lead == 0xED && second > 0x9F) || (lead == 0xF0 && second < 0x90) ||
        (lead == 0xF4 && second > 0x8F))
      return false;
    i += length;
  }
  return true;
}

std::string smtp_encode_words(std::string_view text) {
  if (is_ascii(text)) return std::string(text);
  bool utf8 = smtp_is_utf8(text);
  std::string out;
  size_t pos = 0;
  while (pos < text.size()) {
    size_t end = std::min(text.size(), pos + kWordBytes);
    // A word holds whole characters.
    while (utf8 && end < text.size() && end > pos + 1 && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80) --end;
    if (!out.empty()) out += "\r\n ";
    out += utf8 ? "=?UTF-8?B?" : "=?ISO-8859-1?B?";
    out += base64_encode(text.substr(pos, end - pos));
    out += "?=";
    pos = end;
  }
  return out;
}

std::string smtp_envelope_address(std::string_view text) {
  std::string_view display, address;
  return std::string(split_address(text, &display, &address) ? address : text);
}

std::string smtp_header_address(std::string_view text) {
  std::string_view display, address;
  if (!split_address(text, &display, &address) || is_ascii(display)) return std::string(text);
  return smtp_encode_words(display) + " <" + std::string(address) + ">";
}

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
  if (unsafe(state->helo_name)) {
    err += "Error:  The greeting name contains a line break.\n";
    return false;
  }
  return net_connect(err, conn, state->host, conn.port) && smtp_start_session(err, conn);
}

bool smtp_start_session(std::string& err, NetConn& conn) {
  SmtpState* state = smtp_state(conn);
  if (!state) return false;
  if (!expect(err, conn, "220")) return false;
  std::string name = state->helo_name.empty() ? net_greeting_name(conn) : state->helo_name;
  if (!greet(err, conn, *state, name)) return false;
  uint8_t mode = conn.tls_options.mode;
  if (!conn.tls && (mode == TLS_STARTTLS || (mode == TLS_DEFAULT && state->offered.starttls))) {
    if (!state->offered.starttls) {
      err += "Error:  The server does not offer STARTTLS.\n";
      return false;
    }
    if (!send_command(err, conn, "STARTTLS\r\n", "Error sending STARTTLS\n") || !expect(err, conn, "220")) return false;
    conn.buffer.clear();  // nothing sent before the handshake may count after it
    conn.read_pos = 0;
    if (!tls_start(err, conn) || !greet(err, conn, *state, name)) return false;
  }
  if (!state->user.empty() && !authenticate(err, conn, *state)) return false;
  return true;
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

std::string smtp_prepare_body(std::string_view raw) {
  // Every line end becomes CR LF first, so every line is stuffed and split.
  std::string text;
  text.reserve(raw.size() + raw.size() / 32 + 8);
  for (size_t i = 0; i < raw.size(); ++i) {
    if (raw[i] == '\r') {
      text += "\r\n";
      if (i + 1 < raw.size() && raw[i + 1] == '\n') ++i;
    } else if (raw[i] == '\n') {
      text += "\r\n";
    } else {
      text += raw[i];
    }
  }
  std::string out;
  out.reserve(text.size() + text.size() / 64 + 8);
  // The body follows an empty line in the message, so its first byte starts
  // a line too and a leading "." must be doubled like any other.
  bool line_start = true;
  size_t since_break = 0;
  for (size_t i = 0; i < text.size(); ++i) {
    char c = text[i];
    bool ends_line = c == '\n';
    bool line_end_next = c == '\r';
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
  std::string message = "From: " + smtp_header_address(state.sender) + "\r\nTo: ";
  for (size_t i = 0; i < state.recipients.size(); ++i) {
    if (i > 0) message += ", ";
    message += smtp_header_address(state.recipients[i]);
  }
  message += "\r\n";
  for (const std::string& line : state.headers) {
    size_t colon = line.find(": ");
    if (colon == std::string::npos) message += line + "\r\n";
    else message += line.substr(0, colon + 2) + smtp_encode_words(std::string_view(line).substr(colon + 2)) + "\r\n";
  }
  message += "MIME-Version: 1.0\r\nContent-Type: multipart/mixed; boundary=\"";
  message += boundary.substr(2);
  message += "\"\r\n\r\n";
  message += "If you can see this text, then your mail client does not support\r\n";
  message += "MIME extensions for SMTP data transfers.\r\n";
  message += boundary;
  if (is_ascii(state.body)) {
    message += "\r\nContent-type: text/plain; charset=\"ISO-8859-1\"\r\n\r\n";
  } else {
    // Bytes past ASCII are sent as they are: UTF-8 when they are, else
    // taken for ISO-8859-1.
    message += smtp_is_utf8(state.body) ? "\r\nContent-type: text/plain; charset=\"UTF-8\"\r\n"
                                        : "\r\nContent-type: text/plain; charset=\"ISO-8859-1\"\r\n";
    message += "Content-Transfer-Encoding: 8bit\r\n\r\n";
  }
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
  std::string from = smtp_envelope_address(state->sender);
  std::string parameters = !is_ascii(state->body) && state->offered.eight_bit ? " BODY=8BITMIME" : "";
  if (!send_command(err, conn, "RSET\r\n", "Error sending RSET\n") || !expect(err, conn, "250")) return false;
  if (!send_command(err, conn, "MAIL FROM:<" + from + ">" + parameters + "\r\n", "Error sending MAIL FROM:<" + from + ">\n") ||
      !expect(err, conn, "250"))
    return false;
  for (const std::string& recipient : state->recipients) {
    std::string to = smtp_envelope_address(recipient);
    if (!send_command(err, conn, "RCPT TO:<" + to + ">\r\n", "Error sending RCPT TO:<" + to + ">\n") ||
        !expect(err, conn, "250"))
      return false;
  }
  if (!send_command(err, conn, "DATA\r\n", "Error sending DATA\n") || !expect(err, conn, "354")) return false;
  if (!send_command(err, conn, message, "Error sending data:\n")) return false;
  return expect(err, conn, "250");
}
