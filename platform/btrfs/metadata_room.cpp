#include "btrfs/metadata_room.h"

#include <linux/btrfs.h>
#include <linux/btrfs_tree.h>
#include <sys/ioctl.h>
#include <cerrno>
#include <cstring>
#include <memory>

namespace kest {

namespace {

constexpr uint64_t kGlobalReserve = 1ull << 49;  // the kernel's bit for it among the kinds of space
// With less space the kernel makes no new block group. A block group can be stored twice.
constexpr uint64_t kSmallestGroup = 64 << 20;
constexpr uint64_t kCopies = 2;

// Reads the bytes of the devices that no block group uses yet. 0 or -errno.
int readUnallocated(int fd, uint64_t *bytes) {
  btrfs_ioctl_fs_info_args info;
  memset(&info, 0, sizeof info);
  if (ioctl(fd, BTRFS_IOC_FS_INFO, &info) < 0) return -errno;
  *bytes = 0;
  for (uint64_t id = 0; id <= info.max_id; ++id) {
    btrfs_ioctl_dev_info_args device;
    memset(&device, 0, sizeof device);
    device.devid = id;
    if (ioctl(fd, BTRFS_IOC_DEV_INFO, &device) < 0) {
      if (errno == ENODEV) continue;  // no device has this number
      return -errno;
    }
    if (device.total_bytes > device.bytes_used) *bytes += device.total_bytes - device.bytes_used;
  }
  return 0;
}

}  // namespace

int64_t metadataRoom(int fd) {
  btrfs_ioctl_space_args count;
  memset(&count, 0, sizeof count);
  if (ioctl(fd, BTRFS_IOC_SPACE_INFO, &count) < 0) return -errno;
  // One slot more than needed now, because a kind can be added in between.
  const uint64_t slots = count.total_spaces + 1;
  const size_t words = (sizeof count + slots * sizeof(btrfs_ioctl_space_info)) / sizeof(uint64_t) + 1;
  const auto buffer = std::make_unique<uint64_t[]>(words);
  auto *spaces = reinterpret_cast<btrfs_ioctl_space_args *>(buffer.get());
  spaces->space_slots = slots;
  if (ioctl(fd, BTRFS_IOC_SPACE_INFO, spaces) < 0) return -errno;
  int64_t room = 0;
  for (uint64_t i = 0; i < spaces->total_spaces; ++i) {
    const btrfs_ioctl_space_info &one = spaces->spaces[i];
    if ((one.flags & kGlobalReserve) != 0)
      room -= static_cast<int64_t>(one.total_bytes);
    else if ((one.flags & BTRFS_BLOCK_GROUP_METADATA) != 0)
      room += static_cast<int64_t>(one.total_bytes - one.used_bytes);
  }
  uint64_t unallocated = 0;
  if (int rc = readUnallocated(fd, &unallocated); rc < 0) return rc;
  if (unallocated >= kSmallestGroup) room += static_cast<int64_t>(unallocated / kCopies);
  return room > 0 ? room : 0;
}

}  // namespace kest
