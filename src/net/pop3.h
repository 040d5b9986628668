// POP3 client: log-in, message count and sizes, fetching one message split
// into sender, subject, header block and body, and deletion.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "net/socket.h"

// The protocol state attached to the connection (kind NET_POP3).
struct Pop3State {
  std::string host, user, password;  // the port is the connection's
  std::vector<uint32_t> sizes;       // one per message, in server order
  uint32_t count = 0;
  // The last fetched message.
  std::string sender;   // after "From: "
  std::string subject;  // after "Subject: "
  std::string header;   // up to and including the first empty line
  std::string body;
};

// Attaches a fresh state holding the texts and sets the connection's port;
// false when the connection already carries another protocol.
bool pop3_set_server(NetConn& conn, std::string_view host, int port, std::string_view user,
                     std::string_view password);
// The attached state, or null.
Pop3State* pop3_state(NetConn& conn);

// Connects, checks the greeting, sends STLS when the connection asks for
// TLS that way, sends USER and PASS, then refreshes.
// Fails without a message when the host, user or password is empty.
bool pop3_connect(std::string& err, NetConn& conn);
// The dialogue after the connection is made: the greeting, STLS, USER,
// PASS and the refresh (pop3_connect without its connect).
bool pop3_start_session(std::string& err, NetConn& conn);
// RSET, STAT and (for a non-empty mailbox) LIST: fills count and sizes.
bool pop3_refresh(std::string& err, NetConn& conn);
// RETR of message `number` (from 1); fills sender, subject, header, body.
bool pop3_retrieve(std::string& err, NetConn& conn, uint32_t number);
// DELE of message `number`; it takes effect at QUIT.
bool pop3_delete(std::string& err, NetConn& conn, uint32_t number);
// Sends "QUIT\r\n", reads one reply without checking it, and closes.
void pop3_quit(NetConn& conn);

// Splits a retrieved message (lines with their ends) into the state's
// sender, subject, header block and body.  Exposed for tests.
void pop3_split_message(Pop3State& state, std::string_view message);
