// An open inode of a CephFS.
#pragma once

#include <memory>
#include <string>

#include "cephfs/client.h"
#include "cephfs/file_layout.h"
#include "cephfs/tree_root.h"
#include "filesystem/file_system.h"

namespace kest {

class CephInode : public Inode {
 public:
  // `path`: below the root of the tree, where it is known; else NULL.
  CephInode(std::shared_ptr<const CephRoot> root, InodeRef inode, const CephStat &st,
            const std::string *path = nullptr, bool linked = true);
  ~CephInode() override;

  const InodeRef &ref() const { return inode_; }
  // Takes over what ceph_ll_create opened.
  void adopt(::Fh *file) { write_ = file; }

  int openForReading() override;
  int openForWriting() override;
  int64_t read(void *buf, int64_t size, int64_t offset) override;
  int64_t write(const void *buf, int64_t size, int64_t offset, int *error) override;
  int makeHole(int64_t offset, int64_t end) override;
  int truncate(int64_t size) override;
  int stretchAt(int64_t offset, int64_t end, int64_t *stop, bool *hole) override;
  int readLink(std::string *target) override;
  int listEntries(EntryList *entries) override;
  int stat(struct stat *st) override;
  int readAttributes(kest_iattr64_t *attr) override;
  int readFacts(kest_facts_t *facts) override;
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
  int readStorageFlags(unsigned *flags) override;
  int limitStorage(const BlobAttributes &now, BlobAttributes *wanted) override;
  int applyStorage(const BlobAttributes &now, const BlobAttributes &wanted) override;
  int share(Inode &from, int64_t offset, int64_t length) override;
  int makeCloneParent() override;
  int duplicateDescriptor() override;
  int takeDescriptor() override;

 private:
  ceph_mount_info *mount() const { return inode_.client()->mount(); }
  const UserPerm *perms() const { return inode_.client()->perms(); }
  int now(CephStat *st);
  int flush();
  int linkUp();
  int change(CephStat *st, int mask);

  std::shared_ptr<const CephRoot> root_;
  InodeRef inode_;
  bool linked_;      // it was looked up by names, so that the servers understand requests about it
  CephStat status_;  // as it was opened; of a snapshot, for good
  std::unique_ptr<std::string> path_;
  ::Fh *read_ = nullptr, *write_ = nullptr;
  bool dirty_ = false;  // something was written that may not be in the objects yet
  FileLayout layout_;   // once it is needed
};

// Attributes as the comparison and the interface have them.
int fillAttributes(const InodeRef &inode, const CephRoot &root, const CephStat &st,
                   kest_iattr64_t *attr);

}  // namespace kest
