// tree_builder.h: short verbs that build and change trees. Every verb takes paths below the builder's
// root, of any length, follows no symbolic link on the way, and throws std::system_error with a
// readable text ("chmod a/b: Operation not permitted") if the kernel refuses.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "support/descriptor.h"

namespace testsupport {

// Returns `length` bytes from `offset` on of a pattern that depends only on seed and position.
std::string patternBytes(uint64_t seed, uint64_t offset, size_t length);

// Returns a value of system.posix_acl_access or system.posix_acl_default: owner rwx, one user with the
// given rights, group r-x, mask rwx, others ---.
std::string aclForUser(uint32_t user, uint16_t permissions);

inline constexpr const char *kAccessAcl = "system.posix_acl_access";
inline constexpr const char *kDefaultAcl = "system.posix_acl_default";

class TreeBuilder {
 public:
  explicit TreeBuilder(const std::string &root);
  const std::string &root() const { return root_; }

  // New objects. EEXIST if the name is taken. Modes are exact, whatever the umask.
  void file(const std::string &path, std::string_view text = "", mode_t mode = 0644);
  void big(const std::string &path, uint64_t bytes, uint64_t seed);  // pattern bytes
  void sparse(const std::string &path, uint64_t size, const std::vector<uint64_t> &islands);
  void dir(const std::string &path, mode_t mode = 0755);
  void dirs(const std::string &path);  // with missing parents; keeps existing ones
  void symlink(const std::string &target, const std::string &path);
  void fifo(const std::string &path, mode_t mode = 0644);
  void socket(const std::string &path, mode_t mode = 0644);
  void device(const std::string &path, mode_t type, unsigned majorNumber, unsigned minorNumber);
  void link(const std::string &existing, const std::string &path);

  // Data of an existing file.
  void write(const std::string &path, uint64_t offset, std::string_view bytes);
  void append(const std::string &path, std::string_view bytes);
  void pattern(const std::string &path, uint64_t offset, uint64_t length, uint64_t seed);
  void truncate(const std::string &path, uint64_t size);
  void punch(const std::string &path, uint64_t offset, uint64_t length);
  void preallocate(const std::string &path, uint64_t offset, uint64_t length, bool keepSize = false);
  void writeMapped(const std::string &path, uint64_t offset, std::string_view bytes);  // not flushed
  void reflink(const std::string &from, const std::string &path);  // a new file that shares all blocks

  // Clones, made by the file system's own command.
  void cloneParent(const std::string &path);                             // ktclone snap
  void clone(const std::string &parent, const std::string &path);        // ktclone copy
  void cloneOf(const std::string &parentPath, const std::string &path);  // the same for any path

  // Names.
  void rename(const std::string &from, const std::string &to);  // replaces like rename(2)
  void exchange(const std::string &one, const std::string &other);
  void remove(const std::string &path);  // a file or an empty directory
  void removeTree(const std::string &path);

  // Attributes. No verb follows a symbolic link.
  void chmod(const std::string &path, mode_t mode);
  void chown(const std::string &path, uid_t uid, gid_t gid);
  void setXattr(const std::string &path, const std::string &name, std::string_view value);
  void removeXattr(const std::string &path, const std::string &name);
  void mtime(const std::string &path, int64_t seconds, long nanoseconds = 0);

  // Inode flags of files and directories.
  void immutable(const std::string &path, bool on = true);
  void appendOnly(const std::string &path, bool on = true);
  void noCow(const std::string &path, bool on = true);
  void compress(const std::string &path, bool on = true);
  void flag(const std::string &path, int bits, bool on = true);  // FS_*_FL

  bool exists(const std::string &path) const;
  bool isDir(const std::string &path) const;
  ino_t inode(const std::string &path) const;
  std::string read(const std::string &path) const;
  std::vector<std::string> names(const std::string &path) const;  // sorted, without . and ..

 private:
  // Opens the folder of the last component step by step; *name is that component.
  Descriptor parentOf(const std::string &path, std::string *name) const;
  Descriptor open(const std::string &path, int flags) const;
  struct stat status(const std::string &path) const;
  // Calls `call` with the folder and last component of one path, or of two.
  template <typename Call>
  void at(const std::string &what, const std::string &path, Call call) const;
  template <typename Call>
  void from(const std::string &what, const std::string &one, const std::string &other, Call call) const;

  std::string root_;
  Descriptor rootFd_;
};

}  // namespace testsupport
