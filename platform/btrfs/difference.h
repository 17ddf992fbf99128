// The difference of a fileset and a snapshot, with queries about it.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "btrfs/tree_items.h"
#include "btrfs/tree_root.h"
#include "diff/change_notes.h"
#include "filesystem/file_system.h"

namespace kest {

class BtrfsDifference : public Difference {
 public:
  // `line` is the last transaction that both trees have in common. `root` must outlive this object.
  BtrfsDifference(const TreeRoot &root, uint64_t snapshot_id, uint64_t line);

  int compute() override;
  int readAttributes(const DiffInode &inode, kest_iattr64_t *attr) override;
  int listChanged(Inode &dir, EntryList *entries) override;
  std::unique_ptr<EntryStream> leadingEntries(Inode &dir) override;
  int readChange(uint64_t ino, kest_change_t *change) override;
  int readLost(uint64_t ino, kest_lost_t *lost) override;
  int listChangedRanges(Inode &file, uint64_t from, uint64_t to,
                        std::vector<FileRange> *ranges) override;

 private:
  const TreeRoot &root_;
  const uint64_t snapshot_id_, line_;
  ChangeNotes changes_;
  TreeReader active_, snapshot_;
  TreeReader walked_, walked_snapshot_;  // the walk asks in the order of directories
};

}  // namespace kest
