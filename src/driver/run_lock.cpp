#include "driver/run_lock.h"

#include <fcntl.h>
#include <string.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>

#include "cfgmgr/messages.h"
#include "object/object_stat.h"
#include "run/descriptor.h"
#include "run/run_handles.h"
#include "run/settings.h"
#include "run/shell_command.h"

namespace {

// Above those that shells redirect by their numbers, should this process have been started without
// them.
constexpr int kLeastDescriptor = 3;

// A descriptor with the lock, or -1 and errno.
int takeLock() {
  // Of the directory that the handle holds, whatever its path means by now.
  const Descriptor named(openObject(handles.rootPath));
  if (!named) return -1;
  const Descriptor root(reopen(named.get(), O_RDONLY | O_DIRECTORY));
  if (!root || flock(root.get(), LOCK_EX | LOCK_NB) != 0) return -1;
  return fcntl(root.get(), F_DUPFD_CLOEXEC, kLeastDescriptor);  // shares the lock
}

}  // namespace

int lockFileset() {
  const int lock = takeLock();
  if (lock >= 0) {
    inheritInCommands(lock);  // open as long as we live
    return 0;
  }
  const int error = errno ? errno : EIO;
  if (error == EWOULDBLOCK) {
    userMessage(Message::kAlreadyRunning, settings.filesetP);
  } else {
    userMessage(Message::kNoRunLock, settings.filesetP, strerror(error));
  }
  return error;
}
