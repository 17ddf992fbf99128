// A mounted CephFS.
#pragma once

#include <memory>
#include <string>

#include "cephfs/client.h"
#include "filesystem/file_system.h"

namespace kest {

// A mount through which users, and this process, see the file system.
struct CephMount {
  std::string point;  // mount point, no slash at its end; "" the root of the machine
  std::string shown;  // path of the directory that it shows, below the top of the file system
  dev_t device = 0;
};

class CephFileSystem : public FileSystem {
 public:
  CephFileSystem(std::shared_ptr<CephClient> client, CephMount mount, std::string device)
      : client_(std::move(client)), mount_(std::move(mount)), device_(std::move(device)) {}

  int openTree(const char *fileset, const char *snapshot, std::unique_ptr<Tree> *tree) const override;
  int commit() const override;
  int listSnapshots(const std::string &fileset, std::string *path,
                    std::vector<SnapshotInfo> *snapshots) const override;
  int describeFileset(const std::string &fileset, FilesetInfo *info) const override;
  int unlinkFileset(const std::string &path, std::string *where) const override;

 private:
  int findDirectory(const std::string &fileset, std::string *path, InodeRef *dir, CephStat *st) const;
  bool shownAt(const std::string &path, std::string *shown) const;

  std::shared_ptr<CephClient> client_;
  CephMount mount_;
  std::string device_;
};

// Returns how to reach the cluster of a mount with this source and these options, as mountinfo has
// them. A mount by the kernel names monitors, user and file system. For any other, the configuration
// that CEPH_CONF names, or that of the machine, decides. `shown` receives the path of the directory
// that the mount shows, if the source names it.
ClusterAccess accessOfMount(const std::string &type, const std::string &source,
                            const std::string &options, std::string *shown);

// 0; -ENODEV `device` lies on no mounted CephFS; -errno of the access to it. errorText() says more.
int openCephFs(const std::string &device, std::unique_ptr<FileSystem> *fs);

}  // namespace kest
