// The snapshots of btrfs subvolumes: which there are, and who made each.
#pragma once

#include "front/snapshot_store.h"

namespace front {

const SnapshotStore &btrfsStore();

}  // namespace front
