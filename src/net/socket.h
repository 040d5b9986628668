// Socket layer: TCP connections (IPv4 and IPv6) and listening sockets, the
// receive buffer every protocol client reads through, TLS on demand, and the
// per-protocol state slot.
//
// Failures append a line of text to a caller's `std::string err`; nothing is
// printed here.  Every call is bounded in time: a wait for the peer lasts at
// most the connection's time-out and never past its deadline (the end of
// the current CVWEB operation).  Sockets are non-blocking underneath; the
// waits are poll() calls.
#pragma once

#include <sys/socket.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

// Protocol kinds a connection carries (0 is a raw connection, no state).
enum NetKind : int32_t { NET_RAW = 0, NET_HTTP = 3, NET_SMTP = 4, NET_POP3 = 5, NET_FTP = 6 };

// How a connection uses TLS.  TLS_DEFAULT leaves it to the protocol (SMTP
// upgrades when the server offers STARTTLS; the others stay plain).
enum NetTlsMode : uint8_t { TLS_DEFAULT = 0, TLS_OFF, TLS_STARTTLS, TLS_IMPLICIT };

struct NetTlsOptions {
  uint8_t mode = TLS_DEFAULT;
  bool verify = true;   // certificate chain and host name
  std::string ca_file;  // trusted certificates; empty: the system's store
  // Keep every session the server offers for later connections: FTP
  // servers insist that each data connection resumes the control
  // connection's session, and a TLS 1.3 session resumes only once.
  bool resumable = false;
};

// One socket.  The handle is closed when the record is destroyed.
struct SocketRec {
  int32_t family = 0, type = 0, protocol = 0;
  sockaddr_storage address{};  // the peer (connect) or the local end (bind)
  socklen_t address_length = 0;
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

// A TLS session on a connection (tls.h); freed before its socket.
struct TlsSession;
struct TlsSessionDeleter {
  void operator()(TlsSession* session) const;
};

using NetClock = std::chrono::steady_clock;

// One client connection.
struct NetConn {
  bool connected = false;
  std::unique_ptr<SocketRec> socket;  // null when closed
  std::unique_ptr<TlsSession, TlsSessionDeleter> tls;  // set while TLS runs
  NetTlsOptions tls_options;
  std::string peer_name;  // the host as the page named it, for certificates
  // Receive buffer: `buffer` holds the valid data, `read_pos` the first
  // byte not yet consumed.
  std::string buffer;
  size_t read_pos = 0;
  int32_t port = 0;  // set by the protocol client
  int32_t kind = NET_RAW;
  // Protocol state; type-erased, its deleter frees the concrete record.
  std::shared_ptr<void> state;
  int timeout_seconds = kNetDefaultTimeoutSeconds;
  NetClock::time_point deadline = NetClock::time_point::max();
  int deadline_seconds = 0;  // the length of the current deadline, for its message
  bool eof = false;          // the peer closed its side
  // Why the last read or wait ended early (time-out, deadline or a size
  // limit), as an error line; empty otherwise.
  std::string note;
};

// A new zeroed connection; resetting the pointer (or net_conn_free) closes
// the socket and frees the state.
std::unique_ptr<NetConn> net_conn_new();
void net_conn_free(std::unique_ptr<NetConn>& conn);

// Always true on this platform (kept so start-up has one place to call).
bool net_startup(std::string& err);

// The machine's own host name ("Error obtaining the local host name.\n").
bool net_local_host_name(std::string& err, std::string& name);
// The name this host gives in HELO/EHLO: its fully qualified name when the
// resolver knows one, else the address literal of the connection's local
// end ("[127.0.0.1]", "[IPv6:::1]").
std::string net_greeting_name(const NetConn& conn);

// True for a host the clients accept: a DNS name (letters, digits, "-" and
// ".", labels not starting or ending with "-"), a dotted IPv4 address, or an
// IPv6 address, bare or in brackets.
bool net_valid_host(std::string_view host);

// Starts the connection's deadline: `seconds` from now.
void net_start_deadline(NetConn& conn, int seconds);

// Resolves `host` (an address is used without look-up; IPv6 may be written
// in brackets), creates the socket and connects, trying each address in
// turn, each attempt bounded by `timeout_ms`.  Null on failure, with the
// reason in `err`.
std::unique_ptr<SocketRec> net_connect_socket(std::string& err, int family, int type, int protocol,
                                              bool non_blocking, std::string_view host, int port,
                                              int timeout_ms = kNetDefaultTimeoutSeconds * 1000);
// Creates a socket bound to `local` with its port replaced by `port`; the
// caller listens and accepts.
std::unique_ptr<SocketRec> net_bind_socket(std::string& err, int type, int protocol, bool non_blocking,
                                           const sockaddr_storage& local, int port);
// Connects `conn` to host:port with a stream socket and marks it connected;
// the receive buffer is emptied.  With TLS_IMPLICIT the TLS handshake
// follows at once.
bool net_connect(std::string& err, NetConn& conn, std::string_view host, int port);

// True when a connected socket was closed.  A TLS session is ended first.
bool net_close(NetConn& conn);

// Sends all of `data`, through TLS when it runs; false on a failed send or
// when the peer stops reading past the time-out or deadline.
bool net_send(NetConn& conn, std::string_view data);

// Receives more data into the buffer: unread bytes are first moved to the
// start, then up to 4,096 bytes are read, waiting within the connection's
// limits.  Returns the number of bytes received; 0 when the peer closed
// (`eof` set), a wait ran out (`note` set) or the read failed.
size_t net_fill(NetConn& conn);
// Appends the connection's note (why a wait or read ended early) to `err`
// and clears it.
void net_take_note(NetConn& conn, std::string& err);
// Bytes received but not yet consumed.
std::string_view net_unread(const NetConn& conn);
void net_consume(NetConn& conn, size_t count);
// Takes the next line without its "\n" (and without a "\r" before it),
// refilling as needed.  False when the peer closes before a whole line, or
// when more than `max_length` bytes arrive without a line end (then `note`
// names `limit_name`).
bool net_read_line(NetConn& conn, std::string& line, size_t max_length = SIZE_MAX,
                   const char* limit_name = "CVML_NET_LINE_MAX");
// The same with the line end kept.
bool net_read_raw_line(NetConn& conn, std::string& line, size_t max_length = SIZE_MAX,
                       const char* limit_name = "CVML_NET_LINE_MAX");

// Waits until the socket can be read (or written) or `wait_ms` passes,
// whichever is first; a negative wait has no limit.  The deadline always
// applies.  False on time-out, with `note` set when the deadline ended it.
bool net_poll(NetConn& conn, bool for_write, long wait_ms);
// The wait the connection allows now: its time-out, cut to its deadline.
long net_wait_ms(const NetConn& conn);

// True when the socket can be read (or written) within the wait; a negative
// `seconds` waits with no limit.  Data already decrypted by TLS counts.
bool net_wait_readable(NetConn& conn, long seconds, long microseconds);
bool net_wait_writable(NetConn& conn, long seconds, long microseconds);

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
