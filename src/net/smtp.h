// SMTP client: one MIME message at a time (a text part plus Base64
// attachments) over a connection of kind NET_SMTP.
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

// The protocol state attached to the connection (kind NET_SMTP).
struct SmtpState {
  std::string host;  // the port is the connection's
  std::string sender;
  std::vector<std::string> recipients;
  std::vector<std::string> headers;  // "Name: value"
  std::string body;                  // dot-stuffed, lines at most 990 bytes
  std::vector<SmtpAttachment> attachments;
};

// Attaches a fresh state holding `host` and sets the connection's port;
// false when the connection already carries another protocol.
bool smtp_set_server(NetConn& conn, std::string_view host, int port);
// The attached state, or null.
SmtpState* smtp_state(NetConn& conn);

// Connects, expects "220 ", sends "HELO <local host>" and expects "250 ".
bool smtp_connect(std::string& err, NetConn& conn);
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
// Doubles a "." that starts a line and breaks lines at 990 bytes.
std::string smtp_prepare_body(std::string_view text);
// The whole DATA text, ending in ".\r\n", with the given boundary
// (which starts with "--").
std::string smtp_build_message(const SmtpState& state, std::string_view boundary);
// A random boundary of capital letters after "--", 10 to 69 bytes long, not
// found in `body`.
std::string smtp_make_boundary(std::string_view body);
