// The FastCGI server's listening socket: opened from a --listen address,
// or the one a web server hands over as standard input.
#pragma once

#include <cstdint>
#include <string>

// True when standard input is a listening socket: the FastCGI convention
// by which a web server (lighttpd's bin-path, Apache's mod_fcgid) starts
// its application processes.
bool listening_socket_on_stdin();

struct ListenSocket {
  int fd = -1;
  std::string unix_path;  // a Unix socket's file, removed when the server ends
  std::string shown;      // the address as log lines show it
};

// Opens `address` ("127.0.0.1:9000", "[::1]:9000", ":9000",
// "unix:/run/cvml.sock") for listening.  A Unix socket's file left behind
// by a server that is gone is replaced; one that answers is not.  False
// with the reason in `err`.
bool open_listen_socket(const std::string& address, ListenSocket* out, std::string* err);
// Readies a listening socket for the workers: accepting never waits (the
// workers poll), and the connections accepted from it give up a read or a
// write that makes no progress for `io_timeout_ms` (Linux hands a listening
// socket's time-outs on to the connections it accepts).
bool prepare_listen_socket(int fd, uint64_t io_timeout_ms, std::string* err);
// Stops the socket taking connections at once, for every process that
// shares it; connections not yet accepted are refused.
void stop_listening(ListenSocket& socket);
