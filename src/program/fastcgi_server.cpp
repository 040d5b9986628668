// The FastCGI server's workers: accepting, one run per request, and the
// bounds that a run cannot keep by itself.
#include "program/fastcgi_server.h"

#include <fcgiapp.h>
#include <fcntl.h>
#include <malloc.h>
#include <poll.h>
#include <setjmp.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>
#include <thread>

#include "program/listen_socket.h"
#include "program/startup.h"
#include "program/worker_pool.h"
#include "runtime/page_store.h"
#include "runtime/run.h"

#if defined(__SANITIZE_ADDRESS__)
#define CVML_ADDRESS_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define CVML_ADDRESS_SANITIZER 1
#endif
#endif

namespace {

// A read or write of a connection that makes no progress for this long
// gives the connection up.
constexpr uint64_t kIoTimeoutMs = 30000;
// The watchdog ends a worker whose request is still running this long
// after its time limit: the run checks the limit between tags, so only a
// tag that itself blocks gets this far.
constexpr uint64_t kWatchdogGraceMs = 2000;
// The engine's own default budget of a run, when the flags set none: the
// address-space bound is made from it.
constexpr uint64_t kAssumedBudget = uint64_t{128} << 20;

struct Server {
  ServerOptions options;
  std::string program;
  ListenSocket socket;
  uint64_t budget = 0;  // the memory budget of a run, for the worker's bounds
};

// ---------------------------------------------------------------------------
// Requests a worker cannot finish
//
// When a request's tag blocks past the time limit, or the worker runs out
// of memory, the worker answers with a 500 (unless the response has
// begun), logs the request and ends; the master starts another.  Signal
// handlers may not allocate or format, so both answers are made when the
// request starts.

struct Abandon {
  int fd = -1;
  volatile sig_atomic_t armed = 0;
  volatile sig_atomic_t response_started = 0;
  std::string time_records, memory_records;  // FastCGI records of the answer
  std::string time_log, memory_log;          // the error log's line
} abandon;

void write_all(int fd, const char* p, size_t n) {
  while (n > 0) {
    ssize_t w = ::write(fd, p, n);
    if (w < 0 && errno == EINTR) continue;
    if (w <= 0) return;
    p += w;
    n -= static_cast<size_t>(w);
  }
}

[[noreturn]] void abandon_request(const std::string& records, const std::string& log) {
  if (abandon.armed) {
    if (!abandon.response_started && abandon.fd >= 0) write_all(abandon.fd, records.data(), records.size());
    write_all(STDERR_FILENO, log.data(), log.size());
  }
  ::_exit(kAbandonedRequestStatus);
}

void on_watchdog(int) { abandon_request(abandon.time_records, abandon.time_log); }
void on_out_of_memory() { abandon_request(abandon.memory_records, abandon.memory_log); }

// One FastCGI record of `type` for request `id`.
void add_record(std::string& out, unsigned char type, int id, std::string_view content) {
  unsigned char header[8] = {1, type, static_cast<unsigned char>(id >> 8), static_cast<unsigned char>(id),
                             static_cast<unsigned char>(content.size() >> 8),
                             static_cast<unsigned char>(content.size()), 0, 0};
  out.append(reinterpret_cast<const char*>(header), sizeof header);
  out.append(content);
}

// A whole 500 answer to request `id`: its body, then the end of the request.
std::string answer_records(int id, std::string_view message) {
  std::string response = "Status: 500 Internal Server Error\nContent-Type: text/plain\n\n";
  response.append(message);
  response += '\n';
  std::string out;
  add_record(out, 6, id, response.substr(0, 65535));  // FCGI_STDOUT
  add_record(out, 6, id, "");
  add_record(out, 3, id, std::string_view("\0\0\0\0\0\0\0\0", 8));  // FCGI_END_REQUEST
  return out;
}

std::string log_stamp() {
  char stamp[32] = "";
  time_t now = ::time(nullptr);
  struct tm local;
  if (::localtime_r(&now, &local)) std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);
  return stamp;
}

void arm_abandon(const Server& server, const FCGX_Request& request, const std::string& uri) {
  // The connection's descriptor; the library keeps it in the request.
  abandon.fd = request.ipcFd;
  abandon.response_started = 0;
  static const std::string pid = std::to_string(::getpid());  // a worker's own, made after the fork
  std::string who = log_stamp() + " cvml[" + pid + "]: " + uri + ": ";
  uint64_t limit = server.options.max_time_ms;
  std::string seconds = limit % 1000 ? std::to_string(limit) + " ms" : std::to_string(limit / 1000) + " s";
  abandon.time_records =
      answer_records(request.requestId, "The request ran longer than its time limit of " + seconds + " (--max-time).");
  abandon.time_log = who + "a tag still running past --max-time (" + seconds +
                     "); the worker is replaced (the request started at the time shown)\n";
  abandon.memory_records = answer_records(request.requestId, "The request ran out of memory.");
  abandon.memory_log = who + "out of memory; the worker is replaced (the request started at the time shown)\n";
  abandon.armed = 1;
  if (limit) {
    itimerval timer{};
    uint64_t ms = limit + kWatchdogGraceMs;
    timer.it_value.tv_sec = static_cast<time_t>(ms / 1000);
    timer.it_value.tv_usec = static_cast<suseconds_t>(ms % 1000 * 1000);
    ::setitimer(ITIMER_REAL, &timer, nullptr);
  }
}

void disarm_abandon() {
  itimerval off{};
  ::setitimer(ITIMER_REAL, &off, nullptr);
  abandon.armed = 0;
  abandon.fd = -1;
}

// ---------------------------------------------------------------------------
// Memory

// Bounds the worker's address space, so that a run that escapes its
// memory budget fails its allocations instead of taking the machine's
// memory: about four times the budget above what the worker holds at its
// start.  (The address sanitizer reserves far more address space; it gets
// no bound.)
void bound_address_space(uint64_t budget) {
#ifndef CVML_ADDRESS_SANITIZER
  long pages = 0;
  if (FILE* statm = std::fopen("/proc/self/statm", "r")) {
    if (std::fscanf(statm, "%ld", &pages) != 1) pages = 0;
    std::fclose(statm);
  }
  uint64_t now = static_cast<uint64_t>(pages) * static_cast<uint64_t>(::sysconf(_SC_PAGESIZE));
  rlimit limit{};
  ::getrlimit(RLIMIT_AS, &limit);
  uint64_t bound = now + 4 * budget + (uint64_t{256} << 20);
  if (limit.rlim_cur == RLIM_INFINITY || bound < limit.rlim_cur) limit.rlim_cur = bound;
  ::setrlimit(RLIMIT_AS, &limit);
#else
  (void)budget;
#endif
}

// ---------------------------------------------------------------------------
// A request's streams as the run's input and output

size_t read_request(void* context, char* buffer, size_t size) {
  auto* request = static_cast<FCGX_Request*>(context);
  int n = FCGX_GetStr(buffer, static_cast<int>(std::min<size_t>(size, 1 << 30)), request->in);
  return n > 0 ? static_cast<size_t>(n) : 0;
}

bool write_request(void* context, std::string_view bytes) {
  auto* request = static_cast<FCGX_Request*>(context);
  abandon.response_started = 1;
  while (!bytes.empty()) {
    int n = static_cast<int>(std::min<size_t>(bytes.size(), 1 << 30));
    if (FCGX_PutStr(bytes.data(), n, request->out) != n) return false;
    bytes.remove_prefix(static_cast<size_t>(n));
  }
  return FCGX_GetError(request->out) == 0;
}

const char* param(char** envp, std::string_view name) {
  for (char** e = envp; e && *e; ++e) {
    std::string_view entry(*e);
    if (entry.size() > name.size() && entry[name.size()] == '=' && entry.substr(0, name.size()) == name)
      return *e + name.size() + 1;
  }
  return nullptr;
}

void serve_request(const Server& server, FCGX_Request& request) {
  const char* root = param(request.envp, "DOCUMENT_ROOT");
  if (!root || !*root) {
    // Without it there is no web root to find the page in, and the page
    // may not be chosen any other way.
    FCGX_PutS("Status: 500 Internal Server Error\nContent-Type: text/plain\n\n"
              "The web server sent no DOCUMENT_ROOT with the request.\n",
              request.out);
    server_log("a request without DOCUMENT_ROOT: the web server's FastCGI parameters must include it");
    return;
  }
  std::vector<std::string> env;
  for (char** e = request.envp; e && *e; ++e) env.emplace_back(*e);
  const char* uri = param(request.envp, "REQUEST_URI");
  if (!uri) uri = param(request.envp, "SCRIPT_NAME");

  RequestIO io;
  io.read = read_request;
  io.write = write_request;
  io.context = &request;
  io.status_lines = true;
  arm_abandon(server, request, uri ? uri : "-");
  run_request({server.program}, std::move(env), io);
  disarm_abandon();
}

// ---------------------------------------------------------------------------
// The worker

volatile sig_atomic_t stop_requested = 0;
void on_stop(int) { stop_requested = 1; }

// The library reading a request allocates a parameter's bytes by the
// lengths the peer declares, and asserts that the allocation succeeded:
// two lengths that add up past 2 GB overflow its size, and a length past
// the address-space bound cannot be had; either would end the process.
// While it reads a request, such an abort returns to the worker's loop,
// which closes that connection and takes the next one.
sigjmp_buf reading_jump;
volatile sig_atomic_t reading_request = 0;
void on_abort(int sig) {
  if (reading_request) {
    reading_request = 0;
    siglongjmp(reading_jump, 1);
  }
  ::signal(sig, SIG_DFL);
  ::raise(sig);
}

// True when the worker holds much more than its caches should after a
// request: memory given back to the system first, then the verdict.
bool holds_too_much(const Server& server) {
#ifndef CVML_ADDRESS_SANITIZER
  uint64_t allowed = server.options.page_cache + (uint64_t{64} << 20);
  struct mallinfo2 info = ::mallinfo2();
  if (info.uordblks + info.hblkhd > allowed) return true;
  if (info.arena + info.hblkhd > allowed) ::malloc_trim(0);
#else
  (void)server;
#endif
  return false;
}

[[noreturn]] void worker_main(void* context) {
  const Server& server = *static_cast<const Server*>(context);
  ::prctl(PR_SET_PDEATHSIG, SIGTERM);

  struct sigaction sa{};
  sigemptyset(&sa.sa_mask);
  sa.sa_handler = on_stop;  // no SA_RESTART: a waiting poll returns
  sigaction(SIGTERM, &sa, nullptr);
  sigaction(SIGINT, &sa, nullptr);
  sa.sa_handler = on_watchdog;
  sigaction(SIGALRM, &sa, nullptr);
  sa.sa_handler = on_abort;
  sigaction(SIGABRT, &sa, nullptr);
  ::signal(SIGHUP, SIG_IGN);
  ::signal(SIGPIPE, SIG_IGN);
  ::signal(SIGCHLD, SIG_DFL);
  // SIGTERM and SIGINT stay blocked (as the master left them) except while
  // the worker waits for a connection.
  sigset_t mask;
  sigprocmask(SIG_SETMASK, nullptr, &mask);
  sigdelset(&mask, SIGCHLD);
  sigdelset(&mask, SIGHUP);
  sigdelset(&mask, SIGALRM);
  sigaddset(&mask, SIGTERM);
  sigaddset(&mask, SIGINT);
  sigprocmask(SIG_SETMASK, &mask, nullptr);
  sigset_t waiting = mask;
  sigdelset(&waiting, SIGTERM);
  sigdelset(&waiting, SIGINT);

  bound_address_space(server.budget);
  std::set_new_handler(on_out_of_memory);
  int home = ::open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);

  FCGX_Init();
  FCGX_Request request;
  FCGX_InitRequest(&request, server.socket.fd, 0);
  uint64_t served = 0;
  int status = 0;
  while (!stop_requested) {
    pollfd listening{server.socket.fd, POLLIN | POLLRDHUP, 0};
    int ready = ::ppoll(&listening, 1, nullptr, &waiting);
    if (ready <= 0 || stop_requested) continue;
    // A ppoll that finds the socket ready returns without taking a pending
    // signal, so a worker that is never idle looks for one here.
    sigset_t pending;
    if (sigpending(&pending) == 0 && (sigismember(&pending, SIGTERM) || sigismember(&pending, SIGINT))) break;
    if (listening.revents & (POLLERR | POLLNVAL | POLLHUP | POLLRDHUP)) {
      status = kSocketGoneStatus;
      break;
    }
    if (sigsetjmp(reading_jump, 0) != 0) {
      // Back from the abort's handler, which left SIGABRT blocked.
      sigset_t abort_signal;
      sigemptyset(&abort_signal);
      sigaddset(&abort_signal, SIGABRT);
      sigprocmask(SIG_UNBLOCK, &abort_signal, nullptr);
      FCGX_Free(&request, 1);
      server_log("a request with parameters the FastCGI library cannot take (declared lengths past 2 GB): "
                 "its connection is closed");
      continue;
    }
    reading_request = 1;
    int rc = FCGX_Accept_r(&request);
    reading_request = 0;
    if (rc < 0) {
      // Nothing to take (another worker took it), or a connection that was
      // not a good request: the library has closed it.  A socket that no
      // longer listens ends the worker.
      if (rc == -EINVAL || rc == -EBADF || rc == -ENOTSOCK) {
        status = kSocketGoneStatus;
        break;
      }
      continue;
    }
    serve_request(server, request);
    // Back in the worker's own directory before the response is complete.
    if (home >= 0 && ::fchdir(home) != 0) break;
    FCGX_Finish_r(&request);
    FCGX_Free(&request, 1);  // connections are not kept for another request
    if (server.options.max_requests && ++served >= server.options.max_requests) break;
    if (holds_too_much(server)) {
      server_log("a worker holds more memory than its caches need after a request; it is replaced");
      break;
    }
  }
  std::exit(status);
}

unsigned cores() {
  unsigned n = std::thread::hardware_concurrency();
  return n ? n : 1;
}

}  // namespace

int serve_fastcgi(const ServerOptions& options, const std::string& program, const std::string& version) {
  static Server server;
  server.options = options;
  server.program = program;
  // The report mode for every run (CVML_REPORTS in CGI mode) comes from
  // the flag here.
  ::setenv("CVML_REPORTS", options.reports == ReportsTo::log ? "log" : "page", 1);
  configure_program();
  RunLimits limits = run_limits_in_force();
  limits.time_ms = options.max_time_ms;
  if (options.max_memory) limits.memory_bytes = options.max_memory;
  set_limits_for_runs(limits);
  server.budget = limits.memory_bytes ? limits.memory_bytes : kAssumedBudget;
  set_page_cache_bytes(options.page_cache);

  std::string err;
  unsigned workers = options.workers;
  if (options.listen.empty()) {
    server.socket.fd = STDIN_FILENO;
    server.socket.shown = "the socket on standard input";
    if (!workers) workers = 1;
  } else {
    if (!open_listen_socket(options.listen, &server.socket, &err)) {
      server_log(err);
      return 1;
    }
    if (!workers) workers = cores();
  }
  if (!prepare_listen_socket(server.socket.fd, kIoTimeoutMs, &err)) {
    server_log(err);
    return 1;
  }
  server_log("cvml " + version + " serving FastCGI on " + server.socket.shown + " with " + std::to_string(workers) +
             (workers == 1 ? " worker" : " workers"));

  PoolSettings pool;
  pool.workers = workers;
  pool.drain_ms = options.max_time_ms ? options.max_time_ms + kWatchdogGraceMs + 3000 : 0;
  pool.work = worker_main;
  pool.context = &server;
  int status = run_worker_pool(server.socket, pool);
  stop_listening(server.socket);
  server_log("stopped");
  return status;
}
