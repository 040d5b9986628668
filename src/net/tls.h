// TLS for the network clients, on OpenSSL: the client side of a handshake on
// a connected socket (at once for implicit TLS, or after STARTTLS, STLS or
// AUTH TLS), and reads and writes through the session within the
// connection's time-out and deadline.
#pragma once

#include <string>
#include <string_view>

#include "net/socket.h"

// Runs the client handshake on the connection's socket.  The certificate is
// checked against `conn.tls_options` (the system's store, or its CA file)
// and `conn.peer_name`, unless verification is off.  `resume`, when given,
// offers that connection's session again (FTP data connections).  False
// with the reason in `err`.
bool tls_start(std::string& err, NetConn& conn, const NetConn* resume = nullptr);

// Reads up to `size` bytes: the count, 0 when the peer ended the session or
// closed (`conn.eof` set), -1 on failure or when a wait ran out.
long tls_read(NetConn& conn, char* data, size_t size);
// Writes all of `data`; false on failure or when a wait ran out.
bool tls_write(NetConn& conn, std::string_view data);
// Ends a connection that only wrote: sends the closing alert and reads up
// to the server's close (within the connection's limits), so the session
// tickets the server sent after the handshake are kept.
void tls_finish_sending(NetConn& conn);
// Bytes already decrypted and waiting to be read.
size_t tls_pending(const NetConn& conn);
// Sends the closing alert (without waiting for the peer's) and frees the
// session.
void tls_end(NetConn& conn);
