// An inode as a tree holds it: the tree answers instead of the kernel.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "btrfs/inode.h"
#include "btrfs/tree_items.h"

namespace kest {

// An inode as a tree holds it.
struct StoredInode {
  InodeItem item;
  std::vector<XattrItem> xattrs;
};

// 0, -ENOENT the tree has no such inode, or one without a name, -errno.
int readStored(TreeReader &tree, uint64_t ino, StoredInode *stored);

// No descriptor is opened before a call needs one: for the data of a regular file, for the path of
// anything else.
class FrozenInode : public BtrfsInode {
 public:
  // `fd`, where there is one, was opened with O_PATH.
  FrozenInode(const TreeRoot &root, uint64_t ino, StoredInode stored, UniqueFd fd = UniqueFd());

  int stat(struct stat *st) override;
  int readAttributes(kest_iattr64_t *attr) override;
  int readFacts(kest_facts_t *facts) override;
  int listXattrs(std::vector<std::string> *names) override;
  int readXattr(const char *name, std::string *value) override;
  int readProtection(Protection *protection) override;
  int readStorageFlags(unsigned *flags) override;

 protected:
  int openLate() const override;

 private:
  const TreeRoot &tree_root_;
  const StoredInode stored_;
};

// Inode `ino` of a tree that cannot change. `tree` reads that tree and keeps what it read for the next
// inodes. 0, -ENOENT no such inode, or one without a name, or -errno.
int openFrozenInode(const TreeRoot &root, TreeReader &tree, uint64_t ino,
                    std::unique_ptr<Inode> *inode);
// The same for an object of that tree that `fd` has open with O_PATH.
int adoptFrozenInode(const TreeRoot &root, TreeReader &tree, uint64_t ino, UniqueFd fd,
                     std::unique_ptr<Inode> *inode);

}  // namespace kest
