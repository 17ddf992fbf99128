// An inode of a read-only tree, whose items answer in place of the kernel.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "btrfs/inode.h"
#include "btrfs/tree_items.h"

namespace kest {

// The items of an inode in a tree.
struct StoredInode {
  InodeItem item;
  std::vector<XattrItem> xattrs;
};

// Reads the items. 0; -ENOENT: no such inode, or one without a name; or -errno.
int readStored(TreeReader &tree, uint64_t ino, StoredInode *stored);

// Fills *st from the items of inode `ino` of a tree.
void statOfItem(const TreeRoot &root, uint64_t ino, const InodeItem &item, struct stat *st);

// Opens a descriptor only when a call needs one: for the data of a regular file, or as O_PATH for any
// other type.
class FrozenInode : public BtrfsInode {
 public:
  // `fd`, if it is valid, was opened with O_PATH.
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

// Opens inode `ino` of a read-only tree. `tree` reads that tree and caches items for the next inodes.
// 0; -ENOENT: no such inode, or one without a name; or -errno.
int openFrozenInode(const TreeRoot &root, TreeReader &tree, uint64_t ino,
                    std::unique_ptr<Inode> *inode);
// The same for an object of that tree that is already open with O_PATH as `fd`.
int adoptFrozenInode(const TreeRoot &root, TreeReader &tree, uint64_t ino, UniqueFd fd,
                     std::unique_ptr<Inode> *inode);

}  // namespace kest
