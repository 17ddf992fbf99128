// bench_measure RESULT COMMAND [ARG...]: runs the command and writes to the file RESULT: seconds,
// processor seconds (user, system), and the peak memory in KiB of the largest process. Exits with the
// status of the command.

#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace {

double now() {
  timespec time;
  clock_gettime(CLOCK_MONOTONIC, &time);
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

double seconds(const timeval &time) {
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

}  // namespace

int main(int argc, char **argv) {
  if (argc < 3) {
    fprintf(stderr, "bench_measure RESULT COMMAND [ARG...]\n");
    return 2;
  }
  double start = now();
  pid_t child;
  int error = posix_spawnp(&child, argv[2], nullptr, nullptr, argv + 2, environ);
  if (error != 0) {
    fprintf(stderr, "bench_measure: %s: %s\n", argv[2], strerror(error));
    return 127;
  }
  int status;
  rusage use;  // of the child and all awaited descendants; the peak is that of the largest process
  if (wait4(child, &status, 0, &use) != child) return 127;
  double wall = now() - start;
  FILE *result = fopen(argv[1], "we");
  if (result == nullptr ||
      fprintf(result, "%.6f %.3f %.3f %ld\n", wall, seconds(use.ru_utime), seconds(use.ru_stime),
              use.ru_maxrss) < 0 ||
      fclose(result) != 0) {
    perror(argv[1]);
    return 127;
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}
