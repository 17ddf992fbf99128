/* kest.h - the file system's client library.
 *
 * A handle names a fileset or one of its snapshots (on btrfs: a subvolume, or a related one). Inode
 * numbers are those of the file system; a fileset and its snapshots share them.
 *
 * Conventions of every call below:
 * - Sizes and offsets are bytes unless stated. Times are seconds and nanoseconds since 1970.
 * - A failing call returns NULL or -1 and sets errno to a value other than 0, always.
 * - Handles, scans and open inodes belong to the caller until the matching free or close; records
 *   returned through a pointer (attributes, directory entries) belong to the scan or inode that
 *   returned them and are valid until its next call.
 * - Not thread-safe per object; different objects may be used by different threads.
 */
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
  uint64_t ia_generation; /* creation transaction, whole */
  uint32_t ia_mode;       /* st_mode encoding */
  uint32_t ia_xattr;      /* 0 exactly when kest_igetattrsx would give an empty blob */
  int64_t ia_nlink;       /* 0: the inode is gone (deleted since the snapshot) */
  int64_t ia_size;
  uint64_t ia_uid;
  uint64_t ia_gid;
  uint32_t ia_rdev; /* high half: device number above its low 8 bits; low half: the low 8 bits,
                       so 0x00040001 is device 4:1; minors above 4095: use kest_idevice */
  uint32_t ia_pad;
  kest_timestruc64_t ia_atime, ia_mtime, ia_ctime, ia_createtime;
} kest_iattr64_t;

/* An open inode. Only the fields named here are for callers. */
typedef struct kest_ifile {
  uint64_t if_inode;
  uint32_t if_kind; /* KEST_IFILE_KIND while open, 0 after the close */
  uint32_t if_pad0;
  uint16_t if_gen16; /* offset 16: generation, low 16 bits */
  uint16_t if_pad1;
  uint32_t if_pad2;
  uint64_t if_size; /* offset 24: bytes at the time of the open */
  uint32_t if_pad3;
  uint32_t if_mode;       /* offset 36: st_mode encoding */
  uint64_t if_generation; /* whole generation */
} kest_ifile_t;
#define KEST_IFILE_KIND 0x4b454946u

typedef struct kest_direntx64 {
  uint64_t d_ino;  /* of a junction: its subvolume id */
  uint64_t d_gen;  /* generation of the inode; 0 where the call did not have to look it up (most
                      entries but directories, and those that only the snapshot has) */
  uint16_t d_type; /* DT_* values; KEST_DT_SNAP added for an entry that only the snapshot has */
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

/* Handle for `fileset` of the mounted file system `device` (any path on it, or its block device), or,
 * with `snapshot` not NULL, for that snapshot of the fileset. A fileset is named by its path below the
 * top of the file system, with or without a leading slash ("/" the top itself), a snapshot by the last
 * component of its path, or by its path below the top where that is ambiguous. Both are looked for over
 * all mounts of the file system.
 * NULL: ENODEV the device is no mounted file system of a known kind, ENOENT no such fileset or
 * snapshot, EINVAL no snapshot of the fileset, or an ambiguous name, ENXIO no mount shows it;
 * kest_error_text() says more. */
kest_fssnap_handle_t *kest_get_fset_snaphandle_by_name(const char *device, const char *fileset,
                                                       const char *snapshot);
void kest_free_fssnaphandle(kest_fssnap_handle_t *handle);

/* One sentence about the last handle or scan failure of this thread, without a final full stop or
 * newline; strerror(errno) where there is none to add. Valid until the next call. */
const char *kest_error_text(void);

/* 0 and the number of the fileset or snapshot; -1 EINVAL. */
int kest_get_fssnapid_from_fssnaphandle(const kest_fssnap_handle_t *handle, kest_snapid_t *id);

/* Absolute path of the root directory through one of its mounts, no trailing slash ("/" where it is the
 * root of the machine); NULL EINVAL. */
const char *kest_get_pathname_from_fssnaphandle(const kest_fssnap_handle_t *handle);

/* 1 when the fileset or snapshot can be written, 0 when it or the mount is read-only, -1 errno. */
int kest_is_writable(const kest_fssnap_handle_t *handle);

/* File-system figures; f_bsize is 262144. -1: errno of statfs. */
int kest_statfs64(const char *path, kest_statfs64_t *buf);

/* Bytes that the file system still has for what it keeps about files (inodes, names, extents), besides
 * its own reserve. -1: errno. */
int64_t kest_metadata_room(const kest_fssnap_handle_t *handle);

/* 1 when the entry `name` of the directory `path` is a quota file of the file system, which is never
 * restored. Always 0: btrfs keeps its quotas in a tree. */
int kest_is_quota_file(const kest_fssnap_handle_t *handle, const char *path, const char *name);

/* For a program that is about to restore the fileset it may itself run from: 1 when the file at
 * `path` lies outside the fileset, or the snapshot holds the same, unchanged file under the same
 * name; 0 when the restore would remove or change it; -1 errno of stat. */
int kest_file_survives(const kest_fssnap_handle_t *active, const kest_fssnap_handle_t *snap,
                       const char *path);

/* 1 and the first node of the comma-separated list that is not this machine ("all", "localhost", its
 * host name with or without the domain), cut to `size` bytes; 0 when all of them are. */
int kest_other_node(const char *nodes, char *node, size_t size);

/* For a restore that is about to begin, `scan` a difference scan of both: 1 and the mount point (cut to
 * `size` bytes) of something mounted on a directory or file of the fileset, or of the snapshot, that
 * the restore would have to enter, change, rename or remove; 0 when nothing is. Mounts on objects that
 * the restore leaves alone, and below directories that it only renames, do not count. -1: errno. */
int kest_mount_in_the_way(const kest_fssnap_handle_t *active, const kest_fssnap_handle_t *snap,
                          kest_iscan_t *scan, char *point, size_t size);

/* For a restore that is about to begin, as above: calls visit(arg, kind, path) for every object of the
 * difference that it cannot treat like others; `path` is the object's in the fileset, absolute. A file
 * that has to change is tried for writing, which breaks leases on it, but nobody is waited for. 0; -1
 * errno. */
#define KEST_OB_RUNS                                                                      \
  1u /* a program that runs: its data have to change, and the kernel lets nobody write to \
        it. From now on kest_idifference says KEST_DI_RUNS of it. */
#define KEST_OB_SWAP 2u /* active swap space: the kernel lets nobody write to, rename or remove it */
#define KEST_OB_ACL                                                                      \
  3u /* it has an access control list, and the file system is mounted without them; told \
        of the first one alone */
int kest_find_obstacles(const kest_fssnap_handle_t *active, const kest_fssnap_handle_t *snap,
                        kest_iscan_t *scan, void (*visit)(void *arg, unsigned kind, const char *path),
                        void *arg);

/* ---- inode scans ---------------------------------------------------------------------------- */

/* Opens a scan of the handle's inodes; costs microseconds, nothing is read before the first question.
 * `prev` NULL: every inode. `prev` a snapshot id: the difference of the fileset against that
 * snapshot, deleted inodes included. `max_ino`, if not NULL, receives the largest inode number that
 * either tree holds (without `prev`: the fileset or the snapshot that this process named last).
 * NULL: EINVAL unrelated snapshot, errno. */
kest_iscan_t *kest_open_inodescan64(kest_fssnap_handle_t *handle, const kest_snapid_t *prev,
                                    uint64_t *max_ino);
void kest_close_inodescan(kest_iscan_t *scan);

/* 0 and the next inode in increasing number, each once, up to and including `end_ino`; 0 and NULL at
 * the end. An inode is in a difference when identity (generation and creation time), ctime or
 * sequence differ between the trees, or only one tree has it; one whose every restorable property
 * (size, mode, owner, links, names, mtime, flags, xattrs, data) is equal all the same is left out,
 * and so are twins (below). Of an inode of a difference the scan gives ia_inode, and ia_nlink 0 where
 * the fileset had it no more when the difference was computed, else 1; kest_stat_inode64 has the rest.
 * The root directory may be among them. A difference commits the file system before it is computed; a
 * full scan shows what is committed. -1: errno. */
int kest_next_inode64(kest_iscan_t *scan, uint64_t end_ino, const kest_iattr64_t **attr);

/* Two inodes are twins where only the snapshot has the one and only the fileset the other (the number
 * of one may be that of another file in the other tree), and nothing but the number, the generation,
 * and the times of change and creation tells them apart: every restorable property is equal, and the
 * names in the same directories; clones have the same parent, and everything in directories is equal,
 * down to the last file. In all of this twins count as one: a tree that was made again is a tree of
 * twins. Data are compared by their extents, and read where these differ (of clones, they are another
 * file then). Twins are not in the difference: no call below reports them, and what differs by them
 * alone is equal.
 *
 * What the difference scan knows of an inode, as it was when the difference was computed (at the first
 * question): 0 where it is not in the difference, else KEST_DI_* bits, one of the first two among them.
 * Costs no look at the file system. -1: errno. */
#define KEST_DI_ACTIVE 0x1   /* the fileset has an inode of this number, with a name */
#define KEST_DI_SNAPSHOT 0x2 /* so has the snapshot */
#define KEST_DI_REPLACED 0x4 /* both have, but it is not the same file (kest_same_file) */
#define KEST_DI_DIR 0x8      /* a directory: the fileset's, or the snapshot's where only that has one */
#define KEST_DI_LINKED 0x10  /* no directory, and with several names in either tree */
#define KEST_DI_ENTRIES 0x20 /* a directory of both, with entries that only one of them has */
#define KEST_DI_CLONE 0x40   /* a regular file of both, with clone attributes in either tree */
#define KEST_DI_RUNS 0x80    /* kest_find_obstacles found it: a program that has to be made again */
int kest_idifference(kest_iscan_t *scan, uint64_t ino);

/* 0 and the number of the active inode that is the twin of inode `ino` of the snapshot, 0 where it has
 * none. -1: errno. */
int kest_twin(kest_iscan_t *scan, uint64_t ino, uint64_t *active);

/* What a walk needs to know of an inode that is the same file in both trees, as they were when the
 * difference was computed. Costs no open file, and, in the difference, mostly no look at a tree. -1: ENOENT
 * it is not the same file in both, errno. */
typedef struct kest_change {
  uint64_t ch_size, ch_snap_size; /* bytes, of the fileset's and of the snapshot's */
  uint64_t ch_start, ch_length;   /* of a regular file: the first range below both sizes in which they
                                     differ, as kest_ireadx finds it; length 0: there is none */
  uint8_t ch_hole;                /* the snapshot's file has a hole there */
  uint8_t ch_more;                /* there are more ranges, which kest_ireadx finds */
  uint8_t ch_shareable;           /* kest_ishare can share whole blocks of the two, and the fileset's get
                                     the storage flags of the snapshot's without being emptied; 0 for all
                                     but regular files */
  uint8_t ch_regular;             /* it is a regular file */
  uint8_t ch_other_storage;       /* a regular file stored in another way than the snapshot's, which can be
                                     changed only while it is empty */
} kest_change_t;
int kest_ichange(kest_iscan_t *scan, uint64_t ino, kest_change_t *change);

/* How many inodes differ, as it was when the difference was computed. -1: errno. */
int64_t kest_difference_size(kest_iscan_t *scan);

/* Where a walk over the active fileset has to go: 1 when the active inode itself, or anything below it,
 * is in the difference, or a junction lies below it, as it was when the difference was computed; else
 * 0. -1: errno. */
int kest_leads_to_change(kest_iscan_t *scan, uint64_t ino);

/* Where the snapshot has the nested fileset `id` (the number of a junction that the difference scan
 * knows): 1, the inode number of its directory in the snapshot and its name there; 0 where the snapshot
 * does not have it. `name` holds 256 bytes. -1: errno. */
int kest_junction_home(kest_iscan_t *scan, uint64_t id, uint64_t *dir, char *name);

/* 0 and the attributes of the first inode of the scan in [ino, term_ino), or NULL when it holds none
 * (difference scan: unchanged or deleted). Full scan: attributes read at the time of the call. */
int kest_stat_inode64(kest_iscan_t *scan, uint64_t ino, uint64_t term_ino, const kest_iattr64_t **attr);

/* ---- inodes --------------------------------------------------------------------------------- */

/* Opens an inode by number, for reading and writing: its data are opened for each at the first call
 * that needs it. Device nodes and FIFOs are never opened for real. `flags` and `attr` are unused
 * (0, NULL). `link` is a path at which the inode is likely to stand in the tree, or NULL: a file system that
 * can forget the numbers of deleted inodes looks there first. NULL: ENOENT no such inode, or one without any name. */
kest_ifile_t *kest_iopen64(kest_fssnap_handle_t *handle, uint64_t ino, int flags, const void *attr,
                           const char *link);
/* The same for the regular file behind `fd`, which is open for reading and writing. The open inode
 * takes the descriptor over. NULL: EINVAL no regular file, or not open for both, EXDEV it lies in
 * another tree, ENOENT it has no name, errno; `fd` stays the caller's then. */
kest_ifile_t *kest_iopen_fd(kest_fssnap_handle_t *handle, int fd);
/* The object at `path`, of any type, opened as it stands there: a device or FIFO is not opened for
 * real, and the final component is not followed. Resolved like the path calls below. NULL: errno. */
kest_ifile_t *kest_iopen_path(kest_fssnap_handle_t *handle, const char *path);
/* Makes a regular file at `path` (exactly of this mode, the caller's), with everything as kest_open_file
 * with O_CREAT | O_EXCL, and opens it for reading and writing. NULL: EEXIST something has the name, EROFS
 * the flags of the directory forbid it, errno. */
kest_ifile_t *kest_icreate(kest_fssnap_handle_t *active, const char *path, mode_t mode);
/* The active inode that is the same file as `snap`, an open inode of a snapshot: opened by number and
 * generation, so that it is no other, and, a regular file, at once for reading and writing. NULL:
 * ENOENT there is none any more, or it has no name, errno. */
kest_ifile_t *kest_iopen_same(kest_fssnap_handle_t *active, const kest_ifile_t *snap);
int kest_iclose(kest_ifile_t *file);

/* What is known of an open inode, read once. */
typedef struct kest_facts {
  kest_iattr64_t attr;
  uint32_t protection; /* KEST_FP_*, of files and directories */
  uint32_t has;        /* KEST_HAS_* */
} kest_facts_t;
/* The inode flags that no attribute blob carries: the two that forbid changes, and others that can be
 * set with chattr(1). */
#define KEST_FP_IMMUTABLE 0x1u
#define KEST_FP_APPEND_ONLY 0x2u
#define KEST_FP_NO_ATIME 0x4u
#define KEST_FP_NO_DUMP 0x8u
#define KEST_FP_SYNC 0x10u
#define KEST_FP_DIRSYNC 0x20u    /* of directories alone */
#define KEST_HAS_BLOB 0x1u       /* kest_igetattrsx would give something (attr.ia_xattr) */
#define KEST_HAS_ACL 0x2u        /* an access or default ACL */
#define KEST_HAS_CAPABILITY 0x4u /* security.capability */
#define KEST_HAS_CLONE 0x8u      /* a clone attribute */
/* 1 when inode `ino` of the active fileset was made after inode `than`, which is there; 0; -1: errno. */
int kest_younger(kest_fssnap_handle_t *active, uint64_t ino, uint64_t than);

/* Whatever the process has done to the fileset through this handle outlives the process, should it be killed
 * after this call. Costs nothing where the kernel holds it already. 0; -1: errno, also of an earlier write
 * that could not be carried out. */
int kest_settle(kest_fssnap_handle_t *active);

/* Locks the fileset for one restore, whatever mount or node others come by. Returns a descriptor,
 * close-on-exec, and the lock lasts as long as a process has it open. -1: EWOULDBLOCK somebody holds the
 * lock, errno. kest_remove_lock takes away what the lock stands on, before its descriptor is closed; 0, -1
 * errno. */
int kest_lock(kest_fssnap_handle_t *active);
int kest_remove_lock(kest_fssnap_handle_t *active);

/* Fills in the facts as they are now. Of an inode of a read-only snapshot they were read when it was
 * opened, and this costs nothing. -1: errno. */
int kest_ifacts(const kest_ifile_t *file, kest_facts_t *facts);

/* 1 when the two open inodes are the same file: number, whole generation, creation time and file
 * type are equal; 0 otherwise. */
int kest_same_file(const kest_ifile_t *a, const kest_ifile_t *b);

/* Calls each(arg, path) for every path of inode `ino` below the handle's root, of any length, without
 * leading slash ("" the root itself), in the order of the directories' inode numbers. Snapshot: from
 * its tree. Active: what the committed tree holds and the kernel's look-up confirms. -2 as soon as
 * `each` returns non-zero; 0; -1: ENOENT no such inode, or none with such a path, errno. */
int kest_inode_names(kest_fssnap_handle_t *handle, uint64_t ino,
                     int (*each)(void *arg, const char *path), void *arg);

/* Attributes of an open inode as they are now. -1: errno. */
int kest_istat(const kest_ifile_t *file, kest_iattr64_t *attr);

/* Plain fstat of an open inode, as it is now. -1: errno. */
int kest_ifstat(const kest_ifile_t *file, struct stat *st);

/* The calls of similar names below, on an open inode: owner (keeps set-user-id, set-group-id and file
 * capabilities; EPERM stays EPERM), times, the twelve mode bits, opaque ACL, inode flags
 * (KEST_FP_*, all of them set as given), and one extended attribute by name. -1: errno. */
int kest_ichown(kest_ifile_t *file, uint64_t uid, uint64_t gid);
int kest_ichmod(kest_ifile_t *file, mode_t mode);
int kest_iset_times(kest_ifile_t *file, int flags, const kest_timestruc64_t times[4]);
int kest_igetacl(kest_ifile_t *file, int flags, void *buf);
int kest_iputacl(kest_ifile_t *file, int flags, const void *buf);
int kest_iset_protection(kest_ifile_t *file, uint32_t protection);
/* Bytes of the value; -1 ENODATA absent, ERANGE `size` is too small, errno. */
int64_t kest_igetxattr(const kest_ifile_t *file, const char *name, void *buf, size_t size);
int kest_isetxattr(kest_ifile_t *file, const char *name, const void *value, size_t size);

/* Device number of a device inode, whole. -1 EINVAL on other types. */
int kest_idevice(const kest_ifile_t *file, unsigned *major_no, unsigned *minor_no);

/* Reads file data, or the target of a symbolic link (whole, if `size` is large enough; not
 * NUL-terminated), at *offset and advances it. Bytes read, 0 at the end, -1 errno. */
int64_t kest_iread(kest_ifile_t *file, void *buf, int64_t size, int64_t *offset);

/* Incremental read.
 * Without `buf` (size 0): finds the next range at or after *offset and below `term` (0: end of file)
 * in which `file` differs across `scan`, by comparing extent maps, never data; moves *offset to its
 * start, sets *hole to 1 when the snapshot's file has a hole there (preallocated counts as a hole),
 * and returns the length; ranges are split where the hole flag changes. 0: none left.
 * Difference scan: the file is the active one, compared with the snapshot's below both sizes. Full
 * scan: every range of the file, data and holes.
 * With `buf`: reads up to `size` bytes at *offset (`scan`: the full scan of the file's tree), at most
 * one kind; *offset stays at the start of what was returned; with *hole 1 the buffer is not filled.
 * -1: errno. */
int64_t kest_ireadx(kest_ifile_t *file, kest_iscan_t *scan, void *buf, int64_t size, int64_t *offset,
                    int64_t term, int *hole);

/* Writes `len` bytes at `offset`, or, with `hole` 1 and `buf` NULL, makes the range a hole: punching
 * where data was, writing nothing where a hole is, extending the size where the range ends beyond
 * it. File capabilities are kept. Returns len, or fewer or -1 with errno: EROFS where the immutable
 * or append-only flag forbids it. */
int64_t kest_iwritex(kest_ifile_t *file, const void *buf, int64_t len, int64_t offset, int hole);

/* ---- directories ---------------------------------------------------------------------------- */

/* Next entry of an open directory, "." and ".." included; the listing is taken whole at the first
 * call. Entries that a restore leaves alone are omitted: snapshots of the fileset, .snapshots and, at
 * the top of the file system, .unlinked; junctions whose place did not change since the snapshot, and
 * in the snapshot their stubs. An active directory is compared with the snapshot that this process
 * opened last, as a handle or for a scan. 0 and NULL at the end; -1 errno. */
int kest_ireaddir64(kest_ifile_t *dir, const kest_direntx64_t **entry);

/* Next entry by (name, inode, generation) that only one of the two directories of this inode number
 * holds (twins count as one inode), across a difference scan; `dir` is the active one. Entries of the
 * snapshot carry KEST_DT_SNAP; a name that now means another object comes twice. Entries come by name;
 * those of a directory that only the fileset has come in the order of the directory. The listing is
 * taken whole at the first call and checked against the live directory: entries that are gone by then,
 * and those that have come back, are left out. A directory whose entries are equal costs nothing. */
int kest_ireaddirx64(kest_ifile_t *dir, kest_iscan_t *scan, const kest_direntx64_t **entry);

/* Like kest_ireaddir64, but only the entries of the active directory that matter to a walk: inodes of
 * the difference, directories that lead to one (kest_leads_to_change), and junctions; by inode number,
 * the junctions first. An entry that by now means another inode, or is gone, is left out. Costs what
 * there is to return, whatever the size of the directory. */
int kest_ireaddirc64(kest_ifile_t *dir, kest_iscan_t *scan, const kest_direntx64_t **entry);

/* ---- attributes ----------------------------------------------------------------------------- */

/* All user.*, trusted.* and security.* attributes (clone attributes apart) and the per-file
 * compression and no-copy-on-write flags as one opaque blob. `flags` 32 (64 adds nothing). 0 and
 * *attr_size (0: nothing to restore, as ia_xattr says); -1 ENOSPC and the size needed in
 * *attr_size; -1 errno. */
int kest_igetattrsx(kest_ifile_t *file, int flags, void *buf, int size, int *attr_size);

/* Makes the attributes those of the blob, removing every other; NULL removes all. -1: EPERM
 * (immutable, append-only), errno. `path` is unused (NULL). */
int kest_iputattrsx(kest_ifile_t *file, int flags, const void *buf, const char *path);

/* Opaque ACL: access ACL, default ACL of a directory, and the twelve mode bits. `buf` begins with its
 * length (int32), version (uint16, 0), type (uint8, 1), which the caller sets and put ignores but for
 * the length. `path` is not followed. getacl -1 ENOSPC: the length field now holds the size needed.
 * putacl on a symbolic link does nothing. -1: EPERM on flags, errno. */
int kest_getacl(const char *path, int flags, void *buf);
int kest_putacl(const char *path, int flags, const void *buf);

/* Sets times[0] access and times[1] modification; times[2] change and times[3] creation cannot be set
 * on btrfs and are ignored. `flags`: bit 0 access, bit 1 modification. Links are not followed. */
int kest_set_times_path(const char *path, int flags, const kest_timestruc64_t times[4]);

/* Control request on a descriptor, O_PATH included. `request`: header of four int32 (total length,
 * version 1, error offset 0, reserved 0), then directives of 24 bytes: int32 length, int32 type, int32
 * value, int32 fourth, 8 bytes 0. Types: 5000/5001 set/get immutable, 5004/5005 set/get append-only;
 * get fills the value with 0 or 1. Type 6001 (read an attribute) has a layout of its own: int32 length,
 * int32 6001, int32 name length, int32 value length, int32 flags, int32 reason (27 absent, 29 value
 * buffer too small, then the value length is what is needed), name padded to 8, value. Attributes of
 * the file system's own are named without "trusted.", as kest.CLONE.
 * Flags requests on an object that has no such flags (FIFO, device): set does nothing, get gives 0.
 * -1: EINVAL malformed, errno. */
int kest_fcntl(int fd, void *request);

/* ---- clones --------------------------------------------------------------------------------- */

/* A clone parent is a read-only regular file whose blocks its clones share; a clone can be a parent in
 * turn. The relation is held in two attributes of the file system's own, which attribute blobs neither
 * carry nor remove and the difference compares: CLONE (16 bytes: parent inode number, big-endian; byte
 * 12 flags 0x80 parent, 0x40 the parent lives in a snapshot; bytes 14, 15 depth, big-endian, 0 for a
 * file that is no clone itself) and CLONESNAP (8 bytes; bytes 4 to 7 snapshot id, big-endian).
 *
 * A parent carries the immutable flag: writing and truncation give EROFS, attribute changes EPERM,
 * until the flag is cleared. Its names may come and go all the same: kest_unlink, kest_rename_noreplace
 * and kest_link lift the flag for the step. */

/* Turns a regular file into a clone parent, keeping access and modification time and, if it is a clone,
 * its parent and depth. A parent that lost its immutable flag gets it again (0). `snap_path` is unused
 * (NULL). -1: EROFS it is one already, its flags forbid it or its tree is read-only, EINVAL no regular
 * file, EBUSY somebody, the caller included, has it open for writing, errno. */
int kest_clone_snap(const char *path, const char *snap_path);

/* Creates `path` (mode 0600, caller's owner) as a clone of the clone parent `parent_path`, sharing all
 * its blocks, one level deeper than the parent. It appears whole or not at all. The parent may lie in a
 * snapshot of the fileset of `path`, or in another relative, which the clone then names. -1: EEXIST,
 * EINVAL `parent_path` is no clone parent, EROFS the flags of the directory forbid it, EXDEV another
 * file system or an unrelated tree, EOVERFLOW too deep, errno. */
int kest_clone_copy(const char *parent_path, const char *path);

/* The same for open inodes; `path` lies in the fileset `active` and is resolved like those of the path
 * calls. */
int kest_iclone_snap(kest_ifile_t *file);
int kest_iclone_copy(kest_ifile_t *parent, kest_fssnap_handle_t *active, const char *path);

/* The clone attributes of an open inode: 1 and both (the second zeroed where there is none; each may be
 * NULL); 0 neither clone nor parent, or an attribute too short to be one; -1 errno. */
int kest_iclone_attr(kest_ifile_t *file, uint8_t clone[16], uint8_t clone_snap[8]);

/* Sets the parent's inode number in the attribute of a clone of the active fileset; access and
 * modification time and the flags are kept. -1: EINVAL no clone, errno. */
int kest_iset_clone_parent(kest_ifile_t *file, uint64_t parent);

/* Shares bytes of `from` (any tree of the same file system) with `to` at the same offset: no data
 * moves, holes and preallocation included; `to` grows where the range ends beyond it. Offset and end
 * are multiples of 4096, or the end is the end of `from` and `to` is no longer. File capabilities are
 * kept, the modification time is not. 0, also for no bytes; -1: EINVAL it cannot be shared (a part of a
 * block, a no-copy-on-write file against an ordinary one, another file system), which calls for a copy,
 * EROFS the flags forbid it, errno. */
int kest_ishare(kest_ifile_t *from, kest_ifile_t *to, int64_t offset, int64_t len);

#define KEST_BLOCK_MAP 86
#define KEST_BLOCK_MAP_EXTENTS 128
typedef struct kest_block_map {
  int64_t bm_start, bm_end; /* in: the range asked for; out: the part that the extents cover, which ends
                               at bm_end, at the end of the file or where the table was full */
  uint32_t bm_count;
  uint32_t bm_pad;
  struct {
    uint64_t ex_hole; /* not 0: a hole, or preallocated */
    int64_t ex_start, ex_end;
  } bm_extents[KEST_BLOCK_MAP_EXTENTS]; /* adjoining, in order */
} kest_block_map_t;
/* Fills `record`, a kest_block_map_t, with what lies where in the regular file `fd` (open for reading).
 * `code` is KEST_BLOCK_MAP, `argument` unused (NULL). 0, with no extents where the range begins at or
 * after the end of the file; -1: EINVAL, errno. */
int kxfattr(int fd, int code, void *record, void *argument);

/* ---- path calls ----------------------------------------------------------------------------- */
/* The plain system call, 0 (or a descriptor) or -1 errno, with these differences:
 * - `active` is the fileset that the path lies in. The path begins with the path of its root directory
 *   (kest_get_pathname_from_fssnaphandle) and is resolved beneath that directory, which the handle
 *   holds open: ELOOP where a component is a symbolic link, EXDEV where the path leads elsewhere, over
 *   a mount or into another subvolume. The final component is never followed.
 * - `ino`, where it is not 0, is the inode that is meant: ESTALE where the path names another one.
 * - Where the kernel answers EPERM and the flags of the object or its parent directory are the reason,
 *   errno is EROFS.
 * - A nested subvolume is never removed (rmdir of a junction: EPERM). */
int kest_unlink(kest_fssnap_handle_t *active, const char *path, uint64_t ino);
int kest_rmdir(kest_fssnap_handle_t *active, const char *path, uint64_t ino);
/* EEXIST where `to` exists. */
int kest_rename_noreplace(kest_fssnap_handle_t *active, const char *from, const char *to, uint64_t ino);
/* The same for the nested fileset `id`, also a read-only one: ESTALE where `from` is something else. */
int kest_move_junction(kest_fssnap_handle_t *active, const char *from, const char *to, uint64_t id);
/* Keeps file capabilities. */
int kest_truncate(kest_fssnap_handle_t *active, const char *path, int64_t size, uint64_t ino);
/* open(2) with `flags` and `mode`; O_CLOEXEC and O_NOFOLLOW are added, and the umask does not apply.
 * With O_CREAT, what exists is opened only if it is a regular file: ELOOP a symbolic link, EISDIR a
 * directory, EEXIST anything else. Returns a descriptor. */
int kest_open_file(kest_fssnap_handle_t *active, const char *path, int flags, mode_t mode);
/* kest_mkdir and kest_mknod: ESTALE where the new object was exchanged before its mode was set. */
int kest_mkdir(kest_fssnap_handle_t *active, const char *path, mode_t mode);
int kest_mknod(kest_fssnap_handle_t *active, const char *path, mode_t mode, dev_t device);
int kest_symlink(kest_fssnap_handle_t *active, const char *target, const char *path);
int kest_link(kest_fssnap_handle_t *active, const char *from, const char *to, uint64_t ino);

/* From now on paths below `path` are resolved beneath the directory `fd` of the fileset (duplicated),
 * whatever is at `path` by then: users who can write to its parent directory can exchange it. One at a
 * time. -1: EXDEV `fd` is no directory of the fileset, errno. */
int kest_anchor(kest_fssnap_handle_t *active, const char *path, int fd);

/* ---- paths and descriptors ------------------------------------------------------------------ */
/* Paths are resolved like those above and can be of any length: one of less than 4096 bytes in the
 * fileset can be longer through a snapshot or a temporary location. `handle` is the fileset or snapshot
 * that the path lies in. */

/* O_PATH descriptor, close-on-exec, of the object at `path`; its final component is not followed. */
int kest_open_path(kest_fssnap_handle_t *handle, const char *path);
int kest_lstat(kest_fssnap_handle_t *handle, const char *path, struct stat *st);
/* Descriptor, close-on-exec, of an open inode: for what an O_PATH descriptor is good for. */
int kest_path_descriptor(const kest_ifile_t *file);
/* kest_getacl, kest_putacl and kest_set_times_path on any descriptor, O_PATH included. */
int kest_fgetacl(int fd, int flags, void *buf);
int kest_fputacl(int fd, int flags, const void *buf);
int kest_fset_times(int fd, int flags, const kest_timestruc64_t times[4]);
/* Sets the owner of the object behind any descriptor, O_PATH included. Keeps set-user-id, set-group-id
 * and file capabilities. EPERM stays EPERM. */
int kest_fchown(int fd, uint64_t uid, uint64_t gid);

#ifdef __cplusplus
}
#endif
#endif
