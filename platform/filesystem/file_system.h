// What the library asks of a file system. Everything that differs from one file system to another is
// behind these classes:
//
// - FileSystem: a mounted file system. It opens a fileset, or a snapshot of it, as a Tree, lists the
//   snapshots of a fileset, and takes a nested fileset (a junction) out of its parent.
// - Tree: a fileset or a snapshot. It opens inodes by number and directories by path, finds the names
//   of an inode, scans its inodes, and compares itself with a snapshot.
// - Difference: the inodes in which a fileset and a snapshot differ, with their attributes, their
//   changed entries and ranges, and the entries through which a walk gets to them. Twins, which are
//   equal in all but their numbers, are not among them (kest.h says what they are).
// - Inode: an open inode, with its data, attributes and flags. It can share ranges with another file.
// - Directory: a directory held open, whose entries are made, renamed and removed by name.
//
// Every call returns 0, or what its comment says, or -errno; -ENOTSUP where the file system has no such
// thing. Where a sentence says more than the number, errorText() has it. Objects are not thread-safe;
// different objects may be used by different threads. Objects that a call brings together are of one
// kind of file system.
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

// Whether an object is protected against changes.
struct Protection {
  bool immutable = false;
  bool append_only = false;
  bool any() const { return immutable || append_only; }
  bool operator==(const Protection &) const = default;
};

// What is known of an inode since it was opened.
struct InodeFacts {
  uint64_t ino = 0;
  uint64_t generation = 0;  // whole
  uint64_t size = 0;        // bytes
  mode_t mode = 0;          // st_mode encoding
  kest_timestruc64_t created{};
};

class Inode {
 public:
  virtual ~Inode() = default;

  // Complete for an inode that a tree opened, but for the generation (0) of one that it made. One that
  // a directory opened by name has mode, number and size; one behind a descriptor of the caller has
  // none of them.
  const InodeFacts &facts() const { return facts_; }

  // ---- data. Opened at the first call that needs them, in the way that it needs.
  // To be called before other steps, where their order matters. -EINVAL for all but files (and, for
  // reading, directories). -EROFS where the immutable or append-only flag forbids to write.
  virtual int openForReading() = 0;
  virtual int openForWriting() = 0;
  // Bytes read: fewer than `size` at the end of the file only.
  virtual int64_t read(void *buf, int64_t size, int64_t offset) = 0;
  // Bytes written: fewer than `size` only with the reason in *error.
  virtual int64_t write(const void *buf, int64_t size, int64_t offset, int *error) = 0;
  // Makes [offset, end) a hole and writes nothing where it is one. The file grows if it ends before.
  virtual int makeHole(int64_t offset, int64_t end) = 0;
  virtual int truncate(int64_t size) = 0;
  // Whether there is a hole at `offset` (preallocated space counts as one), and where it, or the data,
  // ends: `end` at the latest.
  virtual int stretchAt(int64_t offset, int64_t end, int64_t *stop, bool *hole) = 0;
  virtual int readLink(std::string *target) = 0;
  // The whole directory, "." and ".." included. Entries that a restore leaves alone are omitted. The
  // generation is filled in for directories.
  virtual int listEntries(EntryList *entries) = 0;

  // ---- attributes, as they are now.
  virtual int stat(struct stat *st) = 0;
  virtual int readAttributes(kest_iattr64_t *attr) = 0;
  virtual int readFacts(kest_facts_t *facts) = 0;  // see kest_ifacts
  virtual int changeMode(mode_t mode) = 0;
  virtual int changeOwner(uid_t uid, gid_t gid) = 0;
  // As utimensat: UTIME_OMIT leaves a time as it is.
  virtual int setTimes(const struct timespec times[2]) = 0;
  virtual int listXattrs(std::vector<std::string> *names) = 0;  // however many, in any order
  // -ENODATA: absent. -EOPNOTSUPP: the object cannot have such an attribute.
  virtual int readXattr(const char *name, std::string *value) = 0;
  virtual int writeXattr(const char *name, const std::string &value) = 0;
  virtual int removeXattr(const char *name) = 0;  // 0, also where it is absent
  // Gives the object exactly the twelve bits of `mode`, after a step in which the file system made
  // something else of them (umask, inherited ACL or group bit, change of owner).
  int setExactMode(mode_t mode);

  // ---- flags. An object that cannot have a flag does not have it set.
  virtual int readProtection(Protection *protection) = 0;
  // Sets both flags of a file or directory and leaves every other.
  virtual int writeProtection(Protection protection) = 0;
  // Makes the flags of a file or directory that KEST_FP_* knows those of `flags` and leaves every
  // other.
  virtual int writeFlags(uint32_t flags) = 0;
  // The flags of an attribute blob, for files and directories.
  virtual int readStorageFlags(unsigned *flags) = 0;
  // Storage flags and the attribute that goes with them are changed in two steps: the first takes back
  // what the file system cannot do of what is `wanted`, the second, after every other attribute, does
  // it.
  virtual int limitStorage(const BlobAttributes &now, BlobAttributes *wanted) = 0;
  virtual int applyStorage(const BlobAttributes &now, const BlobAttributes &wanted) = 0;

  // ---- shared data.
  // Lets [offset, offset + length) of this file be the same blocks as in `from`. Both are open, this
  // one for writing. -EINVAL: it cannot be shared, which calls for a copy. -EROFS: the flags forbid it.
  virtual int share(Inode &from, int64_t offset, int64_t length) = 0;
  // See kest_clone_snap.
  virtual int makeCloneParent() = 0;

  // ---- descriptors of the kernel.
  // Opens the object again, with open(2) `flags`.
  virtual int reopen(int flags, std::unique_ptr<Inode> *opened) = 0;
  virtual int duplicateDescriptor() = 0;  // a descriptor, close-on-exec, that the caller closes
  // The inode's own descriptor, which the caller closes. Nothing else can be done with the inode then.
  virtual int takeDescriptor() = 0;

 protected:
  InodeFacts facts_;
};

// Names are single components, and may be followed by slashes, which mean to the call what they mean to
// the kernel. They are never followed if they are links. Flags are not interpreted: a call that the
// flags of an object forbid gives -EPERM.
class Directory {
 public:
  virtual ~Directory() = default;

  virtual int stat(const std::string &name, struct stat *st) = 0;
  // The object itself: a device or FIFO is not opened for real.
  virtual int openObject(const std::string &name, std::unique_ptr<Inode> *object, struct stat *st) = 0;
  // open(2) with `flags`.
  virtual int open(const std::string &name, int flags, mode_t mode, std::unique_ptr<Inode> *opened) = 0;
  virtual int makeDirectory(const std::string &name, mode_t mode) = 0;
  virtual int makeNode(const std::string &name, mode_t mode, dev_t device) = 0;
  virtual int makeSymlink(const std::string &name, const char *target) = 0;
  virtual int link(Inode &inode, const std::string &name) = 0;
  // -EEXIST where the target exists.
  virtual int rename(const std::string &name, Directory &to, const std::string &to_name) = 0;
  // The same for the nested fileset `id`, which may be read-only. -ESTALE where `name` is another
  // object.
  virtual int renameFileset(const std::string &name, uint64_t id, Directory &to,
                            const std::string &to_name) = 0;
  virtual int removeFile(const std::string &name) = 0;
  virtual int removeDirectory(const std::string &name) = 0;
  // A clone of the clone parent `parent`, which appears whole or not at all; see kest_clone_copy.
  virtual int makeClone(const std::string &name, Inode &parent) = 0;

  // Of the object `name`, or with "" of the directory itself.
  virtual int readProtection(const std::string &name, Protection *protection) = 0;
  // Whether a nested fileset is linked here as `name`. 1 or 0.
  virtual int holdsFileset(const std::string &name) = 0;
};

// Every inode of a tree.
class InodeScan {
 public:
  virtual ~InodeScan() = default;
  // The first inode in [from, to] that has a name, with its attributes as they were committed last. 1,
  // or 0 when there is none.
  virtual int next(uint64_t from, uint64_t to, kest_iattr64_t *attr) = 0;
  // The same for [from, end), with the attributes as they are now.
  virtual int nextNow(uint64_t from, uint64_t end, kest_iattr64_t *attr) = 0;
};

// The entries of a directory, one after the other.
class EntryStream {
 public:
  virtual ~EntryStream() = default;
  // The next one, valid until the next call; NULL at the end.
  virtual int next(const kest_direntx64_t **entry) = 0;
};

// A range of a file in which it differs from the snapshot's.
struct FileRange {
  uint64_t start = 0, length = 0;  // bytes
  bool hole = false;               // the snapshot's file has a hole there
};

class Difference {
 public:
  virtual ~Difference() = default;

  // Commits the file system and compares. The other calls rely on it. If it failed it can be repeated.
  virtual int compute() = 0;
  const DifferenceSet &set() const { return set_; }
  // A file of both trees has to be made again: it differs, runs and cannot be written.
  void noteRunning(uint64_t ino) { set_.addState(ino, KEST_DI_RUNS); }

  // The attributes of an inode of the set. ia_nlink is 0 where the active tree has it no more.
  virtual int readAttributes(const DiffInode &inode, kest_iattr64_t *attr) = 0;
  // The entries that only one of the two directories has; `dir` is the active one. See
  // kest_ireaddirx64.
  virtual int listChanged(Inode &dir, EntryList *entries) = 0;
  // The entries of the active directory `dir` that differ or lead to a difference. See
  // kest_ireaddirc64.
  virtual std::unique_ptr<EntryStream> leadingEntries(Inode &dir) = 0;
  // See kest_ichange.
  virtual int readChange(uint64_t ino, kest_change_t *change) = 0;
  // Appends the ranges in [from, to) in which the active file differs from the snapshot's.
  virtual int listChangedRanges(Inode &file, uint64_t from, uint64_t to,
                                std::vector<FileRange> *ranges) = 0;

 protected:
  DifferenceSet set_;
};

// `kind`: KEST_OB_*; `path`: of the object in the fileset, or where it would be.
using ObstacleVisitor = std::function<void(unsigned kind, const std::string &path)>;

struct InodeNames {
  uint64_t generation = 0;
  std::vector<std::string> paths;  // below the tree's root, no leading slash; "": the root itself
};

class Tree {
 public:
  virtual ~Tree() = default;

  virtual uint64_t id() const = 0;  // kest_snapid_t
  // Of the root directory, without a slash at its end; "/" is the root of the machine.
  virtual const std::string &path() const = 0;
  virtual int isWritable() const = 0;  // 1 or 0
  // Bytes left for inodes, names and extents, besides the file system's own reserve.
  virtual int64_t metadataRoom() const = 0;

  // `path`: where the inode is likely to stand, whole or below the root, or NULL. A file system that may
  // forget numbers looks there first.
  virtual int openInode(uint64_t ino, const char *path, std::unique_ptr<Inode> *inode) const = 0;
  // The inode of this tree that is the same file as `other`, an inode of a snapshot. A regular file is
  // opened for reading and writing at once, where that is possible. -ENOENT there is none.
  virtual int openSame(const Inode &other, std::unique_ptr<Inode> *inode) const = 0;
  // The object `name` of a directory of this tree, as Directory::openObject, with all its facts.
  // -EXDEV it is of another tree.
  virtual int openNamed(const Directory &dir, const std::string &name,
                        std::unique_ptr<Inode> *inode) const = 0;
  // Makes a regular file of exactly this mode and opens it for reading and writing. -EEXIST.
  virtual int createFile(const Directory &dir, const std::string &name, mode_t mode,
                         std::unique_ptr<Inode> *inode) const = 0;
  // Takes over `fd`, a regular file of this tree that is open for reading and writing; not on failure.
  virtual int adoptDescriptor(int fd, std::unique_ptr<Inode> *inode) const = 0;
  // Opens the directory `path` beneath `start` (NULL: the root). -ELOOP where a component is a link,
  // -EXDEV where the path leads into another tree or over a mount.
  virtual int openDirectory(const Directory *start, std::string_view path,
                            std::unique_ptr<Directory> *dir) const = 0;
  // A directory of this tree that the caller has open. -EXDEV it is of another tree.
  virtual int duplicateDirectory(int fd, std::unique_ptr<Directory> *dir) const = 0;
  // Every path of an inode. In an active tree the live file system confirms each of them. 1, or 0 where
  // there is no such inode.
  virtual int findNames(uint64_t ino, InodeNames *names) const = 0;

  // Whether inode `ino` was made after inode `than`. 1, 0 or -errno.
  virtual int isYounger(uint64_t ino, uint64_t than) const = 0;
  // See kest_settle.
  virtual int settle() const = 0;
  // See kest_lock (a descriptor or -errno) and kest_remove_lock.
  virtual int lock() const = 0;
  virtual int removeLock() const = 0;

  virtual std::unique_ptr<InodeScan> openScan() const = 0;
  // Costs little: the comparison is made by compute(). -EINVAL unrelated.
  virtual int openDifference(uint64_t snapshot_id, std::unique_ptr<Difference> *difference) const = 0;
  // The largest inode number of this tree and of the one that it is compared with: `snapshot_id`, or,
  // if that is NULL, the fileset of a snapshot or the snapshot that this process named last.
  virtual int largestInode(const uint64_t *snapshot_id, uint64_t *ino) const = 0;
  // A mount point inside the fileset or the snapshot at which a restore of the `difference` would fail.
  // 1 or 0. See kest_mount_in_the_way.
  virtual int findMountInTheWay(const Tree &snapshot, const Difference &difference,
                                std::string *point) const = 0;
  // Visits what of the difference, which is computed, a restore cannot treat like the rest, and notes
  // the programs that run. See kest_find_obstacles.
  virtual int findObstacles(const Tree &snapshot, Difference *difference,
                            const ObstacleVisitor &visit) const = 0;
  // Whether a restore from `snapshot` leaves the file at `path` alone. 1 or 0. See kest_file_survives.
  virtual int fileSurvives(const Tree &snapshot, const char *path) const = 0;
};

struct SnapshotInfo {
  uint64_t id = 0;
  std::string name;     // as kest_get_fset_snaphandle_by_name takes it
  int64_t created = 0;  // seconds since 1970
  bool read_only = false;
};

// A description of a fileset. A file system leaves empty what it does not have.
struct FilesetInfo {
  std::string file_system;  // identity of the file system, hexadecimal
  std::string path;         // below the top of the file system, no leading slash; "" the top
  std::string name;         // last component
  uint64_t id = 0;
  std::string uuid, origin_uuid;           // hexadecimal; origin: of what it was made as a snapshot of
  uint64_t parent_id = 0, parent_dir = 0;  // the fileset and the directory in it that it is linked in
  uint64_t root_ino = 0;
  uint64_t transaction = 0;  // that created it
  int64_t created = 0;       // seconds since 1970
  bool read_only = false;
  bool mounted = false;  // a mount shows it, and where: "" as the root of the machine
  std::string mounted_at;
  size_t snapshots = 0;
};

class FileSystem {
 public:
  virtual ~FileSystem() = default;

  // The fileset, or with `snapshot` not NULL that snapshot of it; see kest_get_fset_snaphandle_by_name.
  virtual int openTree(const char *fileset, const char *snapshot,
                       std::unique_ptr<Tree> *tree) const = 0;
  virtual int commit() const = 0;
  // The fileset's path below the top of the file system, and its snapshots, by id. -ENOENT no such
  // fileset; else errorText() has the name of the fileset or snapshot that could not be read.
  virtual int listSnapshots(const std::string &fileset, std::string *path,
                            std::vector<SnapshotInfo> *snapshots) const = 0;
  virtual int describeFileset(const std::string &fileset, FilesetInfo *info) const = 0;  // -ENOENT
  // Moves the nested fileset at `path`, with all its data, to where unlinked filesets are kept: *where.
  // errorText() says why it did not.
  virtual int unlinkFileset(const std::string &path, std::string *where) const = 0;
};

}  // namespace kest
