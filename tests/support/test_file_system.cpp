#include "support/test_file_system.h"

#include <cstdlib>

#include "support/ceph_cluster.h"
#include "support/loop_btrfs.h"

namespace testsupport {

bool TestFileSystem::onCephFs() {
  const char *wanted = getenv("FSETRESTORE_TEST_ON");
  return wanted != nullptr && std::string(wanted) == "cephfs";
}

unsigned TestFileSystem::features() {
  return onCephFs() ? 0 : kInodeFlags | kSharedBlocks | kLongFiles;
}

std::unique_ptr<TestFileSystem> TestFileSystem::make(const std::string &name, uint64_t bytes,
                                                     const std::string &options) {
  if (onCephFs()) return std::make_unique<CephCluster>(name);
  return std::make_unique<LoopBtrfs>(name, bytes, options);
}

}  // namespace testsupport
