// Socket layer: BSD sockets with select() time-outs, and the receive buffer.
#include "net/socket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <algorithm>
#include <cstring>

#include "base/encoders.h"
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

// Steps shared by connect and bind: record the parameters, create the socket
// and make it blocking.  Null on failure.
std::unique_ptr<SocketRec> new_socket(std::string& err, int family, int type, int protocol, bool non_blocking) {
  auto rec = std::make_unique<SocketRec>();
  rec->family = family;
  rec->type = type;
  rec->protocol = protocol;
  rec->non_blocking = non_blocking;
  rec->handle = ::socket(family, type, protocol);
  if (rec->handle < 0) {
    err += "Error creating socket.\n";
    return nullptr;
  }
  if (!set_non_blocking(rec->handle, false)) {
    err += "Error switching socket to blocking mode.\n";
    return nullptr;
  }
  if (family != AF_INET) {
    err += "Only the AF_INET option is supported.\n";
    return nullptr;
  }
  return rec;
}

bool wait_on(int handle, bool for_write, long seconds, long microseconds) {
  if (handle < 0 || handle >= FD_SETSIZE) return false;
  fd_set set;
  FD_ZERO(&set);
  FD_SET(handle, &set);
  timeval limit{seconds, microseconds};
  for (;;) {
    int n = ::select(handle + 1, for_write ? nullptr : &set, for_write ? &set : nullptr, nullptr,
                     seconds < 0 ? nullptr : &limit);
    if (n < 0 && errno == EINTR) continue;
    return n > 0 && FD_ISSET(handle, &set);
  }
}

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

std::unique_ptr<SocketRec> net_connect_socket(std::string& err, int family, int type, int protocol,
                                              bool non_blocking, std::string_view host, int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  std::string host_text(host);
  if (host_text.find('\0') != std::string::npos) {
    append_lookup_error(err, host, EAI_NONAME);
    return nullptr;
  }
  if (inet_pton(AF_INET, host_text.c_str(), &address.sin_addr) != 1) {
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    int code = ::getaddrinfo(host_text.c_str(), nullptr, &hints, &found);
    if (code != 0 || !found) {
      append_lookup_error(err, host, code);
      return nullptr;
    }
    address.sin_addr = reinterpret_cast<sockaddr_in*>(found->ai_addr)->sin_addr;
    ::freeaddrinfo(found);
  }
  auto rec = new_socket(err, family, type, protocol, non_blocking);
  if (!rec) return nullptr;
  rec->address = address;
  int result;
  do {
    result = ::connect(rec->handle, reinterpret_cast<sockaddr*>(&rec->address), sizeof rec->address);
  } while (result != 0 && errno == EINTR);
  if (result != 0) {
    append_socket_error(err, "Error connecting to remote server.", errno);
    return nullptr;
  }
  if (non_blocking && !set_non_blocking(rec->handle, true)) {
    err += "Error switching socket to non-blocking mode.\n";
    return nullptr;
  }
  return rec;
}

std::unique_ptr<SocketRec> net_bind_socket(std::string& err, int family, int type, int protocol,
                                           bool non_blocking, uint32_t address, int port) {
  auto rec = new_socket(err, family, type, protocol, non_blocking);
  if (!rec) return nullptr;
  rec->address.sin_family = AF_INET;
  rec->address.sin_port = htons(static_cast<uint16_t>(port));
  rec->address.sin_addr.s_addr = address;
  int yes = 1;
  ::setsockopt(rec->handle, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
  if (::bind(rec->handle, reinterpret_cast<sockaddr*>(&rec->address), sizeof rec->address) != 0) {
    char text[96];
    std::snprintf(text, sizeof text, "Error binding the requested port %u to a socket.\n", static_cast<unsigned>(port));
    err += text;
    return nullptr;
  }
  if (non_blocking && !set_non_blocking(rec->handle, true)) {
    err += "Error switching socket to non-blocking mode.\n";
    return nullptr;
  }
  return rec;
}

bool net_connect(std::string& err, NetConn& conn, std::string_view host, int port) {
  net_close(conn);
  conn.buffer.clear();
  conn.read_pos = 0;
  conn.socket = net_connect_socket(err, AF_INET, SOCK_STREAM, 0, false, host, port);
  conn.connected = conn.socket != nullptr;
  return conn.connected;
}

bool net_close(NetConn& conn) {
  bool was_open = conn.connected && conn.socket;
  if (conn.socket && conn.socket->handle >= 0) ::shutdown(conn.socket->handle, SHUT_RDWR);
  conn.socket.reset();
  conn.connected = false;
  return was_open;
}

bool net_send_handle(int handle, std::string_view data) {
  if (handle < 0) return false;
  while (!data.empty()) {
    ssize_t sent = ::send(handle, data.data(), data.size(), MSG_NOSIGNAL);
    if (sent < 0 && errno == EINTR) continue;
    if (sent <= 0) return false;
    data.remove_prefix(static_cast<size_t>(sent));
  }
  return true;
}

bool net_send(NetConn& conn, std::string_view data) {
  if (!conn.socket) return false;
  return net_send_handle(conn.socket->handle, data);
}

size_t net_fill(NetConn& conn) {
  if (!conn.socket) return 0;
  conn.buffer.erase(0, conn.read_pos);
  conn.read_pos = 0;
  if (!wait_on(conn.socket->handle, false, conn.timeout_seconds, 0)) return 0;
  size_t old_size = conn.buffer.size();
  conn.buffer.resize(old_size + kReceiveChunk);
  ssize_t got;
  do {
    got = ::recv(conn.socket->handle, conn.buffer.data() + old_size, kReceiveChunk, 0);
  } while (got < 0 && errno == EINTR);
  conn.buffer.resize(old_size + (got > 0 ? static_cast<size_t>(got) : 0));
  return got > 0 ? static_cast<size_t>(got) : 0;
}

std::string_view net_unread(const NetConn& conn) {
  return std::string_view(conn.buffer).substr(conn.read_pos);
}

void net_consume(NetConn& conn, size_t count) {
  conn.read_pos += std::min(count, conn.buffer.size() - conn.read_pos);
}

bool net_read_raw_line(NetConn& conn, std::string& line, size_t max_length) {
  size_t searched = 0;
  for (;;) {
    std::string_view unread = net_unread(conn);
    size_t end = unread.find('\n', searched);
    if (end != std::string_view::npos) {
      line.assign(unread.substr(0, end + 1));
      net_consume(conn, end + 1);
      return true;
    }
    if (unread.size() > max_length) return false;
    searched = unread.size();
    if (net_fill(conn) == 0) return false;
  }
}

bool net_read_line(NetConn& conn, std::string& line) {
  if (!net_read_raw_line(conn, line)) return false;
  line.pop_back();
  if (!line.empty() && line.back() == '\r') line.pop_back();
  return true;
}

bool net_wait_readable(const NetConn& conn, long seconds, long microseconds) {
  return conn.socket && wait_on(conn.socket->handle, false, seconds, microseconds);
}

bool net_wait_writable(const NetConn& conn, long seconds, long microseconds) {
  return conn.socket && wait_on(conn.socket->handle, true, seconds, microseconds);
}

std::string net_auth_value(std::string_view user, std::string_view password, std::string_view scheme) {
  if (!equals_nocase(scheme, "BASIC")) return {};
  std::string pair(user);
  pair += ':';
  pair += password;
  return base64_encode(pair);
}
