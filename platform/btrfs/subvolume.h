// Subvolumes, their paths and how they are related.
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
  uint64_t parent_id = 0;  // id of the subvolume in which it is linked; 0: top level or deleted
  uint64_t dir = 0;        // inode number of the directory in which it is linked
  std::string name;        // last component of its path; "" for the top level
  Uuid uuid{}, parent_uuid{};
  uint64_t otransid = 0;  // transaction that created it
  int64_t created = 0;    // creation time in seconds
  bool deleted = false;   // deleted, but not cleaned up yet
};

// All subvolumes of a file system at the time of load().
class SubvolumeTable {
 public:
  // `fd` is any descriptor on the file system, except O_PATH. 0 or -errno.
  int load(int fd);
  const std::vector<Subvolume> &all() const { return all_; }  // by id
  const Subvolume *find(uint64_t id) const;
  // Returns 1 if one subvolume descends from the other, or both from a common ancestor; else 0 or
  // -errno. Follows the parent UUIDs. If these lead to a subvolume that is gone or has no UUID, root
  // directories with the same creation transaction and time also count, because snapshots keep both.
  // `line`, unless NULL, receives the last transaction that both have in common for certain.
  int related(uint64_t a, uint64_t b, uint64_t *line) const;
  // Finds the path below the top of the file system, without leading slash; "" for the top level. 0 or
  // -errno.
  int pathOf(uint64_t id, std::string *path) const;

 private:
  struct Ancestor {
    Uuid uuid;
    uint64_t left;  // last transaction in common with ours; UINT64_MAX: ourselves
  };
  struct Chain {
    std::vector<Ancestor> ancestors;  // beginning with the subvolume itself
    bool whole = false;               // the chain reaches a subvolume that is no snapshot
  };
  // Creation of a root directory.
  struct Birth {
    uint64_t generation = 0;
    TreeTime time;
    bool operator==(const Birth &) const = default;
  };

  const Subvolume *byUuid(const Uuid &uuid) const;
  Chain chainOf(uint64_t id) const;
  int birthOf(uint64_t id, std::optional<Birth> *birth) const;  // empty: the subvolume is gone
  int relatedByBirth(uint64_t a, uint64_t b, uint64_t *line) const;

  int fd_ = -1;
  std::vector<Subvolume> all_;
  mutable std::map<uint64_t, std::optional<Birth>> births_;  // key: subvolume id
};

// Finds where subvolume `id` is linked in subvolume `parent_id`. 1; 0: it is not; or -errno.
int findRootRef(int fd, uint64_t parent_id, uint64_t id, uint64_t *dir, std::string *name);
// Lists all subvolumes linked in directory `dir` (0: in any) of subvolume `parent_id`. 0 or -errno.
int listNested(int fd, uint64_t parent_id, uint64_t dir, std::vector<Subvolume> *nested);

// Finds the id of the subvolume of `fd` (not O_PATH). 0 or -errno.
int subvolumeIdOf(int fd, uint64_t *id);
// Reads the UUID of the file system of `fd` (not O_PATH). 0 or -errno.
int fileSystemIdOf(int fd, Uuid *fsid);
// Whether the subvolume of `fd` (not O_PATH) is flagged read-only: 1, 0 or -errno.
int isReadOnly(int fd);
// Runs `step`, which moves the nested subvolume `name` of the directory `dir_fd` to another directory.
// A read-only subvolume refuses that, because its ".." would change; then clears the flag and repeats
// the step. Not for a received subvolume (-EROFS), whose origin the kernel may then forget. 0 or
// -errno.
int movingSubvolume(int dir_fd, const std::string &name, const std::function<int()> &step);
// Finds the path of directory `dir` in subvolume `subvol_id`, ending with a slash; "" for the root.
// `fd` is any descriptor on the file system, except O_PATH. 0 or -errno.
int directoryPath(int fd, uint64_t subvol_id, uint64_t dir, std::string *path);

}  // namespace kest
