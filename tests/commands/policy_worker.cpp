// A script for the policy engine that does what its options say:
//   keep DIR            copies its batch to DIR/<pid>
//   append DIR LIST REC like keep, and appends REC to LIST
//   busy FILE MS        works for MS milliseconds; FILE gets "<working now> <most at a time> <sum>"
//   shell COMMAND       runs COMMAND with the shell and ends with its status
//   leave FILE MS       ends by SIGKILL and leaves a process that writes FILE after MS milliseconds
//   hold DIR            leaves DIR/<pid> and waits to be killed

#include <fcntl.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

std::string readAll(const std::string &path) {
  std::string text;
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  char part[4096];
  ssize_t got;
  while ((got = read(fd, part, sizeof(part))) > 0) text.append(part, static_cast<size_t>(got));
  close(fd);
  return text;
}

bool put(const std::string &path, const std::string &text, int flags) {
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | flags, 0600);
  bool good = fd >= 0 && write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  close(fd);
  return good;
}

bool count(const std::string &path, int change) {
  int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0 || flock(fd, LOCK_EX) < 0) return false;
  char text[64] = "";
  int now = 0, most = 0, sum = 0;
  if (pread(fd, text, sizeof(text) - 1, 0) > 0) sscanf(text, "%d %d %d", &now, &most, &sum);
  now += change;
  if (now > most) most = now;
  if (change > 0) sum++;
  int length = snprintf(text, sizeof(text), "%4d %4d %4d\n", now, most, sum);
  bool good = pwrite(fd, text, static_cast<size_t>(length), 0) == length;
  close(fd);
  return good;
}

void sleepMs(const char *ms) {
  usleep(static_cast<useconds_t>(atoi(ms)) * 1000);
}

}  // namespace

int main(int argc, char **argv) {
  if (argc >= 2 && !strcmp(argv[1], "TEST")) return 0;
  if (argc < 5 || strcmp(argv[1], "LIST")) return 99;
  std::string mode = argv[3], first = argv[4], mine = first + "/" + std::to_string(getpid());
  std::string batch = readAll(argv[2]);
  if (batch.empty()) return 98;
  if (mode == "keep") return put(mine, batch, O_EXCL) ? 0 : 1;
  if (mode == "append") return put(mine, batch, O_EXCL) && put(argv[5], argv[6], O_APPEND) ? 0 : 1;
  if (mode == "hold") return put(mine, batch, O_EXCL) ? pause() : 1;
  if (mode == "shell") {
    int status = system(argv[4]);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 97;
  }
  if (mode == "busy") {
    if (!count(first, 1)) return 1;
    sleepMs(argv[5]);
    return count(first, -1) ? 0 : 1;
  }
  if (mode == "leave") {
    if (fork() == 0) {
      setsid();
      sleepMs(argv[5]);
      _exit(put(first, "done", 0) ? 0 : 1);
    }
    kill(getpid(), SIGKILL);
  }
  return 96;
}
