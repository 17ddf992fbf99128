// ceph_cluster.h: a CephFS made for a test, mounted by FUSE. Needs root. Meant for the private
// namespace, because its end also ends everything that this class starts.
#pragma once

#include <string>

#include "support/test_file_system.h"

namespace testsupport {

class CephCluster : public TestFileSystem {
 public:
  // Starts a cluster in /mnt/NAME.cluster, names its configuration in CEPH_CONF and mounts it at
  // /mnt/NAME. Throws std::runtime_error with the failing step.
  explicit CephCluster(const std::string &name = "ceph");
  ~CephCluster() override;
  CephCluster(const CephCluster &) = delete;
  CephCluster &operator=(const CephCluster &) = delete;

  const std::string &mountPoint() const override { return mountPoint_; }
  void mountAgain() override;
  std::string path(const std::string &below) const override;
  std::string makeFileset(const std::string &below) override;
  void removeFileset(const std::string &below) override;
  // Writes back what the mount holds, then takes the snapshot.
  std::string takeSnapshot(const std::string &fileset, const std::string &which) override;
  void removeSnapshot(const std::string &fileset, const std::string &which) override;
  std::string snapshotName(const std::string &, const std::string &which) const override {
    return which;
  }
  std::string snapshotPath(const std::string &fileset, const std::string &which) const override {
    return path(fileset) + "/.snap/" + which;
  }
  // Runs the command ceph with these words and returns what it prints.
  std::string tell(const std::string &words) const;
  // Restarts the metadata server, so that it has nothing in its cache.
  void restartMds();

 private:
  void mount();

  std::string folder_, mountPoint_;
};

}  // namespace testsupport
