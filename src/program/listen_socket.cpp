// The FastCGI server's listening socket.
#include "program/listen_socket.h"

#include <fcntl.h>
#include <netdb.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace {

constexpr int kBacklog = 1024;

std::string system_error(const std::string& what) { return what + ": " + std::strerror(errno); }

bool open_unix(const std::string& path, ListenSocket* out, std::string* err) {
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof addr.sun_path) {
    *err = "the socket path must have 1 to " + std::to_string(sizeof addr.sun_path - 1) + " bytes";
    return false;
  }
  std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
  int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    *err = system_error("socket");
    return false;
  }
  struct stat st;
  if (::lstat(path.c_str(), &st) == 0) {
    if (!S_ISSOCK(st.st_mode)) {
      ::close(fd);
      *err = path + " exists and is not a socket";
      return false;
    }
    // A socket file that nobody answers on is left from a server that is
    // gone; one that answers belongs to a server still running.
    if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0 || errno != ECONNREFUSED) {
      ::close(fd);
      *err = path + " is in use by another server";
      return false;
    }
    ::close(fd);
    ::unlink(path.c_str());
    fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
      *err = system_error("socket");
      return false;
    }
  }
  if (::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 || ::listen(fd, kBacklog) != 0) {
    *err = system_error("cannot listen on " + path);
    ::close(fd);
    return false;
  }
  out->fd = fd;
  out->unix_path = path;
  out->shown = "unix:" + path;
  return true;
}

bool open_tcp(const std::string& address, ListenSocket* out, std::string* err) {
  size_t colon = address.rfind(':');
  if (colon == std::string::npos || colon + 1 == address.size()) {
    *err = "'" + address + "' is not an address with a port (127.0.0.1:9000, [::1]:9000, :9000 or unix:/path)";
    return false;
  }
  std::string host = address.substr(0, colon), port = address.substr(colon + 1);
  if (host.size() >= 2 && host.front() == '[' && host.back() == ']') host = host.substr(1, host.size() - 2);
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
  addrinfo* found = nullptr;
  int rc = ::getaddrinfo(host.empty() ? nullptr : host.c_str(), port.c_str(), &hints, &found);
  if (rc != 0) {
    *err = "cannot use the address " + address + ": " + ::gai_strerror(rc);
    return false;
  }
  std::string why = "no address";
  for (addrinfo* a = found; a; a = a->ai_next) {
    int fd = ::socket(a->ai_family, a->ai_socktype | SOCK_CLOEXEC, a->ai_protocol);
    if (fd < 0) {
      why = std::strerror(errno);
      continue;
    }
    int on = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (::bind(fd, a->ai_addr, a->ai_addrlen) == 0 && ::listen(fd, kBacklog) == 0) {
      ::freeaddrinfo(found);
      out->fd = fd;
      out->shown = address;
      return true;
    }
    why = std::strerror(errno);
    ::close(fd);
  }
  ::freeaddrinfo(found);
  *err = "cannot listen on " + address + ": " + why;
  return false;
}

}  // namespace

bool listening_socket_on_stdin() {
  // A listening socket has no peer; a CGI request's input (a pipe, a file,
  // a connected socket) is never one.
  sockaddr_storage peer{};
  socklen_t len = sizeof peer;
  errno = 0;
  if (::getpeername(STDIN_FILENO, reinterpret_cast<sockaddr*>(&peer), &len) == 0 || errno != ENOTCONN) return false;
  int listening = 0;
  len = sizeof listening;
  return ::getsockopt(STDIN_FILENO, SOL_SOCKET, SO_ACCEPTCONN, &listening, &len) == 0 && listening;
}

bool open_listen_socket(const std::string& address, ListenSocket* out, std::string* err) {
  if (address.rfind("unix:", 0) == 0) return open_unix(address.substr(5), out, err);
  return open_tcp(address, out, err);
}

bool prepare_listen_socket(int fd, uint64_t io_timeout_ms, std::string* err) {
  int flags = ::fcntl(fd, F_GETFL);
  if (flags < 0 || ::fcntl(fd, F_SETFL, flags | O_NONBLOCK) != 0) {
    *err = system_error("fcntl");
    return false;
  }
  ::fcntl(fd, F_SETFD, FD_CLOEXEC);
  timeval tv{};
  tv.tv_sec = static_cast<time_t>(io_timeout_ms / 1000);
  tv.tv_usec = static_cast<suseconds_t>(io_timeout_ms % 1000 * 1000);
  if (::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv) != 0 ||
      ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv) != 0) {
    *err = system_error("setsockopt");
    return false;
  }
  return true;
}

void stop_listening(ListenSocket& socket) {
  if (socket.fd < 0) return;
  ::shutdown(socket.fd, SHUT_RDWR);
  ::close(socket.fd);
  socket.fd = -1;
  if (!socket.unix_path.empty()) ::unlink(socket.unix_path.c_str());
}
