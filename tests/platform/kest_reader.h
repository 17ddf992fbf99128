// A fileset for every test, and the library's scans and listings as text, which a test can compare
// easily.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "kest.h"
#include "support/loop_btrfs.h"
#include "support/tree_builder.h"

#define EXPECT_FAILS(error, call)           \
  do {                                      \
    errno = 0;                              \
    EXPECT_EQ(-1, call);                    \
    EXPECT_EQ(error, errno) << "of " #call; \
  } while (0)

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

// These throw std::runtime_error with the library's sentence on failure.
Handle openHandle(const std::string &device, const std::string &fileset,
                  const char *snapshot = nullptr);
Scan openDifference(const Handle &active, const Handle &snapshot, uint64_t *max_ino = nullptr);
Scan openFull(const Handle &handle, uint64_t *max_ino = nullptr);
Inode openInode(const Handle &handle, uint64_t ino);

// "257 259 -260": the inodes of the scan in its order; a minus marks deleted ones.
std::string inodesOf(const Scan &scan);
// Changed entries as "name" (active) and "name@snap", in their order.
std::string changedEntries(const Handle &active, const Scan &scan, uint64_t ino);
// The same for the entries that matter to a walk.
std::string leadingEntries(const Handle &active, const Scan &scan, uint64_t ino);
// Ranges of a file as "offset+length", with "(hole)" for holes of the snapshot: changed ranges for a
// difference scan, all ranges for a full scan.
std::string ranges(const Handle &handle, const Scan &scan, uint64_t ino, int64_t term = 0);

kest_snapid_t idOf(const Handle &handle);
struct stat statOf(const std::string &path);
std::string timesOf(const std::string &path);  // access and modification time
// All attributes of an object as the kernel reports them.
std::map<std::string, std::string> xattrsOf(const std::string &path);

// A file capability (cap_net_raw+ep), as setcap stores it.
inline const std::string kCapability("\1\0\0\2\0\x20\0\0\0\0\0\0\0\0\0\0\0\0\0\0", 20);

// One file system for each test program, and one fileset, named after it, for each test.
class LibraryTest : public testing::Test {
 protected:
  static void SetUpTestSuite();
  static void TearDownTestSuite();
  void SetUp() override;

  static std::string path(const std::string &below) { return fs_->path(below); }
  std::string root() const { return tree_->root(); }
  std::string at(const std::string &name) const { return root() + "/" + name; }
  ino_t inode(const std::string &name) const { return tree_->inode(name); }
  Inode open(const std::string &name) const { return openInode(active_, inode(name)); }
  // Takes a snapshot, reopens both trees and returns the snapshot's path.
  std::string snapshot(const std::string &which = "snap");

  static std::unique_ptr<testsupport::LoopBtrfs> fs_;
  std::string name_;
  std::unique_ptr<testsupport::TreeBuilder> tree_;
  Handle active_, snapshot_;
};

}  // namespace kesttest
