// A mounted btrfs.
#pragma once

#include <memory>
#include <string>

#include "btrfs/mounts.h"
#include "filesystem/file_system.h"

namespace kest {

class BtrfsFileSystem : public FileSystem {
 public:
  // `device` is the caller's name for it, for error texts.
  BtrfsFileSystem(MountedFileSystem mounted, std::string device)
      : mounted_(std::move(mounted)), device_(std::move(device)) {}

  int openTree(const char *fileset, const char *snapshot, std::unique_ptr<Tree> *tree) const override;
  int commit() const override;
  int listSnapshots(const std::string &fileset, std::string *path,
                    std::vector<SnapshotInfo> *snapshots) const override;
  int describeFileset(const std::string &fileset, FilesetInfo *info) const override;
  int unlinkFileset(const std::string &path, std::string *where) const override;

 private:
  MountedFileSystem mounted_;
  std::string device_;
};

// Opens the file system of `device`. 0; -ENODEV: `device` is no mounted btrfs; -errno: it cannot be
// accessed.
int openBtrfs(const std::string &device, std::unique_ptr<FileSystem> *fs);

// Opens the subvolume in which the directory `path` lies, with that directory as the root. 0; -ENOTTY:
// it is not on a btrfs; -errno.
int openBtrfsTreeAt(const std::string &path, std::unique_ptr<Tree> *tree);

}  // namespace kest
