#include "front/top_mount.h"

#include <linux/magic.h>
#include <sched.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "front/text.h"
#include "front/trouble.h"
#include "messages/front_texts.h"

namespace front {

namespace {

// Chooses the folder for the mount point. Memory file systems come first, because a mount point inside
// the fileset would obstruct its restore.
std::string folderForMountPoint() {
  static constexpr const char *kFolders[] = {"/run", "/dev/shm", "/dev", "/tmp"};
  for (const char *folder : kFolders) {
    struct statfs figures;
    if (statfs(folder, &figures) == 0 && figures.f_type != BTRFS_SUPER_MAGIC &&
        access(folder, W_OK) == 0)
      return folder;
  }
  return kFolders[0];
}

// A signal that ends this process must not leave the mount point behind. While a restore runs,
// restore_run handles these signals.
char signalled_point[64];

void removeAndEnd(int number) {
  umount2(signalled_point, MNT_DETACH);
  rmdir(signalled_point);
  signal(number, SIG_DFL);
  raise(number);
}

void removeOnSignals(const std::string &point) {
  snprintf(signalled_point, sizeof signalled_point, "%s", point.c_str());
  for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGPIPE}) {
    struct sigaction action;
    if (sigaction(number, nullptr, &action) == 0 && action.sa_handler == SIG_IGN) continue;
    action = {};
    action.sa_handler = removeAndEnd;
    sigaction(number, &action, nullptr);
  }
}

[[noreturn]] void cannotMount(const std::string &device) {
  throw Trouble(frontText(FrontText::kCannotMountTop, shown(device), strerror(errno)));
}

}  // namespace

TopMount::TopMount(const std::string &device, bool read_only) {
  // MS_SLAVE: mounts made here stay invisible outside, and file systems unmounted outside do not stay
  // busy here.
  if (unshare(CLONE_NEWNS) != 0 || mount("none", "/", nullptr, MS_REC | MS_SLAVE, nullptr) != 0)
    cannotMount(device);
  std::string point = folderForMountPoint() + "/fset.XXXXXX";
  if (!mkdtemp(point.data())) cannotMount(device);
  removeOnSignals(point);
  const unsigned long flags = MS_NOATIME | MS_NODEV | MS_NOSUID | (read_only ? MS_RDONLY : 0);
  if (mount(device.c_str(), point.c_str(), "btrfs", flags, "subvolid=5") != 0) {
    const int error = errno;
    rmdir(point.c_str());
    errno = error;
    cannotMount(device);
  }
  point_ = point;
}

TopMount::~TopMount() {
  if (point_.empty()) return;
  umount2(point_.c_str(), MNT_DETACH);
  rmdir(point_.c_str());
}

}  // namespace front
