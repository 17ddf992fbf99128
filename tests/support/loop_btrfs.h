// loop_btrfs.h: a btrfs in an image file, with subvolumes (filesets) and snapshots.
// Needs root. Meant for the private namespace, where /mnt is a memory file system.
#pragma once

#include <cstdint>
#include <string>

#include "support/test_file_system.h"

namespace testsupport {

class LoopBtrfs : public TestFileSystem {
 public:
  // The kernel mounts no btrfs smaller than 110 MB.
  static constexpr uint64_t kDefaultBytes = 256ull << 20;

  // Makes a sparse image FOLDER/NAME.image with a btrfs and mounts its top level at FOLDER/NAME.
  // `options` are further mount options ("compress=zstd,max_inline=0"). Throws std::system_error or
  // std::runtime_error that names the failing step.
  explicit LoopBtrfs(const std::string &name = "fs", uint64_t bytes = kDefaultBytes,
                     const std::string &options = "", const std::string &folder = "/mnt");
  ~LoopBtrfs() override;  // unmounts everything and removes the image
  LoopBtrfs(const LoopBtrfs &) = delete;
  LoopBtrfs &operator=(const LoopBtrfs &) = delete;

  const std::string &mountPoint() const override { return mountPoint_; }
  const std::string &image() const { return image_; }
  std::string path(const std::string &below) const override;
  std::string makeFileset(const std::string &below) override { return createSubvolume(below); }
  void removeFileset(const std::string &below) override { destroySubvolume(below); }
  // Takes a read-only snapshot, at the top of the file system.
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

  // Both take paths below the top, make missing parent folders, and return the path of the new
  // subvolume.
  std::string createSubvolume(const std::string &below);
  std::string snapshot(const std::string &subvolume, const std::string &below, bool readOnly = true);
  // Deletes a subvolume with its contents, including flagged objects.
  void destroySubvolume(const std::string &below);

  void commit();  // syncfs
  // Unmounts and mounts again, so that nothing comes from caches. `subvolume` is mounted instead of the
  // top level, as on a machine whose root is "@"; "" is the top level.
  void remount(const std::string &options = "", const std::string &subvolume = "");
  void unmount();

 private:
  void mount(const std::string &options);
  std::string image_;
  std::string mountPoint_;
  bool mounted_ = false;
};

// Runs a command with its output on our standard error. Throws std::runtime_error if it fails.
void runCommand(const std::string &command);

}  // namespace testsupport
