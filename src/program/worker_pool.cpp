// The FastCGI server's master process.
#include "program/worker_pool.h"

#include <cstdlib>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <map>
#include <string>

#include "runtime/run.h"

namespace {

// A worker that ends within this long of its start, other than by
// retiring, makes the master wait this long before the next start, so
// that a worker that cannot start does not become a fork loop.
constexpr uint64_t kYoungDeathMs = 1000;

struct Worker {
  uint32_t generation = 0;
  uint64_t started_ms = 0;
};

struct Pool {
  ListenSocket& socket;
  const PoolSettings& settings;
  std::map<pid_t, Worker> live;
  uint32_t generation = 0;
  bool stopping = false;
  uint64_t stop_deadline_ms = 0;
  uint64_t next_start_ms = 0;  // no worker starts before this
};

std::string describe_end(int status) {
  if (WIFEXITED(status)) return "exited with status " + std::to_string(WEXITSTATUS(status));
  if (WIFSIGNALED(status)) {
    int sig = WTERMSIG(status);
    const char* name = strsignal(sig);
    return "was ended by signal " + std::to_string(sig) + (name ? std::string(" (") + name + ")" : "");
  }
  return "ended";
}

void start_worker(Pool& pool) {
  pid_t pid = ::fork();
  if (pid < 0) {
    server_log(std::string("cannot start a worker: ") + std::strerror(errno));
    pool.next_start_ms = now_ms() + kYoungDeathMs;
    return;
  }
  if (pid == 0) {
    pool.settings.work(pool.settings.context);
    std::_Exit(1);  // not reached: a worker ends the process itself
  }
  pool.live[pid] = Worker{pool.generation, now_ms()};
}

void signal_all(Pool& pool, int sig, bool only_old) {
  for (const auto& [pid, w] : pool.live) {
    if (!only_old || w.generation != pool.generation) ::kill(pid, sig);
  }
}

void begin_stop(Pool& pool, const std::string& why) {
  server_log(why + ": no new connections; stopping when the requests in progress are answered");
  pool.stopping = true;
  stop_listening(pool.socket);
  signal_all(pool, SIGTERM, false);
  if (pool.settings.drain_ms) pool.stop_deadline_ms = now_ms() + pool.settings.drain_ms;
}

void reap(Pool& pool) {
  int status = 0;
  pid_t pid;
  while ((pid = ::waitpid(-1, &status, WNOHANG)) > 0) {
    auto it = pool.live.find(pid);
    if (it == pool.live.end()) continue;
    Worker w = it->second;
    pool.live.erase(it);
    if (WIFEXITED(status) && WEXITSTATUS(status) == kSocketGoneStatus && !pool.stopping) {
      begin_stop(pool, "the listening socket was shut");
      continue;
    }
    bool retired = WIFEXITED(status) && WEXITSTATUS(status) == 0;
    if (retired || pool.stopping || w.generation != pool.generation) continue;
    bool abandoned = WIFEXITED(status) && WEXITSTATUS(status) == kAbandonedRequestStatus;
    if (!abandoned) server_log("worker " + std::to_string(pid) + " " + describe_end(status) + "; starting another");
    if (!abandoned && now_ms() - w.started_ms < kYoungDeathMs) pool.next_start_ms = now_ms() + kYoungDeathMs;
  }
}

size_t current_workers(const Pool& pool) {
  size_t n = 0;
  for (const auto& [pid, w] : pool.live) n += w.generation == pool.generation;
  return n;
}

}  // namespace

void server_log(std::string_view message) {
  char stamp[32] = "";
  time_t now = ::time(nullptr);
  struct tm local;
  if (::localtime_r(&now, &local)) std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);
  std::string line = std::string(stamp) + " cvml[" + std::to_string(::getpid()) + "]: ";
  line.append(message);
  line += '\n';
  ssize_t ignored = ::write(STDERR_FILENO, line.data(), line.size());
  (void)ignored;
}

int run_worker_pool(ListenSocket& socket, const PoolSettings& settings) {
  sigset_t handled;
  sigemptyset(&handled);
  for (int sig : {SIGCHLD, SIGTERM, SIGINT, SIGHUP}) sigaddset(&handled, sig);
  sigprocmask(SIG_BLOCK, &handled, nullptr);
  ::signal(SIGPIPE, SIG_IGN);

  Pool pool{socket, settings, {}, 0, false, 0, 0};
  for (;;) {
    uint64_t now = now_ms();
    if (!pool.stopping) {
      while (current_workers(pool) < settings.workers && now >= pool.next_start_ms) start_worker(pool);
    }
    if (pool.stopping && pool.live.empty()) return 0;
    if (pool.stopping && pool.stop_deadline_ms && now >= pool.stop_deadline_ms) {
      server_log("workers still busy at the end of the drain: ending them");
      signal_all(pool, SIGKILL, false);
      while (!pool.live.empty()) {
        pid_t pid = ::waitpid(-1, nullptr, 0);
        if (pid < 0 && errno != EINTR) break;
        pool.live.erase(pid);
      }
      return 0;
    }

    // Wake for a signal, or when a pause or the drain ends.
    uint64_t wait_ms = 60000;
    if (!pool.stopping && current_workers(pool) < settings.workers && pool.next_start_ms > now)
      wait_ms = pool.next_start_ms - now;
    if (pool.stopping && pool.stop_deadline_ms) wait_ms = std::min(wait_ms, pool.stop_deadline_ms - now);
    timespec ts{static_cast<time_t>(wait_ms / 1000), static_cast<long>(wait_ms % 1000) * 1000000L};
    siginfo_t info;
    int sig = ::sigtimedwait(&handled, &info, &ts);
    if (sig == SIGCHLD) {
      reap(pool);
    } else if (sig == SIGHUP && !pool.stopping) {
      server_log("SIGHUP: replacing the workers");
      pool.generation++;
      signal_all(pool, SIGTERM, true);
    } else if (sig == SIGTERM || sig == SIGINT) {
      if (pool.stopping) {
        pool.stop_deadline_ms = now_ms();  // a second signal: no more waiting
        continue;
      }
      begin_stop(pool, sig == SIGTERM ? "SIGTERM" : "SIGINT");
    }
  }
}
