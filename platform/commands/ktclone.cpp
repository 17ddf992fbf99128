// ktclone: makes a clone parent, or a clone of one.

#include <cerrno>
#include <cstring>

#include "commands/command_line.h"
#include "kest.h"

namespace {

constexpr char kUsage[] =
    "Usage: ktclone snap FILE\n"
    "       ktclone copy PARENT FILE\n"
    "snap  makes the file FILE a clone parent: a read-only file (immutable flag) that clones can be "
    "made\n"
    "      of. To change, remove or move it by hand, clear the flag with 'chattr -i'; snap sets it "
    "again.\n"
    "copy  makes FILE, a new file, a clone of the clone parent PARENT: a file of its own with the "
    "parent's\n"
    "      data, which takes no space until it is changed, for it shares the parent's blocks. It "
    "remembers\n"
    "      its parent by inode number. PARENT may lie in a snapshot.\n"
    "A clone can be made a clone parent in turn. Owner, mode and attributes are not copied.\n";

std::string snapProblem(int error) {
  switch (error) {
    case EROFS:
      return "is a clone parent already, or cannot be changed";
    case EINVAL:
      return "no regular file";
    case EBUSY:
      return "is open for writing";
    default:
      return strerror(error);
  }
}

std::string copyProblem(const std::string &parent, int error) {
  switch (error) {
    case EINVAL:
      return parent + " is no clone parent, or cannot share its blocks";
    case EXDEV:
      return parent + " lies in another file system or in an unrelated subvolume";
    case EROFS:
      return "its directory cannot be changed";
    case EOVERFLOW:
      return parent + " is a clone of too great a depth";
    default:
      return strerror(error);
  }
}

}  // namespace

int main(int argc, char **argv) {
  kest::CommandLine line("ktclone", kUsage);
  int status;
  if (!line.parse(argc, argv, "", 2, &status, 3)) return status;
  bool snap = line.word(0) == "snap";
  if (!snap && line.word(0) != "copy") return line.usageError("snap or copy expected");
  if (line.words() != (snap ? 2 : 3))
    return line.usageError(snap ? "snap takes one file" : "copy takes a parent and a file");
  if (snap) {
    if (kest_clone_snap(line.word(1).c_str(), nullptr) == 0) return 0;
    return line.fail(line.word(1) + ": " + snapProblem(errno));
  }
  if (kest_clone_copy(line.word(1).c_str(), line.word(2).c_str()) == 0) return 0;
  return line.fail(line.word(2) + ": " + copyProblem(line.word(1), errno));
}
