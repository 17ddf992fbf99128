#include "front/btrfs_backup.h"

#include <btrfsutil.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>

#include <cerrno>

#include "front/text.h"
#include "front/trouble.h"
#include "messages/front_texts.h"

namespace front {

namespace {

constexpr int kMostTries = 1000;   // backups of one fileset in one second
constexpr size_t kNamePart = 180;  // most bytes of the fileset's name in the name of a backup

[[noreturn]] void cannotTake(int error) {
  throw Trouble(frontText(FrontText::kNoBackup, strerror(error)));
}

// Opens the folder for backups and makes it if necessary. Only root may enter it: old states contain
// what owners have hidden or repaired since.
UniqueFd openFolder(const std::string &top) {
  const UniqueFd above(open(top.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!above) cannotTake(errno);
  if (mkdirat(above.get(), kBackupFolder, 0700) != 0 && errno != EEXIST) cannotTake(errno);
  UniqueFd folder(openat(above.get(), kBackupFolder, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  struct stat status;
  if (!folder || fstat(folder.get(), &status) != 0) cannotTake(errno);
  if (status.st_uid != 0 || (status.st_mode & 0022) != 0) cannotTake(EPERM);
  return folder;
}

}  // namespace

std::string takeBtrfsBackup(const Fileset &fileset, Backup kind, int64_t now) {
  if (fileset.top.point().empty()) cannotTake(ENXIO);
  const UniqueFd folder = openFolder(fileset.top.point());
  const std::string of = fileset.path.empty() ? "top" : lastComponent(fileset.path);
  const std::string name = of.substr(0, kNamePart) + backupEnding(kind, now);
  for (int number = 1; number <= kMostTries; ++number) {
    const std::string tried = number == 1 ? name : name + "." + std::to_string(number);
    const btrfs_util_error error =
        btrfs_util_create_snapshot_fd2(fileset.root.get(), folder.get(), tried.c_str(),
                                       BTRFS_UTIL_CREATE_SNAPSHOT_READ_ONLY, nullptr, nullptr);
    if (error == BTRFS_UTIL_OK) return std::string(kBackupFolder) + "/" + tried;
    if (errno != EEXIST) cannotTake(errno);
  }
  cannotTake(EEXIST);
}

}  // namespace front
