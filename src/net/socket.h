// Socket layer: TCP connections and listening sockets, the receive buffer
// every protocol client reads through, and the per-protocol state slot.
//
// Failures append a line of text to a caller's `std::string err`; nothing is
// printed here.  Every call is bounded in time: reads and readiness waits go
// through select() with the connection's time-out.
#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

// Protocol kinds a connection carries (0 is a raw connection, no state).
enum NetKind : int32_t { NET_RAW = 0, NET_HTTP = 3, NET_SMTP = 4, NET_POP3 = 5, NET_FTP = 6 };

// One socket.  The handle is closed when the record is destroyed.
struct SocketRec {
  int32_t family = 0, type = 0, protocol = 0;
  sockaddr_in address{};  // family 2, port and address in network order
  int handle = -1;
  bool non_blocking = false;

  SocketRec() = default;
  SocketRec(const SocketRec&) = delete;
  SocketRec& operator=(const SocketRec&) = delete;
  ~SocketRec();
};

// Seconds a read may wait for the peer before it counts as a failure, so a
// silent server cannot hold the page for ever.
constexpr int kNetDefaultTimeoutSeconds = 30;

// One client connection.
struct NetConn {
  bool connected = false;
  std::unique_ptr<SocketRec> socket;  // null when closed
  // Receive buffer: `buffer` holds the valid data, `read_pos` the first
  // byte not yet consumed.
  std::string buffer;
  size_t read_pos = 0;
  int32_t port = 0;  // set by the protocol client
  int32_t kind = NET_RAW;
  // Protocol state; type-erased, its deleter frees the concrete record.
  std::shared_ptr<void> state;
  int timeout_seconds = kNetDefaultTimeoutSeconds;
};

// A new zeroed connection; resetting the pointer (or net_conn_free) closes
// the socket and frees the state.
std::unique_ptr<NetConn> net_conn_new();
void net_conn_free(std::unique_ptr<NetConn>& conn);

// Always true on this platform (kept so start-up has one place to call).
bool net_startup(std::string& err);

// The machine's own host name ("Error obtaining the local host name.\n").
bool net_local_host_name(std::string& err, std::string& name);

// Resolves `host` (a dotted address is used without look-up), creates the
// socket and connects.  Null on failure, with the reason in `err`.
std::unique_ptr<SocketRec> net_connect_socket(std::string& err, int family, int type, int protocol,
                                              bool non_blocking, std::string_view host, int port);
// Creates a socket bound to `address` (network order) and `port`; the caller
// listens and accepts.
std::unique_ptr<SocketRec> net_bind_socket(std::string& err, int family, int type, int protocol,
                                           bool non_blocking, uint32_t address, int port);
// Connects `conn` to host:port with an IPv4 stream socket and marks it
// connected; the receive buffer is emptied.
bool net_connect(std::string& err, NetConn& conn, std::string_view host, int port);

// True when a connected socket was closed.
bool net_close(NetConn& conn);

// Sends all of `data` (retrying partial sends); false on a failed send.
bool net_send_handle(int handle, std::string_view data);
bool net_send(NetConn& conn, std::string_view data);

// Receives more data into the buffer: unread bytes are first moved to the
// start, then up to 4,096 bytes are read, waiting at most the connection's
// time-out.  Returns the number of bytes received; 0 when the peer closed,
// the time-out passed or the read failed.
size_t net_fill(NetConn& conn);
// Bytes received but not yet consumed.
std::string_view net_unread(const NetConn& conn);
void net_consume(NetConn& conn, size_t count);
// Takes the next line without its "\n" (and without a "\r" before it),
// refilling as needed.  False when the peer closes before a whole line.
bool net_read_line(NetConn& conn, std::string& line);
// The same with the line end kept; also false when more than `max_length`
// bytes arrive without a line end.
bool net_read_raw_line(NetConn& conn, std::string& line, size_t max_length = SIZE_MAX);

// True when the socket can be read (or written) within the wait; a negative
// `seconds` waits with no limit.
bool net_wait_readable(const NetConn& conn, long seconds, long microseconds);
bool net_wait_writable(const NetConn& conn, long seconds, long microseconds);

// Authorization value for a scheme: "BASIC" (any case) gives the Base64 of
// "user:password"; any other scheme gives the empty text (no header).
std::string net_auth_value(std::string_view user, std::string_view password, std::string_view scheme);

// Attaches (or resets to a fresh T) the protocol state of `kind`; null when
// the connection already carries another kind.  The receive buffer is
// emptied.
template <typename T>
T* net_attach_state(NetConn& conn, int32_t kind) {
  if (conn.kind != NET_RAW && conn.kind != kind) return nullptr;
  conn.buffer.clear();
  conn.read_pos = 0;
  if (conn.kind == kind && conn.state) {
    *static_cast<T*>(conn.state.get()) = T{};
  } else {
    conn.state = std::make_shared<T>();
    conn.kind = kind;
  }
  return static_cast<T*>(conn.state.get());
}

// The state of `kind`, or null when the connection carries another kind.
template <typename T>
T* net_get_state(NetConn& conn, int32_t kind) {
  if (conn.kind != kind || !conn.state) return nullptr;
  return static_cast<T*>(conn.state.get());
}
