// Socket layer: non-blocking BSD sockets waited on with poll(), the receive
// buffer, and the time-out and deadline of every wait.
#include "net/socket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>

#include "base/encoders.h"
#include "base/nocase.h"
#include "base/encoders.h"
#include "net/net_limits.h"
#include "net/tls.h"
#include "base/nocase.h"

namespace {

constexpr size_t kReceiveChunk = 4096;

// "<lead>  Socket error number:  %i (0x%08X).\n"
void append_socket_error(std::string& err, std::string_view lead, int code) {
  char text[80];
  std::snprintf(text, sizeof text, "  Socket error number:  %i (0x%08X).\n", code, static_cast<unsigned>(code));
  err += lead;
  err += text;
}

void append_lookup_error(std::string& err, std::string_view host, int code) {
  append_socket_error(err, "Error getting IP address for " + std::string(host) + ".", code);
}

bool set_non_blocking(int handle, bool on) {
  int flags = fcntl(handle, F_GETFL, 0);
  if (flags < 0) return false;
  flags = on ? (flags | O_NONBLOCK) : (flags & ~O_NONBLOCK);
  return fcntl(handle, F_SETFL, flags) == 0;
}

// A socket of the given family, non-blocking underneath (every wait is a
// poll).  Null on failure.
std::unique_ptr<SocketRec> new_socket(std::string& err, int family, int type, int protocol, bool non_blocking) {
  auto rec = std::make_unique<SocketRec>();
  rec->family = family;
  rec->type = type;
  rec->protocol = protocol;
  rec->non_blocking = non_blocking;
  rec->handle = ::socket(family, type | SOCK_CLOEXEC, protocol);
  if (rec->handle < 0) {
    err += "Error creating socket.\n";
    return nullptr;
  }
  if (!set_non_blocking(rec->handle, true)) {
    err += "Error switching socket to non-blocking mode.\n";
    return nullptr;
  }
  return rec;
}

// Connects a non-blocking socket within `timeout_ms`; 0 or the error code.
int connect_within(int handle, const sockaddr* address, socklen_t length, int timeout_ms) {
  if (::connect(handle, address, length) == 0) return 0;
  if (errno != EINPROGRESS && errno != EINTR) return errno;
  auto end = NetClock::now() + std::chrono::milliseconds(timeout_ms);
  for (;;) {
    long left = std::chrono::duration_cast<std::chrono::milliseconds>(end - NetClock::now()).count();
    if (left <= 0) return ETIMEDOUT;
    pollfd p{handle, POLLOUT, 0};
    int n = ::poll(&p, 1, static_cast<int>(std::min<long>(left, INT_MAX)));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return errno;
    if (n == 0) continue;
    int code = 0;
    socklen_t size = sizeof code;
    if (::getsockopt(handle, SOL_SOCKET, SO_ERROR, &code, &size) != 0) return errno;
    return code;
  }
}

std::string_view without_brackets(std::string_view host) {
  if (host.size() >= 2 && host.front() == '[' && host.back() == ']') return host.substr(1, host.size() - 2);
  return host;
}

bool is_ipv6(std::string_view text) {
  if (text.size() >= INET6_ADDRSTRLEN) return false;
  in6_addr address;
  return inet_pton(AF_INET6, std::string(text).c_str(), &address) == 1;
}

bool is_dns_name(std::string_view host) {
  if (host.empty() || host.size() > 253) return false;
  size_t label = 0;
  for (size_t i = 0; i < host.size(); ++i) {
    char c = host[i];
    if (c == '.') {
      if (label == 0 || host[i - 1] == '-') return false;
      label = 0;
      continue;
    }
    bool letter_or_digit = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
    if (!letter_or_digit && (c != '-' || label == 0)) return false;
    if (++label > 63) return false;
  }
  return label > 0 && host.back() != '-';
}

std::string millis_text(long ms) { return std::to_string(ms / 1000); }

}  // namespace

SocketRec::~SocketRec() {
  if (handle >= 0) ::close(handle);
}

std::unique_ptr<NetConn> net_conn_new() { return std::make_unique<NetConn>(); }

void net_conn_free(std::unique_ptr<NetConn>& conn) { conn.reset(); }

bool net_startup(std::string&) { return true; }

bool net_local_host_name(std::string& err, std::string& name) {
  // Grows the buffer until the whole name fits, as gethostname truncates.
  std::string buffer(255, '\0');
  for (;;) {
    if (::gethostname(buffer.data(), buffer.size()) != 0 && errno != ENAMETOOLONG) {
      err += "Error obtaining the local host name.\n";
      return false;
    }
    size_t end = buffer.find('\0');
    if (end != std::string::npos && end + 1 < buffer.size()) {
      name = buffer.substr(0, end);
      return true;
    }
    if (buffer.size() > 65536) {
      err += "Error obtaining the local host name.\n";
      return false;
    }
    buffer.assign(buffer.size() + 50, '\0');
  }
}

std::string net_greeting_name(const NetConn& conn) {
  std::string err, name;
  if (net_local_host_name(err, name) && is_dns_name(name)) {
    if (name.find('.') != std::string::npos) return name;
    addrinfo hints{};
    hints.ai_flags = AI_CANONNAME;
    addrinfo* found = nullptr;
    if (::getaddrinfo(name.c_str(), nullptr, &hints, &found) == 0 && found) {
      std::string canonical = found->ai_canonname ? found->ai_canonname : "";
      ::freeaddrinfo(found);
      if (canonical.find('.') != std::string::npos && is_dns_name(canonical)) return canonical;
    }
  }
  // No fully qualified name: the address literal of this end.
  sockaddr_storage local{};
  socklen_t length = sizeof local;
  char text[INET6_ADDRSTRLEN] = "127.0.0.1";
  if (conn.socket && ::getsockname(conn.socket->handle, reinterpret_cast<sockaddr*>(&local), &length) == 0) {
    if (local.ss_family == AF_INET6) {
      inet_ntop(AF_INET6, &reinterpret_cast<sockaddr_in6&>(local).sin6_addr, text, sizeof text);
      return "[IPv6:" + std::string(text) + "]";
    }
    inet_ntop(AF_INET, &reinterpret_cast<sockaddr_in&>(local).sin_addr, text, sizeof text);
  }
  return "[" + std::string(text) + "]";
}

bool net_valid_host(std::string_view host) {
  std::string_view bare = without_brackets(host);
  if (bare.size() != host.size()) return is_ipv6(bare);
  return is_dns_name(host) || is_ipv6(host);
}

void net_start_deadline(NetConn& conn, int seconds) {
  conn.deadline_seconds = seconds;
  conn.deadline = NetClock::now() + std::chrono::seconds(seconds);
  conn.note.clear();
}

std::unique_ptr<SocketRec> net_connect_socket(std::string& err, int, int type, int protocol, bool non_blocking,
                                              std::string_view host, int port, int timeout_ms) {
  std::string name(without_brackets(host));
  if (!net_valid_host(host)) {
    append_lookup_error(err, host, EAI_NONAME);
    return nullptr;
  }
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_NUMERICSERV;
  in6_addr probe6;
  in_addr probe4;
  if (inet_pton(AF_INET, name.c_str(), &probe4) == 1 || inet_pton(AF_INET6, name.c_str(), &probe6) == 1)
    hints.ai_flags |= AI_NUMERICHOST;  // an address: no look-up
  addrinfo* found = nullptr;
  int code = ::getaddrinfo(name.c_str(), std::to_string(port).c_str(), &hints, &found);
  if (code != 0 || !found) {
    append_lookup_error(err, host, code);
    return nullptr;
  }
  std::unique_ptr<SocketRec> connected;
  int failure = ECONNREFUSED;
  std::string create_err;
  for (addrinfo* a = found; a && !connected; a = a->ai_next) {
    auto rec = new_socket(create_err, a->ai_family, type, protocol, non_blocking);
    if (!rec) continue;
    std::memcpy(&rec->address, a->ai_addr, a->ai_addrlen);
    rec->address_length = a->ai_addrlen;
    failure = connect_within(rec->handle, a->ai_addr, a->ai_addrlen, timeout_ms);
    if (failure == 0) connected = std::move(rec);
  }
  ::freeaddrinfo(found);
  if (!connected) {
    if (!create_err.empty() && failure == ECONNREFUSED) err += create_err;
    else append_socket_error(err, "Error connecting to remote server.", failure);
  }
  return connected;
}

std::unique_ptr<SocketRec> net_bind_socket(std::string& err, int type, int protocol, bool non_blocking,
                                           const sockaddr_storage& local, int port) {
  auto rec = new_socket(err, local.ss_family, type, protocol, non_blocking);
  if (!rec) return nullptr;
  rec->address = local;
  if (local.ss_family == AF_INET6) {
    reinterpret_cast<sockaddr_in6&>(rec->address).sin6_port = htons(static_cast<uint16_t>(port));
    rec->address_length = sizeof(sockaddr_in6);
  } else {
    reinterpret_cast<sockaddr_in&>(rec->address).sin_port = htons(static_cast<uint16_t>(port));
    rec->address_length = sizeof(sockaddr_in);
  }
  int yes = 1;
  ::setsockopt(rec->handle, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
  if (::bind(rec->handle, reinterpret_cast<sockaddr*>(&rec->address), rec->address_length) != 0) {
    char text[96];
    std::snprintf(text, sizeof text, "Error binding the requested port %u to a socket.\n", static_cast<unsigned>(port));
    err += text;
    return nullptr;
  }
  return rec;
}

bool net_connect(std::string& err, NetConn& conn, std::string_view host, int port) {
  net_close(conn);
  conn.buffer.clear();
  conn.read_pos = 0;
  conn.eof = false;
  conn.peer_name = std::string(without_brackets(host));
  long wait = net_wait_ms(conn);
  if (conn.deadline != NetClock::time_point::max()) {
    long left = std::chrono::duration_cast<std::chrono::milliseconds>(conn.deadline - NetClock::now()).count();
    wait = std::clamp(left, 0L, wait);
  }
  conn.socket = net_connect_socket(err, AF_INET, SOCK_STREAM, 0, false, host, port, static_cast<int>(wait));
  conn.connected = conn.socket != nullptr;
  if (conn.connected && conn.tls_options.mode == TLS_IMPLICIT && !tls_start(err, conn)) {
    net_close(conn);
    return false;
  }
  return conn.connected;
}

bool net_close(NetConn& conn) {
  bool was_open = conn.connected && conn.socket;
  if (conn.tls) tls_end(conn);
  if (conn.socket && conn.socket->handle >= 0) ::shutdown(conn.socket->handle, SHUT_RDWR);
  conn.socket.reset();
  conn.connected = false;
  return was_open;
}

long net_wait_ms(const NetConn& conn) { return static_cast<long>(conn.timeout_seconds) * 1000; }

bool net_poll(NetConn& conn, bool for_write, long wait_ms) {
  if (!conn.socket) return false;
  for (;;) {
    long wait = wait_ms;
    bool by_deadline = false;
    if (conn.deadline != NetClock::time_point::max()) {
      long left = std::chrono::duration_cast<std::chrono::milliseconds>(conn.deadline - NetClock::now()).count();
      if (left < 0) left = 0;
      if (wait < 0 || left <= wait) {
        wait = left;
        by_deadline = true;
      }
    }
    pollfd p{conn.socket->handle, static_cast<short>(for_write ? POLLOUT : POLLIN), 0};
    int n = ::poll(&p, 1, wait < 0 ? -1 : static_cast<int>(std::min<long>(wait, INT_MAX)));
    if (n < 0 && errno == EINTR) continue;
    if (n > 0) return true;
    if (n == 0 && by_deadline) {
      conn.note = "Error:  The operation did not finish within its time limit of " +
                  std::to_string(conn.deadline_seconds) + " seconds (CVML_NET_DEADLINE).\n";
    }
    return false;
  }
}

bool net_send(NetConn& conn, std::string_view data) {
  if (!conn.socket) return false;
  if (conn.tls) return tls_write(conn, data);
  while (!data.empty()) {
    ssize_t sent = ::send(conn.socket->handle, data.data(), data.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent < 0 && errno == EINTR) continue;
    if (sent < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
      if (net_poll(conn, true, net_wait_ms(conn))) continue;
      if (conn.note.empty())
        conn.note = "Error:  The server accepted no data for " + millis_text(net_wait_ms(conn)) +
                    " seconds (CVML_NET_TIMEOUT).\n";
      return false;
    }
    if (sent <= 0) return false;
    data.remove_prefix(static_cast<size_t>(sent));
  }
  return true;
}

size_t net_fill(NetConn& conn) {
  if (!conn.socket) return 0;
  conn.buffer.erase(0, conn.read_pos);
  conn.read_pos = 0;
  size_t old_size = conn.buffer.size();
  conn.buffer.resize(old_size + kReceiveChunk);
  long got;
  if (conn.tls) {
    got = tls_read(conn, conn.buffer.data() + old_size, kReceiveChunk);
  } else {
    for (;;) {
      got = ::recv(conn.socket->handle, conn.buffer.data() + old_size, kReceiveChunk, MSG_DONTWAIT);
      if (got >= 0) break;
      if (errno == EINTR) continue;
      if (errno != EAGAIN && errno != EWOULDBLOCK) break;
      if (net_poll(conn, false, net_wait_ms(conn))) continue;
      if (conn.note.empty())
        conn.note = "Error:  The server sent nothing for " + millis_text(net_wait_ms(conn)) +
                    " seconds (CVML_NET_TIMEOUT).\n";
      break;
    }
    if (got == 0) conn.eof = true;
  }
  conn.buffer.resize(old_size + (got > 0 ? static_cast<size_t>(got) : 0));
  return got > 0 ? static_cast<size_t>(got) : 0;
}

void net_take_note(NetConn& conn, std::string& err) {
  err += conn.note;
  conn.note.clear();
}

std::string_view net_unread(const NetConn& conn) {
  return std::string_view(conn.buffer).substr(conn.read_pos);
}

void net_consume(NetConn& conn, size_t count) {
  conn.read_pos += std::min(count, conn.buffer.size() - conn.read_pos);
}

bool net_read_raw_line(NetConn& conn, std::string& line, size_t max_length, const char* limit_name) {
  size_t searched = 0;
  for (;;) {
    std::string_view unread = net_unread(conn);
    size_t end = unread.find('\n', searched);
    if (end != std::string_view::npos && end < max_length) {
      line.assign(unread.substr(0, end + 1));
      net_consume(conn, end + 1);
      return true;
    }
    if (end != std::string_view::npos || unread.size() > max_length) {
      conn.note = net_limit_text("A line from the server", max_length, "bytes", limit_name);
      return false;
    }
    searched = unread.size();
    if (net_fill(conn) == 0) return false;
  }
}

bool net_read_line(NetConn& conn, std::string& line, size_t max_length, const char* limit_name) {
  if (!net_read_raw_line(conn, line, max_length, limit_name)) return false;
  line.pop_back();
  if (!line.empty() && line.back() == '\r') line.pop_back();
  return true;
}

bool net_wait_readable(NetConn& conn, long seconds, long microseconds) {
  if (!conn.socket) return false;
  if (!net_unread(conn).empty() || (conn.tls && tls_pending(conn) > 0)) return true;
  return net_poll(conn, false, seconds < 0 ? -1 : seconds * 1000 + microseconds / 1000);
}

bool net_wait_writable(NetConn& conn, long seconds, long microseconds) {
  return conn.socket && net_poll(conn, true, seconds < 0 ? -1 : seconds * 1000 + microseconds / 1000);
}

std::string net_auth_value(std::string_view user, std::string_view password, std::string_view scheme) {
  if (!equals_nocase(scheme, "BASIC")) return {};
  std::string pair(user);
  pair += ':';
  pair += password;
  return base64_encode(pair);
}
