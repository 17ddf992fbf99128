// An inode behind a descriptor: what the kernel's ordinary calls do with it.
#pragma once

#include <cerrno>
#include <cstdint>
#include <string>
#include <vector>

#include "base/unique_fd.h"
#include "filesystem/file_system.h"

namespace kest {

class DescriptorInode : public Inode {
 public:
  enum class Held {
    kPath,      // opened with O_PATH; mode and facts are known
    kReal,      // open for reading or writing, whatever its user needs
    kBorrowed,  // anything, and the caller's to close
    // Regular files, the facts known:
    kForReading,
    kForBoth,  // open for reading and writing, but nothing was to be written yet
  };
  DescriptorInode(UniqueFd fd, Held held) : held_(held), fd_(std::move(fd)) {}
  ~DescriptorInode() override;

  int fd() const { return fd_ ? fd_.get() : openLate(); }
  // Any descriptor of the inode. Calls cost less on one that is really open, where there is one.
  int anyFd() const;
  // Descriptor for reading file data, directory entries or inode flags. -EINVAL for all but files and
  // directories; -errno.
  int readFd();
  // Descriptor for writing file data. -EROFS where the immutable or append-only flag forbids it;
  // -errno.
  int writeFd();
  // No longer holds a file open for writing that it opened so without being asked to. 0 or -errno.
  int giveUpWriting();

  int openForReading() override;
  int openForWriting() override;
  int64_t read(void *buf, int64_t size, int64_t offset) override;
  int64_t write(const void *buf, int64_t size, int64_t offset, int *error) override;
  int makeHole(int64_t offset, int64_t end) override;
  int truncate(int64_t size) override;
  int stretchAt(int64_t offset, int64_t end, int64_t *stop, bool *hole) override;
  int readLink(std::string *target) override;
  int stat(struct stat *st) override;
  int changeMode(mode_t mode) override;
  int changeOwner(uid_t uid, gid_t gid) override;
  int setTimes(const struct timespec times[2]) override;
  int listXattrs(std::vector<std::string> *names) override;
  int readXattr(const char *name, std::string *value) override;
  int writeXattr(const char *name, const std::string &value) override;
  int removeXattr(const char *name) override;
  int readProtection(Protection *protection) override;
  int writeProtection(Protection protection) override;
  int writeFlags(uint32_t flags) override;
  int duplicateDescriptor() override;
  int takeDescriptor() override;

 protected:
  // For an inode that was made without a descriptor: opens one, as `held` says, and hands it to keep().
  // The descriptor or -errno.
  virtual int openLate() const { return -EBADF; }
  int keep(UniqueFd fd) const {
    fd_ = std::move(fd);
    return fd_.get();
  }
  // The same for an O_PATH descriptor, where `held` says otherwise.
  int keepPath(UniqueFd fd) const {
    held_ = Held::kPath;
    return keep(std::move(fd));
  }

 private:
  template <typename Call>
  int onRealDescriptor(Call call);

  mutable Held held_;
  mutable UniqueFd fd_;
  UniqueFd read_fd_, write_fd_;  // where fd_ is not open so, once they are needed
};

}  // namespace kest
