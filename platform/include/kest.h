/* kest.h - the client library of the file system.
 *
 * A handle stands for a fileset or one of its snapshots (on btrfs: a subvolume, or a related one).
 * Inode numbers are those of the file system; a fileset and its snapshots share them.
 *
 * These rules hold for every call:
 * - Sizes and offsets are in bytes unless stated otherwise. Times are seconds and nanoseconds since
 *   1970.
 * - A call that fails returns NULL or -1 and sets errno to a value other than 0. "-1: errno" means
 *   any errno of the system calls that it makes.
 * - The caller owns handles, scans and open inodes until the matching free or close. A record
 *   returned through a pointer (attributes, a directory entry) belongs to the scan or inode that
 *   returned it, and is valid until the next call on that object.
 * - Objects are not thread-safe, but different threads can use different objects. */
#ifndef KEST_H
#define KEST_H

#include <stddef.h>
#include <stdint.h>
#include <sys/stat.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct kest_fssnap_handle kest_fssnap_handle_t; /* a fileset, or one snapshot of it */
typedef struct kest_iscan kest_iscan_t;                 /* an inode scan */
typedef uint64_t kest_snapid_t;                         /* on btrfs the subvolume id */

typedef struct kest_timestruc64 {
  int64_t tv_sec;
  uint32_t tv_nsec;
} kest_timestruc64_t;

typedef struct kest_iattr64 {
  uint64_t ia_inode;
  uint64_t ia_generation; /* creation transaction, all 64 bits */
  uint32_t ia_mode;       /* st_mode encoding */
  uint32_t ia_xattr;      /* 0 if and only if kest_igetattrsx returns an empty blob */
  int64_t ia_nlink;       /* 0: the inode was deleted since the snapshot */
  int64_t ia_size;
  uint64_t ia_uid;
  uint64_t ia_gid;
  uint32_t ia_rdev; /* high half: device number without its low 8 bits; low half: these 8 bits.
                       0x00040001 is device 4:1. For minors above 4095 use kest_idevice. */
  uint32_t ia_pad;
  kest_timestruc64_t ia_atime, ia_mtime, ia_ctime, ia_createtime;
} kest_iattr64_t;

/* An open inode. Callers may use only the fields named here. */
typedef struct kest_ifile {
  uint64_t if_inode;
  uint32_t if_kind; /* KEST_IFILE_KIND while open, 0 after the close */
  uint32_t if_pad0;
  uint16_t if_gen16; /* offset 16: generation, low 16 bits */
  uint16_t if_pad1;
  uint32_t if_pad2;
  uint64_t if_size; /* offset 24: bytes when it was opened */
  uint32_t if_pad3;
  uint32_t if_mode;       /* offset 36: st_mode encoding */
  uint64_t if_generation; /* whole generation */
} kest_ifile_t;
#define KEST_IFILE_KIND 0x4b454946u

typedef struct kest_direntx64 {
  uint64_t d_ino;  /* inode number, or the subvolume id of a junction */
  uint64_t d_gen;  /* generation of the inode; 0 if the call did not need it (most entries other
                      than directories, and those that only the snapshot has) */
  uint16_t d_type; /* a DT_* value, plus KEST_DT_SNAP for an entry that only the snapshot has */
  uint16_t d_pad;
  uint32_t d_flags;
  char d_name[256];
} kest_direntx64_t;
#define KEST_DT_SNAP 0x10u
#define KEST_DF_JUNCTION 0x1u  /* a nested fileset is linked here */
#define KEST_DF_JUNCTION2 0x2u /* a nested inode space is linked here; never on btrfs */

typedef struct kest_fs_figures64 {
  uint64_t f_bsize; /* transfer unit, 262144 */
  uint64_t f_blocks, f_bfree, f_bavail;
  uint64_t f_files, f_ffree;
} kest_statfs64_t;

/* ---- handles -------------------------------------------------------------------------------- */

/* Opens the fileset `fileset` of the mounted file system `device` (any path on it, or its block
 * device) or, if `snapshot` is not NULL, that snapshot of it. The name of a fileset is its path
 * below the top of the file system, with or without a leading slash; "/" is the top itself. The name
 * of a snapshot is the last component of its path, or its path below the top if that component is
 * ambiguous. Any mount of the file system can show them. NULL: ENODEV `device` is no mounted file
 * system of a known kind; ENOENT no such fileset or snapshot; EINVAL not a snapshot of the fileset,
 * or an ambiguous name; ENXIO no mount shows it. kest_error_text() says more. */
kest_fssnap_handle_t *kest_get_fset_snaphandle_by_name(const char *device, const char *fileset,
                                                       const char *snapshot);
void kest_free_fssnaphandle(kest_fssnap_handle_t *handle);

/* Returns one sentence about the last failure of this thread with a handle or scan, without a final
 * full stop or newline; strerror(errno) if there is nothing to add. Valid until the next call. */
const char *kest_error_text(void);

/* 0 and the id of the fileset or snapshot; -1: EINVAL. */
int kest_get_fssnapid_from_fssnaphandle(const kest_fssnap_handle_t *handle, kest_snapid_t *id);

/* Returns the absolute path of the root directory through one of its mounts, without a trailing
 * slash (except for "/"). NULL: EINVAL. */
const char *kest_get_pathname_from_fssnaphandle(const kest_fssnap_handle_t *handle);

/* 1: the fileset or snapshot is writable; 0: it or the mount is read-only; -1: errno. */
int kest_is_writable(const kest_fssnap_handle_t *handle);

/* Reads figures of the file system; f_bsize is 262144. -1: the errno of statfs. */
int kest_statfs64(const char *path, kest_statfs64_t *buf);

/* Returns the bytes that the file system has left for metadata (inodes, names, extents), without its
 * own reserve. -1: errno. */
int64_t kest_metadata_room(const kest_fssnap_handle_t *handle);

/* 1: the entry `name` of the directory `path` is a quota file of the file system, which is never
 * restored. Always 0 on btrfs, which keeps quotas in a tree. */
int kest_is_quota_file(const kest_fssnap_handle_t *handle, const char *path, const char *name);

/* For a program that is about to restore the fileset from which it may run itself. 1: the file at
 * `path` lies outside the fileset, or the snapshot has the same file, unchanged and under the same
 * name; 0: the restore would remove or change it; -1: the errno of stat. */
int kest_file_survives(const kest_fssnap_handle_t *active, const kest_fssnap_handle_t *snap,
                       const char *path);

/* 1: this machine cannot share the work on the file system of `active` with all nodes of the
 * comma-separated list. Other nodes than this machine ("all", "localhost", its host name with or
 * without domain) need a file system that several nodes can mount. `node` receives the first node that
 * cannot take part, cut to `size` bytes. 0: it can. */
int kest_other_node(const kest_fssnap_handle_t *active, const char *nodes, char *node, size_t size);
/* 1: other nodes can mount the file system; 0: they cannot. */
int kest_spans_nodes(const kest_fssnap_handle_t *active);
/* 1: a file of a fileset can have further names outside of it; 0: it cannot. */
int kest_names_outside(const kest_fssnap_handle_t *active);

/* For a restore that is about to begin; `scan` is a difference scan of both trees. 1: something is
 * mounted on a directory or file of the fileset or snapshot that the restore would have to enter,
 * change, rename or remove, and `point` receives the mount point, cut to `size` bytes; 0: nothing
 * is. Mounts on objects that the restore leaves alone, or below directories that it only renames, do
 * not count. -1: errno. */
int kest_mount_in_the_way(const kest_fssnap_handle_t *active, const kest_fssnap_handle_t *snap,
                          kest_iscan_t *scan, char *point, size_t size);

/* For a restore that is about to begin, as above. Calls visit(arg, kind, path) for every object of
 * the difference that the restore cannot treat like others; `path` is the absolute path of the
 * object in the fileset. Tries to open every file that must change for writing, which starts
 * breaking leases on it, but does not wait for their holders. 0; -1: errno. */
#define KEST_OB_RUNS                                                                      \
  1u /* a running program whose data must change, but the kernel lets nobody write to it; \
        kest_idifference reports KEST_DI_RUNS for it from now on */
#define KEST_OB_SWAP 2u /* active swap space, which nobody can write, rename or remove */
#define KEST_OB_ACL                                                                     \
  3u /* it has an ACL, but the file system is mounted without them; only the first such \
        object is reported */
int kest_find_obstacles(const kest_fssnap_handle_t *active, const kest_fssnap_handle_t *snap,
                        kest_iscan_t *scan, void (*visit)(void *arg, unsigned kind, const char *path),
                        void *arg);

/* ---- inode scans ---------------------------------------------------------------------------- */

/* Opens a scan of the handle's inodes. Costs microseconds, because nothing is read before the first
 * query. With `prev` NULL the scan contains every inode. With a snapshot id it contains the
 * difference of the fileset from that snapshot, including deleted inodes. `max_ino`, unless NULL,
 * receives the largest inode number in either tree (without `prev`: of this tree and of the fileset
 * or snapshot that this process named last). NULL: EINVAL not a related snapshot; errno. */
kest_iscan_t *kest_open_inodescan64(kest_fssnap_handle_t *handle, const kest_snapid_t *prev,
                                    uint64_t *max_ino);
void kest_close_inodescan(kest_iscan_t *scan);

/* 0 and the next inode in the order of numbers, each once, up to and including `end_ino`; 0 and NULL
 * at the end. -1: errno.
 *
 * An inode is in a difference if only one tree has it, or if its identity (generation and creation
 * time), ctime or sequence differ. It is left out if all properties that can be restored are
 * nevertheless equal (size, mode, owner, link count, names, mtime, flags, xattrs, data), or if it is
 * a twin (see below). For an inode of a difference the scan sets only ia_inode, and ia_nlink to 1,
 * or to 0 if the fileset did not have the inode any more when the difference was computed;
 * kest_stat_inode64 returns the rest. The root directory can be among the inodes. Computing a
 * difference first commits the file system; a full scan shows the committed state. */
int kest_next_inode64(kest_iscan_t *scan, uint64_t end_ino, const kest_iattr64_t **attr);

/* Two inodes are twins if only the snapshot has one and only the fileset has the other, and if
 * nothing but number, generation, ctime and creation time tells them apart. (The other tree may use
 * the number of either for another file.) All properties that can be restored are equal, and the
 * names are equal in the same directories. Clones have the same parent. In directories everything is
 * equal, down to the last file. In all of this twins count as one inode, so a tree that was made
 * again is a tree of twins. Data is compared by extents and read only if these differ; clones with
 * other extents are never twins. Twins are not in the difference: no call below reports them, and
 * inodes that differ only by twins are equal.
 *
 * kest_idifference returns what the scan knows about an inode, as it was when the difference was
 * computed, which the first query does: 0 if it is not in the difference, else KEST_DI_* bits,
 * including at least one of the first two. Does not access the file system. -1: errno. */
#define KEST_DI_ACTIVE 0x1   /* the fileset has an inode of this number, with a name */
#define KEST_DI_SNAPSHOT 0x2 /* so has the snapshot */
#define KEST_DI_REPLACED 0x4 /* both have one, but not the same file (kest_same_file) */
#define KEST_DI_DIR 0x8      /* a directory in the fileset, or in the snapshot if only that has it */
#define KEST_DI_LINKED 0x10  /* not a directory, and has several names in either tree */
#define KEST_DI_ENTRIES 0x20 /* a directory of both trees with entries that only one has */
#define KEST_DI_CLONE 0x40   /* a regular file of both trees with clone attributes in either */
#define KEST_DI_RUNS 0x80    /* a running program that must be made again (kest_find_obstacles) */
int kest_idifference(kest_iscan_t *scan, uint64_t ino);

/* For a file system that several nodes can mount: has other processes help when the first query
 * computes the difference, with the same result. Call it before any query. A small tree is compared
 * without them.
 *
 * A round begins with open_directories, which returns the descriptor of a new file that the other
 * processes can read. The library writes into it, closes it, and calls compare with at most `groups`
 * groups of directories, each a range of bytes of that file. compare returns when kest_compare_group
 * has succeeded for each group, once or more often and in any process, and its output is complete. Then
 * open_part is called once for every group of the round, from 0, and returns a descriptor of that
 * output; the library closes it. Further rounds may follow. A callback that fails returns -1 and sets
 * errno, with which the query fails; after ENOSPC and EDQUOT the library compares everything itself.
 * -1: EINVAL; ENOTSUP the file system cannot divide a comparison. */
typedef struct kest_group {
  uint64_t from, to; /* bytes */
} kest_group_t;
typedef struct kest_division {
  size_t groups;
  uint64_t most; /* directories, after which a process returns the rest of its group, which then
                    comes in the next round; grows from round to round */
  void *arg;
  int (*open_directories)(void *arg);
  int (*compare)(void *arg, const kest_group_t *groups, size_t count);
  int (*open_part)(void *arg, size_t group);
} kest_division_t;
int kest_divide_difference(kest_iscan_t *scan, const kest_division_t *division);
/* Compares one group and writes what it finds to `part`, an empty file. `scan` is a difference scan of
 * the same trees, of this process; its own difference is not computed. Closes nothing. -1: EBADMSG the
 * file of directories is damaged; errno. */
int kest_compare_group(kest_iscan_t *scan, int directories, const kest_group_t *group, int part);

/* 0, and the number of the active inode that is the twin of the snapshot's inode `ino`, or the
 * number 0 if it has none. -1: errno. */
int kest_twin(kest_iscan_t *scan, uint64_t ino, uint64_t *active);

/* What a walk must know about an inode that is the same file in both trees, as it was when the
 * difference was computed. Opens no file and, for an inode of the difference, rarely reads a tree.
 * -1: ENOENT not the same file in both trees; errno. */
typedef struct kest_change {
  uint64_t ch_size, ch_snap_size; /* bytes in the fileset and in the snapshot */
  uint64_t ch_start, ch_length;   /* regular file: the first differing range up to the smaller size, as
                                     kest_ireadx finds it; length 0: there is none */
  uint8_t ch_hole;                /* that range is a hole in the snapshot's file */
  uint8_t ch_more;                /* kest_ireadx finds more ranges */
  uint8_t ch_shareable;     /* kest_ishare can share blocks of both files, and the fileset's file can
                               get the snapshot's storage flags without being emptied; 0 for other
                               types than regular files */
  uint8_t ch_regular;       /* it is a regular file */
  uint8_t ch_other_storage; /* a regular file that is stored in another way than the snapshot's; this
                               can be changed only while the file is empty */
} kest_change_t;
int kest_ichange(kest_iscan_t *scan, uint64_t ino, kest_change_t *change);

/* What the comparison noted about a file (no directory) that only the snapshot has. 1; 0: nothing, so
 * open the inode; this is so for every clone and clone parent. -1: errno. */
typedef struct kest_lost {
  uint64_t lo_size;   /* bytes */
  uint8_t lo_regular; /* it is a regular file */
} kest_lost_t;
int kest_ilost(kest_iscan_t *scan, uint64_t ino, kest_lost_t *lost);

/* Returns the number of inodes that differed when the difference was computed. -1: errno. */
int64_t kest_difference_size(kest_iscan_t *scan);

/* Returns the number of directories that the comparison passed over with everything below, because the
 * file system says that nothing below has changed and the administrator has asked to believe that (see
 * FSETRESTORE_RCTIME_MARGIN in the man page). -1: errno. */
int64_t kest_passed_over(kest_iscan_t *scan);

/* For a walk over the active fileset. 1: the active inode itself or anything below it was in the
 * difference, or a junction was below it, when the difference was computed; 0: neither. -1: errno. */
int kest_leads_to_change(kest_iscan_t *scan, uint64_t ino);

/* Finds the place of the nested fileset `id` (the id of a junction in the difference scan) in the
 * snapshot. 1, the inode number of its directory and its name there; 0: the snapshot does not have
 * it; -1: errno. `name` has room for 256 bytes. */
int kest_junction_home(kest_iscan_t *scan, uint64_t id, uint64_t *dir, char *name);

/* 0 and the attributes of the first inode of the scan in [ino, term_ino), or NULL if there is none
 * (difference scan: if it is unchanged or deleted). A full scan reads the attributes at the time of
 * the call. */
int kest_stat_inode64(kest_iscan_t *scan, uint64_t ino, uint64_t term_ino, const kest_iattr64_t **attr);

/* ---- inodes --------------------------------------------------------------------------------- */

/* Opens an inode by number for reading and writing. Its data is opened in either mode when a call
 * first needs it. Opening a device node or FIFO has no side effect. `flags` and `attr` are unused
 * (0, NULL). `link` is a path at which the tree is likely to have the inode, or NULL: a file system
 * that can forget the numbers of deleted inodes looks there first. NULL: ENOENT no such inode, or it
 * has no name. */
kest_ifile_t *kest_iopen64(kest_fssnap_handle_t *handle, uint64_t ino, int flags, const void *attr,
                           const char *link);
/* Opens the object at `path`, of any type, without side effects on a device or FIFO and without
 * following a final symbolic link. Resolves the path like the path calls below. NULL: errno. */
kest_ifile_t *kest_iopen_path(kest_fssnap_handle_t *handle, const char *path);
/* Creates a regular file at `path` with exactly this mode, owned by the caller, and
 * opens it for reading and writing. NULL: EEXIST the name exists; EROFS
 * flags of the directory forbid it; errno. */
kest_ifile_t *kest_icreate(kest_fssnap_handle_t *active, const char *path, mode_t mode);
/* Opens the active inode that is the same file as `snap`, an open inode of a snapshot, by number and
 * generation, so that it cannot be another one; a regular file at once for reading and writing.
 * NULL: ENOENT it does not exist any more, or has no name; errno. */
kest_ifile_t *kest_iopen_same(kest_fssnap_handle_t *active, const kest_ifile_t *snap);
int kest_iclose(kest_ifile_t *file);

/* What is known about an open inode from one read. */
typedef struct kest_facts {
  kest_iattr64_t attr;
  uint32_t protection; /* KEST_FP_*, of files and directories */
  uint32_t has;        /* KEST_HAS_* */
} kest_facts_t;
/* The inode flags that no attribute blob carries: the two that forbid changes, and others that
 * chattr(1) sets. */
#define KEST_FP_IMMUTABLE 0x1u
#define KEST_FP_APPEND_ONLY 0x2u
#define KEST_FP_NO_ATIME 0x4u
#define KEST_FP_NO_DUMP 0x8u
#define KEST_FP_SYNC 0x10u
#define KEST_FP_DIRSYNC 0x20u    /* directories only */
#define KEST_HAS_BLOB 0x1u       /* kest_igetattrsx returns a blob (attr.ia_xattr) */
#define KEST_HAS_ACL 0x2u        /* an access or default ACL */
#define KEST_HAS_CAPABILITY 0x4u /* security.capability */
#define KEST_HAS_CLONE 0x8u      /* a clone attribute */
/* 1 if inode `ino` of the active fileset was created after inode `than`, which exists; 0; -1: errno. */
int kest_younger(kest_fssnap_handle_t *active, uint64_t ino, uint64_t than);

/* Makes sure that everything this process has done to the fileset through this handle survives the
 * process, even if the process is killed after this call. Costs nothing if the kernel holds it already.
 * 0; -1: errno, also that of an earlier write that could not be carried out. */
int kest_settle(kest_fssnap_handle_t *active);

/* Locks the fileset for one restore, on all nodes and mounts. Returns a close-on-exec descriptor; the
 * lock lasts while a process has it open. -1: EWOULDBLOCK somebody else holds the lock, errno.
 * kest_remove_lock removes the file on which the lock is held, if there is one, before the descriptor
 * is closed. 0; -1: errno. */
int kest_lock(kest_fssnap_handle_t *active);
int kest_remove_lock(kest_fssnap_handle_t *active);

/* Reads the facts. The first call after the open can answer with the attributes at the open, any later
 * one reads the present ones. Those of an inode of a read-only snapshot were read at its open, so this
 * costs nothing. -1: errno. */
int kest_ifacts(const kest_ifile_t *file, kest_facts_t *facts);

/* 1: both open inodes are the same file, that is, number, whole generation, creation time and file
 * type are equal; 0: not. */
int kest_same_file(const kest_ifile_t *a, const kest_ifile_t *b);

/* Calls each(arg, path) for every path of inode `ino` below the handle's root, of any length and
 * without a leading slash ("" for the root itself), in the order of the directories' inode numbers.
 * For a snapshot, the names come from its tree; for an active fileset, the kernel confirms the names
 * in the committed tree. 0; -2 as soon as `each` returns another value than 0; -1: ENOENT no such
 * inode, or none with a path there; errno. */
int kest_inode_names(kest_fssnap_handle_t *handle, uint64_t ino,
                     int (*each)(void *arg, const char *path), void *arg);

/* Reads the present attributes of an open inode. -1: errno. */
int kest_istat(const kest_ifile_t *file, kest_iattr64_t *attr);

/* The calls of similar names below, on an open inode: owner (keeps set-user-ID, set-group-ID and
 * file capabilities; EPERM stays EPERM), the twelve mode bits, times, opaque ACL, inode flags
 * (KEST_FP_*, all set as given) and one extended attribute by name. -1: errno. */
int kest_ichown(kest_ifile_t *file, uint64_t uid, uint64_t gid);
int kest_ichmod(kest_ifile_t *file, mode_t mode);
int kest_iset_times(kest_ifile_t *file, int flags, const kest_timestruc64_t times[4]);
int kest_igetacl(kest_ifile_t *file, int flags, void *buf);
int kest_iputacl(kest_ifile_t *file, int flags, const void *buf);
int kest_iset_protection(kest_ifile_t *file, uint32_t protection);
/* Returns the length of the value. -1: ENODATA no such attribute; ERANGE `size` is too small; errno. */
int64_t kest_igetxattr(const kest_ifile_t *file, const char *name, void *buf, size_t size);
int kest_isetxattr(kest_ifile_t *file, const char *name, const void *value, size_t size);

/* Reads the whole device number of a device inode. -1: EINVAL another type. */
int kest_idevice(const kest_ifile_t *file, unsigned *major_no, unsigned *minor_no);

/* Reads file data, or the target of a symbolic link (completely, if `size` is large enough; without
 * terminator), at *offset and advances it. Returns the number of bytes, 0 at the end; -1: errno. */
int64_t kest_iread(kest_ifile_t *file, void *buf, int64_t size, int64_t *offset);

/* Reads incrementally. -1: errno.
 *
 * Without `buf` (size 0): finds the next range at or after *offset and below `term` (0: end of file)
 * in which `file` differs across `scan`. Compares extent maps, never data. Moves *offset to the
 * start of the range, sets *hole to 1 if the range is a hole in the snapshot's file (preallocated
 * space counts as one), and returns the length, or 0 if there is none left. A range ends where *hole
 * would change. With a difference scan, the file is the active one, and it is compared with the
 * snapshot's up to the smaller size. With a full scan, returns every range of the file, data and
 * holes.
 *
 * With `buf`: reads up to `size` bytes at *offset, either data or a hole (`scan`: the full scan of
 * the file's tree). *offset stays at the start of the returned range. With *hole 1 the buffer is not
 * filled. */
int64_t kest_ireadx(kest_ifile_t *file, kest_iscan_t *scan, void *buf, int64_t size, int64_t *offset,
                    int64_t term, int *hole);

/* Writes `len` bytes at `offset`. With `hole` 1 and `buf` NULL, makes the range a hole: punches out
 * data, writes nothing where a hole is already, and extends a file that ends before the range's end.
 * Keeps file capabilities. Returns `len`, or less or -1 with errno; EROFS: the immutable or
 * append-only flag forbids it. */
int64_t kest_iwritex(kest_ifile_t *file, const void *buf, int64_t len, int64_t offset, int hole);

/* ---- directories ---------------------------------------------------------------------------- */

/* Reads the next entry of an open directory, including "." and "..". The first call takes the whole
 * listing. Omits entries that a restore leaves alone: snapshots of the fileset; .snapshots and, at
 * the top of the file system, .unlinked; and junctions whose place is the same as in the snapshot,
 * in the snapshot their stubs. An active directory is compared with the snapshot that this process
 * opened last, as a handle or for a scan. 0 and NULL at the end; -1: errno. */
int kest_ireaddir64(kest_ifile_t *dir, const kest_direntx64_t **entry);

/* Reads the next entry, by (name, inode, generation), that only one of both directories with this
 * inode number has, across a difference scan; `dir` is the active one. Twins count as one inode.
 * Entries of the snapshot carry KEST_DT_SNAP; a name that leads to another object now comes twice.
 * Entries come in the order of names, but those of a directory that only the fileset has in the
 * order of the directory. The first call takes the whole listing and checks it against the present
 * directory: omits entries that are gone, and those that have come back. A directory with equal
 * entries costs nothing. */
int kest_ireaddirx64(kest_ifile_t *dir, kest_iscan_t *scan, const kest_direntx64_t **entry);

/* Like kest_ireaddir64, but reads only the entries of the active directory that matter to a walk:
 * inodes of the difference, directories that lead to one (kest_leads_to_change), and junctions.
 * Junctions come first, the others in the order of inode numbers. Omits an entry that leads to
 * another inode now, or is gone. The cost depends on the number of returned entries, not on the size
 * of the directory. */
int kest_ireaddirc64(kest_ifile_t *dir, kest_iscan_t *scan, const kest_direntx64_t **entry);

/* ---- attributes ----------------------------------------------------------------------------- */

/* Reads all user.*, trusted.* and security.* attributes (except clone attributes) and the
 * compression and no-copy-on-write flags of the file as one opaque blob. `flags` is 32 (64 changes
 * nothing). 0 and *attr_size (0: nothing to restore, as in ia_xattr); -1: ENOSPC the buffer is too
 * small and *attr_size is the size needed; errno. */
int kest_igetattrsx(kest_ifile_t *file, int flags, void *buf, int size, int *attr_size);

/* Sets the attributes to exactly those in the blob; NULL removes all. `path` is unused (NULL). -1:
 * EPERM immutable or append-only; errno. */
int kest_iputattrsx(kest_ifile_t *file, int flags, const void *buf, const char *path);

/* Opaque ACL: the access ACL, the default ACL of a directory, and the twelve mode bits. `buf` begins
 * with its length (int32), version (uint16, 0) and type (uint8, 1), which the caller sets; put uses
 * only the length. Part of the interface for other programs. Neither follows `path` if that is a
 * symbolic link, and putacl does nothing to one. getacl -1: ENOSPC the length field now holds the size
 * needed. putacl -1: EPERM flags forbid it. Both -1: errno. */
int kest_getacl(const char *path, int flags, void *buf);
int kest_putacl(const char *path, int flags, const void *buf);

#define KEST_ACCESS_TIME 1
#define KEST_MODIFICATION_TIME 2
/* Sets the access time times[0] if `flags` has KEST_ACCESS_TIME, and the modification time times[1] if
 * it has KEST_MODIFICATION_TIME. Ignores times[2] (ctime) and times[3] (creation), which cannot be set
 * on btrfs. Does not follow a symbolic link. Part of the interface for other programs. */
int kest_set_times_path(const char *path, int flags, const kest_timestruc64_t times[4]);

/* 1 if the object at a path of the active tree has the attribute of clones and clone parents
 * (kest.CLONE); 0 if it has none, or the file system has no clones; -1: errno. */
int kest_carries_clone(kest_fssnap_handle_t *active, const char *path);

/* Executes a control request on a descriptor (O_PATH suffices). `request` is a header of four int32
 * (total length, version 1, error offset 0, reserved 0), followed by directives of 24 bytes: int32
 * length, int32 type, int32 value, int32 fourth, 8 bytes 0. Types: 5000/5001 set/get immutable,
 * 5004/5005 set/get append-only. Get sets the value to 0 or 1.
 *
 * Type 6001 reads an attribute and has its own layout: int32 length, int32 6001, int32 name length,
 * int32 value length, int32 flags, int32 reason (27: absent; 29: the value buffer is too small, and
 * the value length is the size needed), name padded to 8 bytes, value. The file system's own
 * attributes are named without "trusted.", for example kest.CLONE.
 *
 * On an object that has no flags (FIFO, device), set does nothing and get returns 0. -1: EINVAL
 * malformed request; errno. */
int kest_fcntl(int fd, void *request);

/* ---- clones --------------------------------------------------------------------------------- */

/* A clone parent is a read-only regular file whose blocks its clones share. A clone can be a parent
 * itself. Two attributes of the file system hold the relation; attribute blobs neither carry nor
 * remove them, and the difference compares them. CLONE has 16 bytes: parent inode number
 * (big-endian); byte 12 flags, 0x80 clone parent, 0x40 the parent is in a snapshot; bytes 14 and 15
 * depth (big-endian), 0 for a file that is no clone itself. CLONESNAP has 8 bytes; bytes 4 to 7 are
 * the snapshot id (big-endian).
 *
 * A clone parent carries the immutable flag, so until that is cleared, writing and truncation fail
 * with EROFS and attribute changes with EPERM. Its names can still change: kest_unlink,
 * kest_rename_noreplace and kest_link clear the flag for the step. */

/* Makes a regular file a clone parent. Keeps access and modification time and, if the file is a
 * clone, its parent and depth. A parent that lost its immutable flag gets it again (0). `snap_path`
 * is unused (NULL). -1: EROFS it is one already, or flags or its tree forbid it; EINVAL not a
 * regular file; EBUSY some process, possibly the caller, has it open for writing; errno. */
int kest_clone_snap(const char *path, const char *snap_path);

/* Creates `path` (mode 0600, owned by the caller) as a clone of the clone parent `parent_path`. The
 * clone shares all blocks of the parent and is one level deeper. It appears complete or not at all.
 * The parent can be in a snapshot of the fileset of `path`, or in another relative, which the clone
 * then names. -1: EEXIST; EINVAL `parent_path` is no clone parent; EROFS flags of the directory
 * forbid it; EXDEV another file system or an unrelated tree; EOVERFLOW too deep; errno. */
int kest_clone_copy(const char *parent_path, const char *path);

/* The same for open inodes. `path` lies in the fileset `active` and is resolved like those of the
 * path calls. */
int kest_iclone_snap(kest_ifile_t *file);
int kest_iclone_copy(kest_ifile_t *parent, kest_fssnap_handle_t *active, const char *path);

/* Reads the clone attributes of an open inode. 1 and both (the second one zeroed if there is none;
 * each pointer can be NULL); 0: neither clone nor clone parent, or an attribute that is too short;
 * -1: errno. */
int kest_iclone_attr(kest_ifile_t *file, uint8_t clone[16], uint8_t clone_snap[8]);

/* Sets the parent's inode number in the attribute of a clone of the active fileset. Keeps access and
 * modification time and the flags. -1: EINVAL not a clone; errno. */
int kest_iset_clone_parent(kest_ifile_t *file, uint64_t parent);

/* Makes a range of `to` share the blocks of `from` (any tree of the same file system) at the same
 * offset, including holes and preallocated space; no data moves. Extends `to` if it ends before the
 * range's end. Offset and end are multiples of 4096, or the end is that of `from` and `to` is no
 * longer. Keeps file capabilities, but not the modification time. 0, also for no bytes; -1: EINVAL
 * it cannot be shared, so the caller must copy (part of a block, a no-copy-on-write file and an
 * ordinary one, another file system); EROFS flags forbid it; errno. */
int kest_ishare(kest_ifile_t *from, kest_ifile_t *to, int64_t offset, int64_t len);

#define KEST_BLOCK_MAP 86
#define KEST_BLOCK_MAP_EXTENTS 128
typedef struct kest_block_map {
  int64_t bm_start, bm_end; /* in: the requested range; out: the part that the extents cover, up to the
                               requested end, the end of the file or the last free extent */
  uint32_t bm_count;
  uint32_t bm_pad;
  struct {
    uint64_t ex_hole; /* not 0: a hole, or preallocated */
    int64_t ex_start, ex_end;
  } bm_extents[KEST_BLOCK_MAP_EXTENTS]; /* adjacent, in order */
} kest_block_map_t;
/* Fills `record`, a kest_block_map_t, with the data and holes of the regular file `fd` (open for
 * reading). `code` is KEST_BLOCK_MAP, `argument` is unused (NULL). 0, without extents if the range
 * begins at or after the end of the file; -1: EINVAL; errno. Part of the interface for other
 * programs. */
int kxfattr(int fd, int code, void *record, void *argument);

/* ---- path calls ----------------------------------------------------------------------------- */
/* These calls act like the system calls of the same names and return 0 (or a descriptor), or -1 and
 * errno, but:
 * - `active` is the fileset in which the path lies. The path begins with the path of its root
 *   directory (kest_get_pathname_from_fssnaphandle) and is resolved beneath that directory, which
 *   the handle holds open: ELOOP a component is a symbolic link; EXDEV the path leads elsewhere,
 *   through a mount or into another subvolume. The final component is never followed.
 * - `ino`, unless 0, is the inode that the caller means: ESTALE the path leads to another one.
 * - If the kernel answers EPERM because of flags of the object or its parent directory, errno is
 *   EROFS.
 * - A nested subvolume is never removed (rmdir of a junction: EPERM). */
int kest_unlink(kest_fssnap_handle_t *active, const char *path, uint64_t ino);
int kest_rmdir(kest_fssnap_handle_t *active, const char *path, uint64_t ino);
/* EEXIST: `to` exists. */
int kest_rename_noreplace(kest_fssnap_handle_t *active, const char *from, const char *to, uint64_t ino);
/* The same for the nested fileset `id`, which can be read-only. ESTALE: `from` is another object. */
int kest_move_junction(kest_fssnap_handle_t *active, const char *from, const char *to, uint64_t id);
/* Keeps file capabilities. */
int kest_truncate(kest_fssnap_handle_t *active, const char *path, int64_t size, uint64_t ino);
/* kest_mkdir and kest_mknod: ESTALE the new object was replaced before its mode was set. */
int kest_mkdir(kest_fssnap_handle_t *active, const char *path, mode_t mode);
int kest_mknod(kest_fssnap_handle_t *active, const char *path, mode_t mode, dev_t device);
int kest_symlink(kest_fssnap_handle_t *active, const char *target, const char *path);
int kest_link(kest_fssnap_handle_t *active, const char *from, const char *to, uint64_t ino);

/* From now on resolves paths below `path` beneath the directory `fd` of the fileset, which is
 * duplicated, whatever is at `path` then: users with write access to its parent directory can
 * replace it. One anchor at a time. -1: EXDEV `fd` is no directory of the fileset; errno. */
int kest_anchor(kest_fssnap_handle_t *active, const char *path, int fd);

/* ---- paths and descriptors ------------------------------------------------------------------ */
/* Paths are resolved like those above and can be of any length: a path of less than 4096 bytes in
 * the fileset can be longer through a snapshot or a temporary location. `handle` is the fileset or
 * snapshot in which the path lies. */

/* Returns an O_PATH descriptor, close-on-exec, of the object at `path`, without following its final
 * component. */
int kest_open_path(kest_fssnap_handle_t *handle, const char *path);
int kest_lstat(kest_fssnap_handle_t *handle, const char *path, struct stat *st);
/* Returns a close-on-exec descriptor of an open inode, for calls that accept O_PATH descriptors. */
int kest_path_descriptor(const kest_ifile_t *file);
/* kest_set_times_path for any descriptor (O_PATH suffices). */
int kest_fset_times(int fd, int flags, const kest_timestruc64_t times[4]);

#ifdef __cplusplus
}
#endif
#endif
