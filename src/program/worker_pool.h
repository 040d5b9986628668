// The FastCGI server's master process: it forks the workers that share the
// listening socket, replaces one that ends, drains and stops on SIGTERM or
// SIGINT, and replaces them all on SIGHUP.
#pragma once

#include <cstdint>
#include <string_view>

#include "program/listen_socket.h"

struct PoolSettings {
  unsigned workers = 1;
  // How long the workers may take to answer the requests they have when
  // the server stops; 0 waits for them (a second SIGTERM or SIGINT ends
  // them at once).
  uint64_t drain_ms = 0;
  // Runs in each worker process; never returns.  SIGTERM and SIGINT are
  // blocked when it starts: the worker takes them when it is idle.
  void (*work)(void* context) = nullptr;
  void* context = nullptr;
};

// Runs the pool until it is stopped; returns the process's exit status.
int run_worker_pool(ListenSocket& socket, const PoolSettings& settings);

// A line for the server's error log (standard error), with a time stamp.
void server_log(std::string_view message);

// The exit status of a worker that gave up a request it could not finish
// (past its time, out of memory) after answering it with a 500.
constexpr int kAbandonedRequestStatus = 3;
// The exit status of a worker whose listening socket no longer listens (the
// web server that handed it over has shut it): the server stops.
constexpr int kSocketGoneStatus = 4;
