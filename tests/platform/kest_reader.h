// Collects what the library's scans and listings answer, so that a test can compare it at one glance.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "kest.h"

namespace kesttest {

struct FreeHandle {
  void operator()(kest_fssnap_handle_t *handle) const { kest_free_fssnaphandle(handle); }
};
struct CloseScan {
  void operator()(kest_iscan_t *scan) const { kest_close_inodescan(scan); }
};
struct CloseInode {
  void operator()(kest_ifile_t *file) const { kest_iclose(file); }
};
using Handle = std::unique_ptr<kest_fssnap_handle_t, FreeHandle>;
using Scan = std::unique_ptr<kest_iscan_t, CloseScan>;
using Inode = std::unique_ptr<kest_ifile_t, CloseInode>;

// Throw std::runtime_error with the library's sentence on failure.
Handle openHandle(const std::string &device, const std::string &fileset,
                  const char *snapshot = nullptr);
Scan openDifference(const Handle &active, const Handle &snapshot, uint64_t *max_ino = nullptr);
Scan openFull(const Handle &handle, uint64_t *max_ino = nullptr);
Inode openInode(const Handle &handle, uint64_t ino);

// "257 259 -260": every inode of the scan in the order it comes, deleted ones with a minus.
std::string inodesOf(const Scan &scan);
// Changed entries as "name" (active) and "name@snap", in the order they come.
std::string changedEntries(const Handle &active, const Scan &scan, uint64_t ino);
// The same of those that matter to a walk.
std::string leadingEntries(const Handle &active, const Scan &scan, uint64_t ino);
// Names of the listing, sorted, without the dots; junctions as "name=id".
std::string listing(const Handle &handle, uint64_t ino);
// Changed ranges as "offset+length", holes of the snapshot as "offset+length(hole)".
std::string changedRanges(const Handle &active, const Scan &scan, uint64_t ino, int64_t term = 0);
// All of a file by kind, "offset+length" for data.
std::string stretches(const Handle &handle, const Scan &full, uint64_t ino);

}  // namespace kesttest
