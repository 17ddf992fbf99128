#include "support/ceph_cluster.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>

#include "support/descriptor.h"
#include "support/loop_btrfs.h"

namespace testsupport {

CephCluster::CephCluster(const std::string &name)
    : folder_("/mnt/" + name + ".cluster"), mountPoint_("/mnt/" + name) {
  runCommand(std::string(CEPHFS_CLUSTER) + " up " + folder_);
  const std::string conf = folder_ + "/ceph.conf";
  setenv("CEPH_CONF", conf.c_str(), 1);
  std::filesystem::create_directories(mountPoint_);
  mount();
}

void CephCluster::mount() {
  runCommand("ceph-fuse -c $CEPH_CONF --pid-file= " + mountPoint_ + " > /dev/null 2>&1");
}

void CephCluster::mountAgain() {
  // A process that a faulty restore left behind may hold a file.
  if (umount2(mountPoint_.c_str(), 0) != 0 && umount2(mountPoint_.c_str(), MNT_DETACH) != 0)
    failWithErrno("umount " + mountPoint_);
  mount();
}

CephCluster::~CephCluster() {
  umount2(mountPoint_.c_str(), MNT_DETACH);
  rmdir(mountPoint_.c_str());
  if (system((std::string(CEPHFS_CLUSTER) + " down " + folder_).c_str()) != 0) return;
}

std::string CephCluster::path(const std::string &below) const {
  return below.empty() || below == "/" ? mountPoint_ : mountPoint_ + "/" + below;
}

std::string CephCluster::makeFileset(const std::string &below) {
  std::filesystem::create_directories(path(below));
  return path(below);
}

void CephCluster::removeFileset(const std::string &below) {
  runCommand("rm -rf '" + path(below) + "'");
}

std::string CephCluster::takeSnapshot(const std::string &fileset, const std::string &which) {
  Descriptor top(open(mountPoint_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!top.valid() || syncfs(top.get()) != 0) failWithErrno("syncfs " + mountPoint_);
  const std::string where = snapshotPath(fileset, which);
  if (mkdir(where.c_str(), 0755) != 0) failWithErrno("mkdir " + where);
  return where;
}

void CephCluster::removeSnapshot(const std::string &fileset, const std::string &which) {
  const std::string where = snapshotPath(fileset, which);
  if (rmdir(where.c_str()) != 0) failWithErrno("rmdir " + where);
}

std::string CephCluster::tell(const std::string &words) const {
  const std::string command = "ceph -c " + folder_ + "/ceph.conf " + words + " 2>&1";
  const std::unique_ptr<FILE, int (*)(FILE *)> pipe(popen(command.c_str(), "r"), pclose);
  std::string text;
  char buffer[4096];
  for (size_t n; pipe && (n = fread(buffer, 1, sizeof buffer, pipe.get())) > 0;) text.append(buffer, n);
  return text;
}

void CephCluster::restartMds() {
  runCommand(std::string(CEPHFS_CLUSTER) + " restart-mds " + folder_);
}

}  // namespace testsupport
