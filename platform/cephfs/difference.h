// The difference of a fileset and a snapshot, and what is asked about it.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "cephfs/lead_names.h"
#include "cephfs/tree_root.h"
#include "diff/change_notes.h"
#include "filesystem/file_system.h"

namespace kest {

class CephDifference : public Difference {
 public:
  CephDifference(std::shared_ptr<const CephRoot> active, std::shared_ptr<const CephRoot> snapshot)
      : active_(std::move(active)), snapshot_(std::move(snapshot)) {}

  int compute() override;
  int divide(const kest_division_t &division) override {
    division_ = division;
    return 0;
  }
  int compareGroup(int directories, const kest_group_t &group, int part) override;
  uint64_t passedOver() const override { return passed_over_; }
  int readAttributes(const DiffInode &inode, kest_iattr64_t *attr) override;
  int listChanged(Inode &dir, EntryList *entries) override;
  std::unique_ptr<EntryStream> leadingEntries(Inode &dir) override;
  int readChange(uint64_t ino, kest_change_t *change) override;
  int listChangedRanges(Inode &file, uint64_t from, uint64_t to,
                        std::vector<FileRange> *ranges) override;

 private:
  int listSnapshot(uint64_t ino, std::vector<CephEntry> *entries);
  int diffListings(const InodeRef &active, uint64_t ino, EntryDifference *difference);

  const std::shared_ptr<const CephRoot> active_, snapshot_;
  std::optional<kest_division_t> division_;
  ChangeNotes notes_;
  LeadNames names_;
  uint64_t passed_over_ = 0;
};

}  // namespace kest
