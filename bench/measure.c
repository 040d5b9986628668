/* Runs one command under a time limit and reports what it cost, for the
   single runs of bench/run.sh (memory, depth, append):

     measure SECONDS REPORT COMMAND [ARG...]

   The command keeps the standard streams.  REPORT receives one line:
   "STATUS WALL CPU MAXRSS": the command's exit status (124 when the limit
   ended it, 128 + N when signal N did), the wall time and the user + system
   CPU time in seconds, and the peak resident set size in KiB.  A command
   still running at the limit is killed with its process group. */
#define _GNU_SOURCE
#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

static volatile sig_atomic_t expired = 0;

static void on_alarm(int sig) {
  (void)sig;
  expired = 1;
}

static double now(void) {
  struct timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  return (double)t.tv_sec + (double)t.tv_nsec / 1e9;
}

int main(int argc, char **argv) {
  if (argc < 4) {
    fprintf(stderr, "usage: %s SECONDS REPORT COMMAND [ARG...]\n", argv[0]);
    return 2;
  }
  double limit = atof(argv[1]);
  FILE *report = fopen(argv[2], "w");
  if (!report) {
    perror(argv[2]);
    return 2;
  }

  struct sigaction sa;
  memset(&sa, 0, sizeof sa);
  sa.sa_handler = on_alarm; /* no SA_RESTART: wait4 returns on the alarm */
  sigaction(SIGALRM, &sa, NULL);

  double start = now();
  pid_t pid = fork();
  if (pid < 0) {
    perror("fork");
    return 2;
  }
  if (pid == 0) {
    setpgid(0, 0);
    execvp(argv[3], argv + 3);
    perror(argv[3]);
    _exit(127);
  }
  setpgid(pid, pid);

  struct itimerval timer;
  memset(&timer, 0, sizeof timer);
  timer.it_value.tv_sec = (time_t)limit;
  timer.it_value.tv_usec = (suseconds_t)((limit - (double)(time_t)limit) * 1e6);
  /* The alarm repeats, so an alarm that falls just before wait4 blocks is
     followed by one that interrupts it. */
  timer.it_interval.tv_usec = 100000;
  if (limit > 0) setitimer(ITIMER_REAL, &timer, NULL);

  int status = 0, killed = 0;
  struct rusage ru;
  for (;;) {
    if (expired && !killed) {
      kill(-pid, SIGKILL);
      killed = 1;
    }
    pid_t r = wait4(pid, &status, 0, &ru);
    if (r == pid) break;
    if (r < 0 && errno != EINTR) {
      perror("wait4");
      return 2;
    }
  }
  double wall = now() - start;
  double cpu = (double)ru.ru_utime.tv_sec + (double)ru.ru_utime.tv_usec / 1e6 +
               (double)ru.ru_stime.tv_sec + (double)ru.ru_stime.tv_usec / 1e6;
  int code = killed ? 124 : WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  fprintf(report, "%d %.6f %.6f %ld\n", code, wall, cpu, ru.ru_maxrss);
  fclose(report);
  return code;
}
