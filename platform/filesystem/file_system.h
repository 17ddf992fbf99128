// The interface through which the library uses a file system. Everything that depends on the kind of
// file system is in these classes:
//
// - FileSystem: a mounted file system. It opens a fileset, or a snapshot of it, as a Tree, lists the
//   snapshots of a fileset, and unlinks a nested fileset (a junction) from its parent.
// - Tree: a fileset or a snapshot. It opens inodes by number and directories by path, finds the
//   names of an inode, scans its inodes, and compares itself with a snapshot.
// - Difference: the inodes in which a fileset and a snapshot differ, with their attributes, changed
//   entries and changed ranges, and the entries through which a walk reaches them. It does not
//   contain twins, which differ only in their numbers (see kest.h).
// - Inode: an open inode with its data, attributes and flags. It can share ranges with another file.
// - Directory: a directory held open, whose entries are created, renamed and removed by name.
//
// Every call returns 0, or what its comment says, or -errno; -ENOTSUP if the file system does not
// support it. If a sentence can say more than the errno, errorText() returns it. Objects are not
// thread-safe, but different threads can use different objects. All objects in one call must belong to
// the same kind of file system.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <sys/stat.h>
#include <sys/types.h>
#include <time.h>

#include "diff/difference_set.h"
#include "kest.h"

namespace kest {

struct BlobAttributes;
class EntryList;

// Protection of an object against changes.
struct Protection {
  bool immutable = false;
  bool append_only = false;
  bool any() const { return immutable || append_only; }
  bool operator==(const Protection &) const = default;
};

// What is known about an inode from its open.
struct InodeFacts {
  uint64_t ino = 0;
  uint64_t generation = 0;  // all 64 bits
  uint64_t size = 0;        // bytes
  mode_t mode = 0;          // st_mode encoding
  kest_timestruc64_t created{};
};

class Inode {
 public:
  virtual ~Inode() = default;

  // Complete for an inode that a tree opened, except for the generation (0) of one that it created. An
  // inode that a directory opened by name has mode, number and size; one behind a descriptor of the
  // caller has no facts.
  const InodeFacts &facts() const { return facts_; }

  // ---- data. Opened at the first call that needs it, in the mode that the call needs.
  // Open the data before other steps, if the order matters. -EINVAL for anything but files (and, for
  // reading, directories). -EROFS if the immutable or append-only flag forbids writing.
  virtual int openForReading() = 0;
  virtual int openForWriting() = 0;
  // Returns the number of bytes read, which is less than `size` only at the end of the file.
  virtual int64_t read(void *buf, int64_t size, int64_t offset) = 0;
  // Returns the number of bytes written. If it is less than `size`, *error holds the reason.
  virtual int64_t write(const void *buf, int64_t size, int64_t offset, int *error) = 0;
  // Makes [offset, end) a hole and writes nothing where it is one already. Extends the file if it is
  // shorter.
  virtual int makeHole(int64_t offset, int64_t end) = 0;
  virtual int truncate(int64_t size) = 0;
  // Finds out whether there is a hole at `offset` (preallocated space counts as one), and where the
  // hole or the data ends, but not beyond `end`.
  virtual int stretchAt(int64_t offset, int64_t end, int64_t *stop, bool *hole) = 0;
  virtual int readLink(std::string *target) = 0;
  // Lists the whole directory, including "." and "..", but without entries that a restore leaves alone.
  // Fills in the generation of directories only.
  virtual int listEntries(EntryList *entries) = 0;

  // ---- attributes at present.
  virtual int stat(struct stat *st) = 0;
  virtual int readAttributes(kest_iattr64_t *attr) = 0;
  virtual int readFacts(kest_facts_t *facts) = 0;  // see kest_ifacts
  virtual int changeMode(mode_t mode) = 0;
  virtual int changeOwner(uid_t uid, gid_t gid) = 0;
  // Like utimensat: UTIME_OMIT keeps a time.
  virtual int setTimes(const struct timespec times[2]) = 0;
  virtual int listXattrs(std::vector<std::string> *names) = 0;  // any number of names in any order
  // -ENODATA: no such attribute. -EOPNOTSUPP: the object cannot have it.
  virtual int readXattr(const char *name, std::string *value) = 0;
  virtual int writeXattr(const char *name, const std::string &value) = 0;
  virtual int removeXattr(const char *name) = 0;  // 0, also if it is absent
  // Sets exactly the twelve bits of `mode` after a step in which the file system may have changed them
  // (umask, inherited ACL, set-group-ID, chown).
  int setExactMode(mode_t mode);

  // ---- flags. An object that cannot have a flag counts as not having it set.
  virtual int readProtection(Protection *protection) = 0;
  // Sets both flags of a file or directory and keeps all others.
  virtual int writeProtection(Protection protection) = 0;
  // Sets the flags of a file or directory that KEST_FP_* names to `flags` and keeps all others.
  virtual int writeFlags(uint32_t flags) = 0;
  // Reads the flags that an attribute blob carries; for files and directories.
  virtual int readStorageFlags(unsigned *flags) = 0;
  // Storage flags, and the attribute that belongs to them, change in two steps: limitStorage removes
  // from `wanted` what the file system cannot do, and applyStorage makes the change after all other
  // attributes.
  virtual int limitStorage(const BlobAttributes &now, BlobAttributes *wanted) = 0;
  virtual int applyStorage(const BlobAttributes &now, const BlobAttributes &wanted) = 0;

  // ---- shared data.
  // Makes [offset, offset + length) of this file share the blocks of `from`. Both are open, this one
  // for writing. -EINVAL: they cannot be shared, so the caller must copy. -EROFS: flags forbid it.
  virtual int share(Inode &from, int64_t offset, int64_t length) = 0;
  // See kest_clone_snap.
  virtual int makeCloneParent() = 0;

  // ---- kernel descriptors.
  virtual int duplicateDescriptor() = 0;  // close-on-exec; the caller closes it
  // Releases the inode's own descriptor to the caller, who closes it. The inode is then unusable.
  virtual int takeDescriptor() = 0;

 protected:
  InodeFacts facts_;
};

// Names are single components. Slashes may follow; they mean the same as to the kernel. A name that is
// a symbolic link is never followed. Flags are not interpreted: a call that the flags of an object
// forbid fails with -EPERM.
class Directory {
 public:
  virtual ~Directory() = default;

  virtual int stat(const std::string &name, struct stat *st) = 0;
  // Opens the object itself without side effects: a device or FIFO is not activated.
  virtual int openObject(const std::string &name, std::unique_ptr<Inode> *object, struct stat *st) = 0;
  virtual int makeDirectory(const std::string &name, mode_t mode) = 0;
  virtual int makeNode(const std::string &name, mode_t mode, dev_t device) = 0;
  virtual int makeSymlink(const std::string &name, const char *target) = 0;
  virtual int link(Inode &inode, const std::string &name) = 0;
  // -EEXIST if the target exists.
  virtual int rename(const std::string &name, Directory &to, const std::string &to_name) = 0;
  // The same for the nested fileset `id`, which may be read-only. -ESTALE: `name` is another object.
  virtual int renameFileset(const std::string &name, uint64_t id, Directory &to,
                            const std::string &to_name) = 0;
  virtual int removeFile(const std::string &name) = 0;
  virtual int removeDirectory(const std::string &name) = 0;
  // Makes a clone of the clone parent `parent`. It appears complete or not at all; see kest_clone_copy.
  virtual int makeClone(const std::string &name, Inode &parent) = 0;

  // Whether the object `name` has the attribute of clones and clone parents: 1 or 0.
  virtual int carriesClone(const std::string &name) = 0;
  // Of the object `name`; with "" of the directory itself.
  virtual int readProtection(const std::string &name, Protection *protection) = 0;
  // Whether a nested fileset is linked here as `name`: 1 or 0.
  virtual int holdsFileset(const std::string &name) = 0;
};

// A scan of all inodes of a tree.
class InodeScan {
 public:
  virtual ~InodeScan() = default;
  // Finds the first inode in [from, to] with a name, with its attributes as last committed. 1, or 0 if
  // there is none.
  virtual int next(uint64_t from, uint64_t to, kest_iattr64_t *attr) = 0;
  // The same for [from, end), with the present attributes.
  virtual int nextNow(uint64_t from, uint64_t end, kest_iattr64_t *attr) = 0;
};

// The entries of a directory, read one at a time.
class EntryStream {
 public:
  virtual ~EntryStream() = default;
  // Reads the next entry, which is valid until the next call; NULL after the last.
  virtual int next(const kest_direntx64_t **entry) = 0;
};

// A range in which a file differs from the snapshot's.
struct FileRange {
  uint64_t start = 0, length = 0;  // bytes
  bool hole = false;               // the range is a hole in the snapshot's file
};

class Difference {
 public:
  virtual ~Difference() = default;

  // Commits the file system and compares. Required by the other calls. After a failure it can be
  // repeated.
  virtual int compute() = 0;
  // See kest_divide_difference and kest_compare_group.
  virtual int divide(const kest_division_t &) { return -ENOTSUP; }
  virtual int compareGroup(int /*directories*/, const kest_group_t &, int /*part*/) { return -ENOTSUP; }
  const DifferenceSet &set() const { return set_; }
  // See kest_passed_over.
  virtual uint64_t passedOver() const { return 0; }
  // Notes that a file of both trees must be made again: it differs, but is a running program.
  void noteRunning(uint64_t ino) { set_.addState(ino, KEST_DI_RUNS); }

  // Reads the attributes of an inode of the set. ia_nlink is 0 if the active tree does not have it any
  // more.
  virtual int readAttributes(const DiffInode &inode, kest_iattr64_t *attr) = 0;
  // Lists the entries that only one of both directories has; `dir` is the active one. See
  // kest_ireaddirx64.
  virtual int listChanged(Inode &dir, EntryList *entries) = 0;
  // Lists the entries of the active directory `dir` that differ or lead to a difference. See
  // kest_ireaddirc64.
  virtual std::unique_ptr<EntryStream> leadingEntries(Inode &dir) = 0;
  // See kest_ichange.
  virtual int readChange(uint64_t ino, kest_change_t *change) = 0;
  // See kest_ilost.
  virtual int readLost(uint64_t /*ino*/, kest_lost_t *) { return 0; }
  // Appends the ranges in [from, to) in which the active file differs from the snapshot's.
  virtual int listChangedRanges(Inode &file, uint64_t from, uint64_t to,
                                std::vector<FileRange> *ranges) = 0;

 protected:
  DifferenceSet set_;
};

// `kind` is a KEST_OB_*; `path` is that of the object in the fileset, or the path that it would have
// there.
using ObstacleVisitor = std::function<void(unsigned kind, const std::string &path)>;

struct InodeNames {
  uint64_t generation = 0;
  std::vector<std::string> paths;  // below the tree's root, without leading slash; "": the root
};

class Tree {
 public:
  virtual ~Tree() = default;

  virtual uint64_t id() const = 0;  // kest_snapid_t
  // Path of the root directory without a trailing slash, or "/".
  virtual const std::string &path() const = 0;
  virtual int isWritable() const = 0;  // 1 or 0
  // Returns true if several nodes can mount the file system and work on it at the same time.
  virtual bool spansNodes() const { return false; }
  // See kest_names_outside.
  virtual bool hasNamesOutside() const { return false; }
  // Returns the bytes left for inodes, names and extents, without the file system's own reserve.
  virtual int64_t metadataRoom() const = 0;

  // Opens an inode by its number. `path` says where the inode is likely to be, as an absolute path or
  // relative to the root, or is NULL. A file system that may forget numbers looks there first.
  virtual int openInode(uint64_t ino, const char *path, std::unique_ptr<Inode> *inode) const = 0;
  // Opens the inode of this tree that is the same file as `other`, an inode of a snapshot; a regular
  // file at once for reading and writing, if possible. -ENOENT: there is none.
  virtual int openSame(const Inode &other, std::unique_ptr<Inode> *inode) const = 0;
  // Opens the object `name` of a directory of this tree like Directory::openObject, with all facts.
  // -EXDEV: it belongs to another tree.
  virtual int openNamed(const Directory &dir, const std::string &name,
                        std::unique_ptr<Inode> *inode) const = 0;
  // Creates a regular file with exactly this mode and opens it for reading and writing. -EEXIST.
  virtual int createFile(const Directory &dir, const std::string &name, mode_t mode,
                         std::unique_ptr<Inode> *inode) const = 0;
  // Opens the directory `path` beneath `start` (NULL: the root). -ELOOP: a component is a symbolic
  // link; -EXDEV: the path leads into another tree or through a mount.
  virtual int openDirectory(const Directory *start, std::string_view path,
                            std::unique_ptr<Directory> *dir) const = 0;
  // Wraps a duplicate of the caller's descriptor of a directory. -EXDEV: the directory belongs to
  // another tree.
  virtual int duplicateDirectory(int fd, std::unique_ptr<Directory> *dir) const = 0;
  // Finds all paths of an inode; in an active tree only those that the kernel confirms. 1, or 0 if
  // there is no such inode.
  virtual int findNames(uint64_t ino, InodeNames *names) const = 0;

  // Whether inode `ino` was created after inode `than`: 1, 0 or -errno.
  virtual int isYounger(uint64_t ino, uint64_t than) const = 0;
  // See kest_settle.
  virtual int settle() const = 0;
  // See kest_lock (a descriptor or -errno) and kest_remove_lock.
  virtual int lock() const = 0;
  virtual int removeLock() const = 0;

  virtual std::unique_ptr<InodeScan> openScan() const = 0;
  // Opens the difference from a snapshot, which compute() computes. -EINVAL: not related.
  virtual int openDifference(uint64_t snapshot_id, std::unique_ptr<Difference> *difference) const = 0;
  // Finds the largest inode number of this tree and of the tree that it is compared with:
  // `snapshot_id`, or if that is NULL, the fileset of a snapshot or the snapshot that this process
  // named last.
  virtual int largestInode(const uint64_t *snapshot_id, uint64_t *ino) const = 0;
  // Finds a mount point inside the fileset or snapshot at which a restore of `difference` would fail. 1
  // or 0. See kest_mount_in_the_way.
  virtual int findMountInTheWay(const Tree &snapshot, const Difference &difference,
                                std::string *point) const = 0;
  // Visits the objects of the computed difference that a restore cannot treat like others, and notes
  // running programs. See kest_find_obstacles.
  virtual int findObstacles(const Tree &snapshot, Difference *difference,
                            const ObstacleVisitor &visit) const = 0;
  // Whether a restore from `snapshot` leaves the file at `path` alone: 1 or 0. See kest_file_survives.
  virtual int fileSurvives(const Tree &snapshot, const char *path) const = 0;
};

struct SnapshotInfo {
  uint64_t id = 0;
  std::string name;     // as for kest_get_fset_snaphandle_by_name
  int64_t created = 0;  // seconds since 1970
  bool read_only = false;
};

// A description of a fileset. Fields that the file system does not have stay empty.
struct FilesetInfo {
  std::string file_system;  // hexadecimal identity of the file system
  std::string path;         // path below the top, without leading slash; "" for the top
  std::string name;         // last component
  uint64_t id = 0;
  std::string uuid, origin_uuid;           // hexadecimal; origin: it is a snapshot of that
  uint64_t parent_id = 0, parent_dir = 0;  // fileset and directory in which it is linked
  uint64_t root_ino = 0;
  uint64_t transaction = 0;  // transaction that created it
  int64_t created = 0;       // seconds since 1970
  bool read_only = false;
  bool mounted = false;  // some mount shows it, at mounted_at ("": the machine's root)
  std::string mounted_at;
  size_t snapshots = 0;
};

class FileSystem {
 public:
  virtual ~FileSystem() = default;

  // Opens the fileset, or if `snapshot` is not NULL that snapshot; see
  // kest_get_fset_snaphandle_by_name.
  virtual int openTree(const char *fileset, const char *snapshot,
                       std::unique_ptr<Tree> *tree) const = 0;
  virtual int commit() const = 0;
  // Finds the fileset's path below the top of the file system and its snapshots in the order of their
  // ids. -ENOENT: no such fileset; for other failures errorText() is the name of the fileset or
  // snapshot that could not be read.
  virtual int listSnapshots(const std::string &fileset, std::string *path,
                            std::vector<SnapshotInfo> *snapshots) const = 0;
  virtual int describeFileset(const std::string &fileset, FilesetInfo *info) const = 0;  // -ENOENT
  // Moves the nested fileset at `path`, with all its data, to the place for unlinked filesets and sets
  // *where. On failure errorText() explains it.
  virtual int unlinkFileset(const std::string &path, std::string *where) const = 0;
};

}  // namespace kest
