// A fileset or snapshot of a CephFS: a directory, as it is or as a snapshot shows it.
#pragma once

#include <memory>
#include <string>

#include "cephfs/run_lock.h"
#include "cephfs/tree_root.h"
#include "filesystem/file_system.h"

namespace kest {

class CephTree : public Tree {
 public:
  explicit CephTree(std::shared_ptr<const CephRoot> root) : root_(std::move(root)) {}
  const std::shared_ptr<const CephRoot> &root() const { return root_; }

  uint64_t id() const override { return root_->isSnapshot() ? root_->snapid : root_->ino; }
  const std::string &path() const override { return root_->path; }
  int isWritable() const override;
  bool spansNodes() const override { return true; }
  bool hasNamesOutside() const override { return true; }
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
  int isYounger(uint64_t ino, uint64_t than) const override;
  int settle() const override { return root_->client->settle(); }
  int lock() const override { return lockFileset(*root_); }
  int removeLock() const override { return removeLockFile(*root_); }
  std::unique_ptr<InodeScan> openScan() const override;
  int openDifference(uint64_t snapshot_id, std::unique_ptr<Difference> *difference) const override;
  int largestInode(const uint64_t *snapshot_id, uint64_t *ino) const override;
  int findMountInTheWay(const Tree &snapshot, const Difference &difference,
                        std::string *point) const override;
  int findObstacles(const Tree &snapshot, Difference *difference,
                    const ObstacleVisitor &visit) const override;
  int fileSurvives(const Tree &snapshot, const char *path) const override;

 private:
  bool openByPath(uint64_t ino, std::string_view path, std::unique_ptr<Inode> *inode) const;

  std::shared_ptr<const CephRoot> root_;
};

}  // namespace kest
