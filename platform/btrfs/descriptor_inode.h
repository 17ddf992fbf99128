// An inode of which a descriptor is open, through the kernel's ordinary system calls.
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
    kReal,      // open for reading or writing, whichever its user needs
    kBorrowed,  // any kind of descriptor, which the caller closes
    // For regular files with known facts:
    kForReading,
    kForBoth,  // open for reading and writing, but no caller has asked to write yet
  };
  DescriptorInode(UniqueFd fd, Held held) : held_(held), fd_(std::move(fd)) {}
  ~DescriptorInode() override;

  int fd() const { return fd_ ? fd_.get() : openLate(); }
  // Returns any descriptor of the inode, if possible one without O_PATH, on which calls are cheaper.
  int anyFd() const;
  // Returns a descriptor for reading file data, directory entries or inode flags. -EINVAL for anything
  // but files and directories; -errno.
  int readFd();
  // Returns a descriptor for writing file data. -EROFS if the immutable or append-only flag forbids
  // that; -errno.
  int writeFd();
  // Reopens for reading only a file that was opened for writing without a request. 0 or -errno.
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
  // Opens a descriptor, as `held` says, for an inode that was created without one, and passes it to
  // keep(). Returns the descriptor or -errno.
  virtual int openLate() const { return -EBADF; }
  int keep(UniqueFd fd) const {
    fd_ = std::move(fd);
    return fd_.get();
  }
  // Like keep(), for an O_PATH descriptor even if `held` says otherwise.
  int keepPath(UniqueFd fd) const {
    held_ = Held::kPath;
    return keep(std::move(fd));
  }

 private:
  template <typename Call>
  int onRealDescriptor(Call call);

  mutable Held held_;
  mutable UniqueFd fd_;
  UniqueFd read_fd_, write_fd_;  // opened on demand if fd_ is not open in that way
};

}  // namespace kest
