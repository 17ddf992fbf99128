#include "cephfs/inode_compare.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <algorithm>
#include <cerrno>
#include <climits>
#include <map>
#include <memory>

#include "cephfs/file_objects.h"
#include "cephfs/names.h"
#include "filesystem/blob_format.h"

namespace kest {

namespace {

constexpr size_t kBuffer = 4 << 20;
constexpr const char *kUnlisted[] = {"system.posix_acl_access", "system.posix_acl_default", kDirLayout};

bool sameTime(const struct timespec &a, const struct timespec &b) {
  return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

int readXattrs(const InodeRef &inode, mode_t mode, std::map<std::string, std::string> *xattrs) {
  CephClient &client = *inode.client();
  std::vector<std::string> names;
  if (int rc = client.listXattrs(inode, &names); rc < 0) return rc;
  if (!S_ISLNK(mode)) names.insert(names.end(), std::begin(kUnlisted), std::end(kUnlisted));
  for (const std::string &name : names) {
    std::string value;
    const int rc = client.readXattr(inode, name.c_str(), &value);
    if (rc == -ENODATA || rc == -EOPNOTSUPP) continue;
    if (rc < 0) return rc;
    if (!value.empty() || !name.starts_with("system.")) xattrs->emplace(name, std::move(value));
  }
  if (S_ISREG(mode)) return readLayoutText(inode, &(*xattrs)[kFileLayout]);
  return 0;
}

// An inode opened for reading, closed with the object.
class Reader {
 public:
  explicit Reader(const InodeRef &inode) : inode_(inode) {}
  ~Reader() {
    if (file_ != nullptr) ceph_ll_close(inode_.client()->mount(), file_);
  }
  // Bytes, fewer at the end; -errno.
  int64_t read(uint64_t offset, uint64_t size, char *buf) {
    CephClient &client = *inode_.client();
    if (file_ == nullptr) {
      const int rc = ceph_ll_open(client.mount(), inode_.get(), O_RDONLY, &file_, client.perms());
      if (rc < 0) return rc;
    }
    uint64_t done = 0;
    while (done < size) {
      const int n = ceph_ll_read(client.mount(), file_, static_cast<int64_t>(offset + done),
                                 size - done, buf + done);
      if (n < 0) return n;
      if (n == 0) break;
      done += static_cast<uint64_t>(n);
    }
    return static_cast<int64_t>(done);
  }

 private:
  const InodeRef &inode_;
  ::Fh *file_ = nullptr;
};

// Makes the servers call in data of the file that other clients have not written back yet. They do so
// for a reader, but not for a client that only asks for attributes.
int callInData(const InodeRef &file) {
  char byte;
  return static_cast<int>(std::min<int64_t>(Reader(file).read(0, 1, &byte), 0));
}

// 1, 0 or -errno.
int sameData(const InodeRef &now, const InodeRef &then, const std::vector<FileRange> &ranges) {
  Reader a(now), b(then);
  auto one = std::make_unique_for_overwrite<char[]>(kBuffer);
  auto other = std::make_unique_for_overwrite<char[]>(kBuffer);
  for (const FileRange &range : ranges) {
    for (uint64_t at = range.start, end = range.start + range.length; at < end;) {
      const uint64_t want = std::min<uint64_t>(kBuffer, end - at);
      const int64_t n = a.read(at, want, one.get());
      if (n < 0) return static_cast<int>(n);
      const int64_t m = b.read(at, want, other.get());
      if (m < 0) return static_cast<int>(m);
      if (n != m || !std::equal(one.get(), one.get() + n, other.get())) return 0;
      if (n == 0) break;
      at += static_cast<uint64_t>(n);
    }
  }
  return 1;
}

}  // namespace

bool sameListing(const CephStat &now, const CephStat &then) {
  return sameTime(now.stx_ctime, then.stx_ctime) && now.stx_version == then.stx_version &&
         sameTime(now.stx_mtime, then.stx_mtime) && now.stx_mode == then.stx_mode &&
         now.stx_uid == then.stx_uid && now.stx_gid == then.stx_gid && now.stx_rdev == then.stx_rdev &&
         (S_ISDIR(now.stx_mode) || (now.stx_nlink == then.stx_nlink && now.stx_size == then.stx_size));
}

int sameProperties(const CephRoot &active, const CephRoot &snapshot, uint64_t ino, const CephStat &now,
                   const CephStat &then, const InodeRef &dir_then, const std::string &name) {
  const bool directory = S_ISDIR(now.stx_mode);
  if (now.stx_mode != then.stx_mode || now.stx_uid != then.stx_uid || now.stx_gid != then.stx_gid ||
      now.stx_rdev != then.stx_rdev || !sameTime(now.stx_mtime, then.stx_mtime))
    return 0;
  if (!directory && (now.stx_nlink != then.stx_nlink || now.stx_size != then.stx_size)) return 0;
  InodeRef here, there;
  CephStat st;
  int rc = active.client->byNumber(ino, kActive, &here, &st);
  if (rc == 0 && name.empty()) there = snapshot.inode.another();
  if (rc == 0 && !name.empty()) rc = snapshot.client->lookUp(dir_then, name, &there, &st);
  if (rc == 0 && !there) rc = -ENOENT;
  if (rc == -ESTALE || rc == -ENOENT) return 0;
  std::map<std::string, std::string> xattrs_now, xattrs_then;
  if (rc == 0) rc = readXattrs(here, now.stx_mode, &xattrs_now);
  if (rc == 0) rc = readXattrs(there, then.stx_mode, &xattrs_then);
  if (rc < 0 || xattrs_now != xattrs_then) return std::min(rc, 0);
  if (!S_ISREG(now.stx_mode)) return 1;
  std::vector<FileRange> ranges;
  if (now.stx_size > 0) rc = callInData(here);
  if (rc == 0) rc = diffObjects(here, ino, snapshot.snapid, 0, now.stx_size, SIZE_MAX, &ranges);
  if (rc < 0 || ranges.empty()) return rc < 0 ? rc : 1;
  return sameData(here, there, ranges);
}

namespace {

int readTarget(const InodeRef &link, std::string *target) {
  CephClient &client = *link.client();
  char buffer[PATH_MAX];
  const int length =
      ceph_ll_readlink(client.mount(), link.get(), buffer, sizeof buffer, client.perms());
  if (length >= 0) target->assign(buffer, static_cast<size_t>(length));
  return std::min(length, 0);
}

// Holes and data of two files of one size. 1, 0 or -errno.
int sameWhole(const InodeRef &here, uint64_t ino_now, const InodeRef &there, uint64_t ino_then,
              uint64_t snapid, uint64_t size) {
  FileLayout layout;
  int rc = readLayout(here, &layout);
  if (rc == 0 && size > 0) rc = callInData(here);
  if (rc < 0) return rc;
  std::vector<FileRange> data;
  for (uint64_t at = 0; at < size;) {
    uint64_t stop_now, stop_then;
    bool hole_now, hole_then;
    rc = stretchOfObjects(layout, here, ino_now, kActive, at, size, &stop_now, &hole_now);
    if (rc == 0)
      rc = stretchOfObjects(layout, there, ino_then, snapid, at, size, &stop_then, &hole_then);
    if (rc < 0) return rc;
    if (hole_now != hole_then) return 0;
    const uint64_t stop = std::min(stop_now, stop_then);
    if (!hole_now) data.push_back({at, stop - at, false});
    at = stop;
  }
  return data.empty() ? 1 : sameData(here, there, data);
}

}  // namespace

int sameContents(const CephRoot &active, const CephRoot &snapshot, const InodeRef &here,
                 const CephStat &now, const InodeRef &there, const CephStat &then) {
  (void)active;
  std::map<std::string, std::string> xattrs_now, xattrs_then;
  int rc = readXattrs(here, now.stx_mode, &xattrs_now);
  if (rc == 0) rc = readXattrs(there, then.stx_mode, &xattrs_then);
  if (rc < 0 || xattrs_now != xattrs_then) return std::min(rc, 0);
  if (S_ISLNK(now.stx_mode)) {
    std::string target_now, target_then;
    rc = readTarget(here, &target_now);
    if (rc == 0) rc = readTarget(there, &target_then);
    return rc < 0 ? rc : target_now == target_then;
  }
  if (!S_ISREG(now.stx_mode)) return 1;
  return sameWhole(here, now.stx_ino, there, then.stx_ino, snapshot.snapid, now.stx_size);
}

int describeChange(const CephRoot &active, const CephRoot &snapshot, uint64_t ino,
                   kest_change_t *change) {
  *change = {};
  InodeRef here, there;
  CephStat now, then;
  int rc = active.client->byNumber(ino, kActive, &here, &now);
  if (rc == 0) rc = snapshot.client->byNumber(ino, snapshot.snapid, &there, &then);
  // The servers may have forgotten the number.
  if (rc == -ESTALE && here) rc = findInSnapshot(snapshot, ino, &there, &then);
  if (rc == -ESTALE) return -ENOENT;
  if (rc < 0) return rc;
  if (now.stx_nlink == 0 || ((now.stx_mode ^ then.stx_mode) & S_IFMT) != 0) return -ENOENT;
  change->ch_size = now.stx_size;
  change->ch_snap_size = then.stx_size;
  change->ch_regular = S_ISREG(now.stx_mode);
  if (!change->ch_regular) return 0;
  std::string layout_now, layout_then;
  rc = readLayoutText(here, &layout_now);
  if (rc == 0) rc = readLayoutText(there, &layout_then);
  if (rc < 0) return rc;
  change->ch_other_storage = layout_now != layout_then;
  if (now.stx_size > 0)
    if (rc = callInData(here); rc < 0) return rc;
  constexpr size_t kEnough = 2;  // to know that there are more
  std::vector<FileRange> ranges;
  rc = diffObjects(here, ino, snapshot.snapid, 0, std::min(now.stx_size, then.stx_size), kEnough,
                   &ranges);
  if (rc < 0 || ranges.empty()) return rc;
  change->ch_start = ranges.front().start;
  change->ch_length = ranges.front().length;
  change->ch_hole = ranges.front().hole;
  change->ch_more = ranges.size() == kEnough;
  return 0;
}

}  // namespace kest
