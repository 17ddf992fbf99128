// Subvolumes, their paths and their kinship.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "btrfs/tree_items.h"
#include "btrfs/tree_search.h"

namespace kest {

inline constexpr uint64_t kTopLevel = 5;

using Uuid = std::array<uint8_t, 16>;

struct Subvolume {
  uint64_t id = 0;
  uint64_t parent_id = 0;  // subvolume that it is linked in; 0: the top level, or deleted
  uint64_t dir = 0;        // inode number of the directory that it is linked in
  std::string name;        // last component of its path, "" for the top level
  Uuid uuid{}, parent_uuid{};
  uint64_t otransid = 0;  // transaction that created it
  int64_t created = 0;    // when, in whole seconds
  bool deleted = false;   // being cleaned up
};

// Every subvolume of a file system as it was at the time of load().
class SubvolumeTable {
 public:
  // `fd`: any real descriptor on the file system. 0 or -errno.
  int load(int fd);
  const std::vector<Subvolume> &all() const { return all_; }  // by id
  const Subvolume *find(uint64_t id) const;
  // 1 when one descends from the other or both from a common ancestor, else 0; -errno. Parent UUIDs
  // tell. Where they lead to a subvolume that is gone, or that has no UUID, root directories that were
  // created in the same transaction at the same time tell as well: snapshots keep both. `line`, if not
  // NULL, receives the last transaction that is known to be common to both.
  int related(uint64_t a, uint64_t b, uint64_t *line) const;
  // Path below the top of the file system, no leading slash; "" for the top level. 0 or -errno.
  int pathOf(uint64_t id, std::string *path) const;

 private:
  struct Ancestor {
    Uuid uuid;
    uint64_t left;  // transaction at which the line to our subvolume left it; UINT64_MAX: it is ours
  };
  struct Chain {
    std::vector<Ancestor> ancestors;  // the subvolume itself first
    bool whole = false;               // up to a subvolume that was made as no snapshot
  };
  // Of a root directory.
  struct Birth {
    uint64_t generation = 0;
    TreeTime time;
    bool operator==(const Birth &) const = default;
  };

  const Subvolume *byUuid(const Uuid &uuid) const;
  Chain chainOf(uint64_t id) const;
  int birthOf(uint64_t id, std::optional<Birth> *birth) const;  // none: the subvolume is gone
  int relatedByBirth(uint64_t a, uint64_t b, uint64_t *line) const;

  int fd_ = -1;
  std::vector<Subvolume> all_;
  mutable std::map<uint64_t, std::optional<Birth>> births_;  // by subvolume
};

// Where subvolume `id` is linked inside subvolume `parent_id`: 1, 0 when it is not, -errno.
int findRootRef(int fd, uint64_t parent_id, uint64_t id, uint64_t *dir, std::string *name);
// Every subvolume that is linked in directory `dir` (0: in any) of subvolume `parent_id`. 0 or -errno.
int listNested(int fd, uint64_t parent_id, uint64_t dir, std::vector<Subvolume> *nested);

// Id of the subvolume that `fd` (not O_PATH) lies in. 0 or -errno.
int subvolumeIdOf(int fd, uint64_t *id);
// UUID of the file system of `fd` (not O_PATH). 0 or -errno.
int fileSystemIdOf(int fd, Uuid *fsid);
// 1 when the subvolume of `fd` (not O_PATH) is flagged read-only, 0, -errno.
int isReadOnly(int fd);
// Runs `step`, which moves the nested subvolume `name` of the directory `dir_fd` to another directory.
// A read-only subvolume refuses that, since its ".." changes; then the flag is lifted and the step run
// again. Not of a received one (-EROFS), for the kernel may then forget its origin. 0 or -errno.
int movingSubvolume(int dir_fd, const std::string &name, const std::function<int()> &step);
// Path of directory `dir` inside subvolume `subvol_id`, with a slash at its end; "" for the root.
// `fd`: any real descriptor on the file system. 0 or -errno.
int directoryPath(int fd, uint64_t subvol_id, uint64_t dir, std::string *path);

}  // namespace kest
