// A fileset or snapshot of a btrfs, which is a subvolume.
#pragma once

#include "btrfs/tree_root.h"
#include "btrfs/tree_search.h"
#include "filesystem/file_system.h"

namespace kest {

class BtrfsTree : public Tree {
 public:
  explicit BtrfsTree(TreeRoot root)
      : root_(std::move(root)), reader_(root_.fd.get(), root_.subvol_id, kFirstItems, kMostItems) {}

  uint64_t id() const override { return root_.subvol_id; }
  const std::string &path() const override { return root_.path; }
  int isWritable() const override;
  int64_t metadataRoom() const override;
  int openInode(uint64_t ino, const char *path, std::unique_ptr<Inode> *inode) const override;
  int openSame(const Inode &other, std::unique_ptr<Inode> *inode) const override;
  int openNamed(const Directory &dir, const std::string &name,
                std::unique_ptr<Inode> *inode) const override;
  int createFile(const Directory &dir, const std::string &name, mode_t mode,
                 std::unique_ptr<Inode> *inode) const override;
  int openDirectory(const Directory *start, std::string_view path,
                    std::unique_ptr<Directory> *dir) const override;
  int duplicateDirectory(int fd, std::unique_ptr<Directory> *dir) const override;
  int findNames(uint64_t ino, InodeNames *names) const override;
  // btrfs gives a new inode a higher number than all others of the subvolume.
  int isYounger(uint64_t ino, uint64_t than) const override { return ino > than; }
  int settle() const override { return 0; }
  int lock() const override;
  int removeLock() const override { return 0; }
  std::unique_ptr<InodeScan> openScan() const override;
  int openDifference(uint64_t snapshot_id, std::unique_ptr<Difference> *difference) const override;
  int largestInode(const uint64_t *snapshot_id, uint64_t *ino) const override;
  int findMountInTheWay(const Tree &snapshot, const Difference &difference,
                        std::string *point) const override;
  int findObstacles(const Tree &snapshot, Difference *difference,
                    const ObstacleVisitor &visit) const override;
  int fileSurvives(const Tree &snapshot, const char *path) const override;

 private:
  // Whether this is a read-only snapshot, so that items cached by `reader_` stay valid: 1, 0 or -errno.
  int isFrozen() const;

  const TreeRoot root_;
  static constexpr uint32_t kFirstItems = 4, kMostItems = 64;  // suit a worker's batch of records
  mutable TreeReader reader_;
  mutable int frozen_ = -1;  // the answer of isFrozen(); -1: not known yet
};

}  // namespace kest
