// SMTP client: one MIME message at a time (a text part plus Base64
// attachments) over a connection of kind NET_SMTP, with EHLO, STARTTLS and
// AUTH PLAIN or LOGIN.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "net/socket.h"

struct SmtpAttachment {
  std::string base64;  // lines separated by "\r\n"
  std::string name;    // file name without its directory
};

// What the server's EHLO reply offered.
struct SmtpExtensions {
  bool ehlo = false;  // false: the server took only HELO
  bool starttls = false, auth_plain = false, auth_login = false, eight_bit = false;
};

// The protocol state attached to the connection (kind NET_SMTP).
struct SmtpState {
  std::string host;  // the port is the connection's
  std::string helo_name;  // empty: the machine's fully qualified name
  std::string user, password;  // AUTH when the user is set
  std::string auth_method;     // "PLAIN", "LOGIN" or empty (the first offered)
  SmtpExtensions offered;
  std::string sender;
  std::vector<std::string> recipients;
  std::vector<std::string> headers;  // "Name: value"
  std::string body;                  // prepared: CR LF lines, dot-stuffed, at most 990 bytes
  std::vector<SmtpAttachment> attachments;
};

// Attaches a fresh state holding `host` and sets the connection's port;
// false when the connection already carries another protocol.
bool smtp_set_server(NetConn& conn, std::string_view host, int port);
// The attached state, or null.
SmtpState* smtp_state(NetConn& conn);

// Connects, expects "220 ", greets with EHLO (HELO when EHLO is refused),
// starts TLS when the server offers it or the connection requires it, and
// logs in when a user is set.
bool smtp_connect(std::string& err, NetConn& conn);
// The dialogue after the connection is made: the greeting, EHLO, STARTTLS
// and AUTH (smtp_connect without its connect).
bool smtp_start_session(std::string& err, NetConn& conn);
// Sends "QUIT\r\n" and closes the socket.
void smtp_quit(NetConn& conn);

void smtp_set_sender(NetConn& conn, std::string_view address);
void smtp_add_recipient(NetConn& conn, std::string_view address);
// Appends the header line "name: value".
void smtp_add_header(NetConn& conn, std::string_view name, std::string_view value);
// Stores the body prepared for the DATA phase (see smtp_prepare_body).
void smtp_set_body(NetConn& conn, std::string_view text);
// Encodes `data` in Base64; the name is the part of `path` after the last
// "/" or "\".
void smtp_add_attachment(NetConn& conn, std::string_view path, std::string_view data);
void smtp_clear_attachments(NetConn& conn);

// Sends RSET, MAIL FROM, one RCPT TO per recipient, DATA and the message.
// False without a message when the connection is closed or the sender,
// recipients or body are missing.
bool smtp_send(std::string& err, NetConn& conn);

// Building blocks, exposed for tests.
// Turns every bare LF and bare CR into CR LF, then doubles a "." that starts
// a line and breaks lines at 990 bytes.
std::string smtp_prepare_body(std::string_view text);
// The whole DATA text, ending in ".\r\n", with the given boundary
// (which starts with "--").
std::string smtp_build_message(const SmtpState& state, std::string_view boundary);
// A random boundary of capital letters after "--", 10 to 69 bytes long, not
// found in `body`.
std::string smtp_make_boundary(std::string_view body);
// The address of "Name <address>" (the text inside the angle brackets), or
// the whole text when it has none.
std::string smtp_envelope_address(std::string_view text);
// A header value as it is sent: unchanged when it is ASCII, else RFC 2047
// encoded words ("=?UTF-8?B?...?=", ISO-8859-1 for text that is not UTF-8)
// folded onto continuation lines.
std::string smtp_encode_words(std::string_view text);
// An address for the From and To headers: a display name that is not ASCII
// becomes encoded words before "<address>".
std::string smtp_header_address(std::string_view text);
// True when `text` is valid UTF-8.
bool smtp_is_utf8(std::string_view text);
