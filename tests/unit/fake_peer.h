// A scripted TCP peer on 127.0.0.1 for protocol-client tests: it accepts one
// connection on a free port and runs a script on its own thread.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <string_view>
#include <thread>

namespace fake_peer {

// Every peer socket gives up after this long, so a client that stops
// talking fails the test instead of hanging it.
constexpr int kPeerTimeoutSeconds = 5;

inline void set_timeouts(int fd) {
  timeval limit{kPeerTimeoutSeconds, 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
}

// A listening socket on 127.0.0.1 and a free port; -1 on failure.
inline int listen_any(int& port) {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&address), length) != 0 || listen(fd, 4) != 0 ||
      getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    if (fd >= 0) close(fd);
    return -1;
  }
  set_timeouts(fd);
  port = ntohs(address.sin_port);
  return fd;
}

// Accepts one connection (bounded by the listener's time-out); -1 on failure.
inline int accept_one(int listener) {
  int fd = accept(listener, nullptr, nullptr);
  if (fd >= 0) set_timeouts(fd);
  return fd;
}

inline int connect_to(int port) {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<uint16_t>(port));
  if (fd < 0 || connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    if (fd >= 0) close(fd);
    return -1;
  }
  set_timeouts(fd);
  return fd;
}

inline void send_text(int fd, std::string_view text) {
  while (!text.empty()) {
    ssize_t sent = send(fd, text.data(), text.size(), MSG_NOSIGNAL);
    if (sent <= 0) return;
    text.remove_prefix(static_cast<size_t>(sent));
  }
}

// Reads until `terminator` has arrived (or the peer closes or times out);
// returns everything read, the terminator included.
inline std::string read_until(int fd, std::string_view terminator) {
  std::string text;
  char c;
  while (text.size() < terminator.size() || text.compare(text.size() - terminator.size(), terminator.size(),
                                                          terminator) != 0) {
    if (recv(fd, &c, 1, 0) != 1) break;
    text += c;
  }
  return text;
}

// Reads until the peer closes.
inline std::string read_all(int fd) {
  std::string text;
  char chunk[4096];
  ssize_t got;
  while ((got = recv(fd, chunk, sizeof chunk, 0)) > 0) text.append(chunk, static_cast<size_t>(got));
  return text;
}

// One scripted server.  The script gets the accepted connection and appends
// what it received to `heard`, which the test reads after `finish`.
struct Server {
  int listener = -1;
  int port = 0;
  std::string heard;
  std::thread thread;

  Server() = default;
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;
  ~Server() { finish(); }

  void start(std::function<void(int fd, std::string& heard)> script) {
    listener = listen_any(port);
    thread = std::thread([this, script] {
      int fd = accept_one(listener);
      if (fd < 0) return;
      script(fd, heard);
      close(fd);
    });
  }
  // Waits for the script to end.
  void finish() {
    if (thread.joinable()) thread.join();
    if (listener >= 0) close(listener);
    listener = -1;
  }
};

// Reads one command line and records it.
inline std::string hear_line(int fd, std::string& heard) {
  std::string line = read_until(fd, "\r\n");
  heard += line;
  return line;
}

}  // namespace fake_peer
