// The difference of a fileset and a snapshot, and what is asked about it.
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
  // `line`: the last transaction that both have in common. `root` must live as long.
  BtrfsDifference(const TreeRoot &root, uint64_t snapshot_id, uint64_t line);

  int compute() override;
  int readAttributes(const DiffInode &inode, kest_iattr64_t *attr) override;
  int listChanged(Inode &dir, EntryList *entries) override;
  std::unique_ptr<EntryStream> leadingEntries(Inode &dir) override;
  int readChange(uint64_t ino, kest_change_t *change) override;
  int listChangedRanges(Inode &file, uint64_t from, uint64_t to,
                        std::vector<FileRange> *ranges) override;

 private:
  const TreeRoot &root_;
  const uint64_t snapshot_id_, line_;
  ChangeNotes changes_;
  TreeReader active_, snapshot_;
  TreeReader walked_, walked_snapshot_;  // of a walk, which comes by directories
};

}  // namespace kest
