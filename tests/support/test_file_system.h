// test_file_system.h: a file system made for a test, so that one scenario or history runs on each kind.
// The environment chooses the kind: a CephFS if FSETRESTORE_TEST_ON=cephfs, otherwise a btrfs.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

namespace testsupport {

// Bits: features that a history may need and that not every file system has.
inline constexpr unsigned kInodeFlags = 1;    // immutable and the other flags of chattr
inline constexpr unsigned kSharedBlocks = 2;  // reflinks, clones
inline constexpr unsigned kLongFiles = 4;     // files of a terabyte and more

class TestFileSystem {
 public:
  virtual ~TestFileSystem() = default;
  // Makes and mounts one. `bytes` is the size of the image file and `options` are mount options, if the
  // kind has them. Throws std::runtime_error.
  static std::unique_ptr<TestFileSystem> make(const std::string &name, uint64_t bytes,
                                              const std::string &options = "");
  static bool onCephFs();
  static unsigned features();

  virtual const std::string &mountPoint() const = 0;
  // Mounts it again, so that nothing comes from the caches of the mount.
  virtual void mountAgain() {}
  // Returns the path of an object, given its path below the top of the file system; "/" and "" are the
  // top.
  virtual std::string path(const std::string &below) const = 0;
  virtual std::string makeFileset(const std::string &below) = 0;  // returns its path
  virtual void removeFileset(const std::string &below) = 0;
  // Takes a snapshot of a fileset with everything written to it so far. Returns its path.
  virtual std::string takeSnapshot(const std::string &fileset, const std::string &which) = 0;
  virtual void removeSnapshot(const std::string &fileset, const std::string &which) = 0;
  // The name that the option -o takes, and the path at which the snapshot can be read.
  virtual std::string snapshotName(const std::string &fileset, const std::string &which) const = 0;
  virtual std::string snapshotPath(const std::string &fileset, const std::string &which) const = 0;
};

}  // namespace testsupport
