// loop_btrfs.h: a btrfs of our own in an image file, with subvolumes (filesets) and snapshots.
// Needs root; meant for the private namespace, where /mnt is a memory file system of the test's own.
#pragma once

#include <cstdint>
#include <string>

#include "support/test_file_system.h"

namespace testsupport {

class LoopBtrfs : public TestFileSystem {
 public:
  // 110 MB is the least that the kernel mounts.
  static constexpr uint64_t kDefaultBytes = 256ull << 20;

  // Makes a sparse image FOLDER/NAME.image, a btrfs in it and mounts its top level at FOLDER/NAME.
  // options: further mount options ("compress=zstd,max_inline=0"). Throws std::system_error or
  // std::runtime_error with the failing step.
  explicit LoopBtrfs(const std::string &name = "fs", uint64_t bytes = kDefaultBytes,
                     const std::string &options = "", const std::string &folder = "/mnt");
  ~LoopBtrfs() override;  // unmounts all and removes the image
  LoopBtrfs(const LoopBtrfs &) = delete;
  LoopBtrfs &operator=(const LoopBtrfs &) = delete;

  const std::string &mountPoint() const override { return mountPoint_; }
  const std::string &image() const { return image_; }
  std::string path(const std::string &below) const override;
  std::string makeFileset(const std::string &below) override { return createSubvolume(below); }
  void removeFileset(const std::string &below) override { destroySubvolume(below); }
  // A read-only one at the top of the file system.
  std::string takeSnapshot(const std::string &fileset, const std::string &which) override {
    return snapshot(fileset, snapshotName(fileset, which));
  }
  void removeSnapshot(const std::string &fileset, const std::string &which) override {
    destroySubvolume(snapshotName(fileset, which));
  }
  std::string snapshotName(const std::string &fileset, const std::string &which) const override {
    return fileset + "-" + which;
  }
  std::string snapshotPath(const std::string &fileset, const std::string &which) const override {
    return path(snapshotName(fileset, which));
  }

  // Both take paths below the top; missing parent folders are made. createSubvolume returns its path.
  std::string createSubvolume(const std::string &below);
  std::string snapshot(const std::string &subvolume, const std::string &below, bool readOnly = true);
  // Deletes a subvolume with all that is in it, flagged objects included.
  void destroySubvolume(const std::string &below);

  void commit();  // syncfs
  // Unmounts and mounts again, so that nothing comes from the caches. subvolume: mount this one instead
  // of the top level (as a machine does whose root is "@"); "" is the top level.
  void remount(const std::string &options = "", const std::string &subvolume = "");
  void unmount();

 private:
  void mount(const std::string &options);
  std::string image_;
  std::string mountPoint_;
  bool mounted_ = false;
};

// Runs a command with its output on our standard error; throws std::runtime_error where it fails.
void runCommand(const std::string &command);

}  // namespace testsupport
