// An inode of a btrfs.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "btrfs/descriptor_inode.h"
#include "btrfs/tree_root.h"

namespace kest {

class BtrfsInode : public DescriptorInode {
 public:
  // `root` is the tree in which the inode was opened and must outlive it; NULL if none is known.
  BtrfsInode(UniqueFd fd, Held held, const TreeRoot *root = nullptr)
      : DescriptorInode(std::move(fd), held), root_(root) {}

  // Fills in the facts that `st` contains.
  void learn(const struct stat &st);
  // Fills in all facts except the generation. 0; -ENOENT: the inode has no name; or -errno.
  int learnStatus();
  // Fills in all facts of an inode that was opened by the number and generation of `other`. 0; -ENOENT:
  // it is another file, or has no name; or -errno.
  int learnSame(const InodeFacts &other);
  // Fills in all facts. 0; -EXDEV: it belongs to another tree than `root`; -ENOENT: it has no name; or
  // -errno.
  int learnAll();

  int listEntries(EntryList *entries) override;
  int readAttributes(kest_iattr64_t *attr) override;
  int readFacts(kest_facts_t *facts) override;
  int listXattrs(std::vector<std::string> *names) override;
  int readStorageFlags(unsigned *flags) override;
  int limitStorage(const BlobAttributes &now, BlobAttributes *wanted) override;
  int applyStorage(const BlobAttributes &now, const BlobAttributes &wanted) override;
  int share(Inode &from, int64_t offset, int64_t length) override;
  int makeCloneParent() override;

 private:
  int carriesBlob(mode_t mode, uint32_t *answer);

  const TreeRoot *root_;
  std::optional<bool> carries_blob_;            // the last answer of carriesBlob
  std::optional<struct statx> status_at_open_;  // until the first readFacts
};

inline BtrfsInode &asBtrfs(Inode &inode) {
  return static_cast<BtrfsInode &>(inode);
}
inline const BtrfsInode &asBtrfs(const Inode &inode) {
  return static_cast<const BtrfsInode &>(inode);
}

// See Tree::openInode.
int openInode(const TreeRoot &root, uint64_t ino, std::unique_ptr<Inode> *inode);
// See Tree::openSame.
int openSameInode(const TreeRoot &root, const Inode &other, std::unique_ptr<Inode> *inode);

}  // namespace kest
