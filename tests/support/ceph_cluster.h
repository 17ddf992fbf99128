// ceph_cluster.h: a CephFS of our own, mounted by FUSE. Needs root; meant for the private namespace,
// whose end is also the end of everything that this starts.
#pragma once

#include <string>

#include "support/test_file_system.h"

namespace testsupport {

class CephCluster : public TestFileSystem {
 public:
  // Starts a cluster in /mnt/NAME.cluster, makes it the one of the environment (CEPH_CONF) and mounts
  // it at /mnt/NAME. Throws std::runtime_error with the failing step.
  explicit CephCluster(const std::string &name = "ceph");
  ~CephCluster() override;
  CephCluster(const CephCluster &) = delete;
  CephCluster &operator=(const CephCluster &) = delete;

  const std::string &mountPoint() const override { return mountPoint_; }
  void mountAgain() override;
  std::string path(const std::string &below) const override;
  std::string makeFileset(const std::string &below) override;
  void removeFileset(const std::string &below) override;
  // Writes back what the mount holds, then takes it.
  std::string takeSnapshot(const std::string &fileset, const std::string &which) override;
  void removeSnapshot(const std::string &fileset, const std::string &which) override;
  std::string snapshotName(const std::string &, const std::string &which) const override {
    return which;
  }
  std::string snapshotPath(const std::string &fileset, const std::string &which) const override {
    return path(fileset) + "/.snap/" + which;
  }
  // What ceph prints when it is run with these words.
  std::string tell(const std::string &words) const;
  // Afterwards the metadata server has forgotten what it does not have to remember.
  void restartMds();

 private:
  void mount();

  std::string folder_, mountPoint_;
};

}  // namespace testsupport
