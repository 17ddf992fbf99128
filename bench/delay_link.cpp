// delay_link ONE OTHER MICROSECONDS: two network interfaces with a cable between them, on which every
// packet takes that long. For measurements on kernels without netem. Ends when it is killed, and the
// interfaces with it.
#include <fcntl.h>
#include <linux/if.h>
#include <linux/if_tun.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <deque>
#include <string>

namespace {

struct Packet {
  int64_t due = 0;  // nanoseconds
  std::string bytes;
};

struct End {
  int fd = -1;
  std::deque<Packet> arriving;  // from the other end
};

int64_t now() {
  timespec time{};
  clock_gettime(CLOCK_MONOTONIC, &time);
  return time.tv_sec * int64_t{1000000000} + time.tv_nsec;
}

int openInterface(const char *name) {
  const int fd = open("/dev/net/tun", O_RDWR | O_NONBLOCK | O_CLOEXEC);
  ifreq request{};
  request.ifr_flags = IFF_TAP | IFF_NO_PI;
  strncpy(request.ifr_name, name, IFNAMSIZ - 1);
  if (fd < 0 || ioctl(fd, TUNSETIFF, &request) != 0) {
    perror(name);
    exit(1);
  }
  return fd;
}

}  // namespace

int main(int argc, char **argv) {
  if (argc != 4) {
    fprintf(stderr, "usage: delay_link ONE OTHER MICROSECONDS\n");
    return 2;
  }
  const int64_t delay = atoll(argv[3]) * 1000;
  std::array<End, 2> ends;
  for (size_t i = 0; i < 2; ++i) ends[i].fd = openInterface(argv[i + 1]);
  std::array<char, 65536> buffer;
  for (;;) {
    int64_t next = INT64_MAX;
    for (const End &end : ends)
      if (!end.arriving.empty() && end.arriving.front().due < next) next = end.arriving.front().due;
    const int64_t left = next == INT64_MAX ? 1000000000 : next > now() ? next - now() : 0;
    const timespec wait{left / 1000000000, left % 1000000000};
    pollfd polled[2] = {{ends[0].fd, POLLIN, 0}, {ends[1].fd, POLLIN, 0}};
    ppoll(polled, 2, &wait, nullptr);
    for (size_t i = 0; i < 2; ++i) {
      ssize_t size = 0;
      while ((size = read(ends[i].fd, buffer.data(), buffer.size())) > 0)
        ends[1 - i].arriving.push_back(
            {now() + delay, std::string(buffer.data(), static_cast<size_t>(size))});
    }
    for (End &end : ends)
      for (; !end.arriving.empty() && end.arriving.front().due <= now(); end.arriving.pop_front())
        // A packet that the other end does not accept is lost, as on a cable.
        if (write(end.fd, end.arriving.front().bytes.data(), end.arriving.front().bytes.size()) < 0)
          continue;
  }
}
