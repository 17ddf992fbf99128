// test_file_system.h: a file system of our own for scenarios and histories that are written once. The
// environment says which one: FSETRESTORE_TEST_ON=cephfs, else a btrfs.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

namespace testsupport {

// What a history may need that not every file system has. Bits.
inline constexpr unsigned kInodeFlags = 1;    // immutable and the other flags of chattr
inline constexpr unsigned kSharedBlocks = 2;  // reflinks, clones
inline constexpr unsigned kLongFiles = 4;     // of a terabyte and more

class TestFileSystem {
 public:
  virtual ~TestFileSystem() = default;
  // `bytes`, `options`: of an image file and its mount, where there is one. Throws std::runtime_error.
  static std::unique_ptr<TestFileSystem> make(const std::string &name, uint64_t bytes,
                                              const std::string &options = "");
  static bool onCephFs();
  static unsigned features();

  virtual const std::string &mountPoint() const = 0;
  // The path of an object named by its path below the top of the file system; "/" and "" are the top.
  virtual std::string path(const std::string &below) const = 0;
  virtual std::string makeFileset(const std::string &below) = 0;  // its path
  virtual void removeFileset(const std::string &below) = 0;
  // A snapshot of a fileset, with all that was written to it. Its path.
  virtual std::string takeSnapshot(const std::string &fileset, const std::string &which) = 0;
  virtual void removeSnapshot(const std::string &fileset, const std::string &which) = 0;
  // As the restore takes it, and where it is seen.
  virtual std::string snapshotName(const std::string &fileset, const std::string &which) const = 0;
  virtual std::string snapshotPath(const std::string &fileset, const std::string &which) const = 0;
};

}  // namespace testsupport
