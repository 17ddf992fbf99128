// Opens inodes by number; reads and writes them.
#include "libkest/open_file.h"

#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

#include "libkest/c_call.h"
#include "libkest/handle.h"

namespace kest {

namespace {

int64_t readLink(Inode &inode, void *buf, int64_t size, int64_t offset) {
  std::string target;
  if (int rc = inode.readLink(&target); rc < 0) return rc;
  const auto length = static_cast<int64_t>(target.size());
  if (offset >= length) return 0;
  const int64_t n = std::min<int64_t>(size, length - offset);
  memcpy(buf, target.data() + offset, static_cast<size_t>(n));
  return n;
}

// Keeps the known ranges if the write lies inside one: its extents still differ. After any other write
// they must be compared again.
void noteWrite(ChangedRanges *known, uint64_t begin, uint64_t end) {
  auto one = std::upper_bound(known->ranges.begin(), known->ranges.end(), begin,
                              [](uint64_t at, const FileRange &range) { return at < range.start; });
  if (one == known->ranges.begin() || std::prev(one)->start + std::prev(one)->length < end)
    known->scan = nullptr;
}

int64_t writeOrPunch(OpenFile *file, const void *buf, int64_t len, int64_t offset, bool hole,
                     int *error) {
  Inode &inode = *file->inode;
  if (int rc = inode.openForWriting(); rc < 0) return rc;
  if (int rc = file->capability.save(inode); rc < 0) return rc;
  int64_t done = len;
  if (hole) {
    if (int rc = inode.makeHole(offset, offset + len); rc < 0) return rc;
  } else {
    done = inode.write(buf, len, offset, error);
    if (done < 0) return done;
  }
  // Restore the capability now, because the process can die before it closes the file.
  if (int rc = file->capability.putBack(inode); rc < 0) return rc;
  noteWrite(&file->changed_ranges, static_cast<uint64_t>(offset), static_cast<uint64_t>(offset + len));
  return done == 0 && *error != 0 ? -*error : done;
}

}  // namespace

kest_ifile_t *handOut(std::unique_ptr<Inode> inode) {
  auto file = std::make_unique<OpenFile>();
  const InodeFacts &facts = inode->facts();
  file->if_inode = facts.ino;
  file->if_kind = KEST_IFILE_KIND;
  file->if_gen16 = static_cast<uint16_t>(facts.generation);
  file->if_size = facts.size;
  file->if_mode = facts.mode;
  file->if_generation = facts.generation;
  file->inode = std::move(inode);
  return file.release();
}

OpenFile *openFile(kest_ifile_t *file) {
  return file != nullptr && file->if_kind == KEST_IFILE_KIND ? static_cast<OpenFile *>(file) : nullptr;
}

}  // namespace kest

using namespace kest;

extern "C" {

kest_ifile_t *kest_iopen64(kest_fssnap_handle_t *handle, uint64_t ino, int, const void *,
                           const char *link) {
  kest_ifile_t *file = nullptr;
  cCall([&] {
    if (handle == nullptr) return -EINVAL;
    std::unique_ptr<Inode> inode;
    int rc = handle->tree->openInode(ino, link, &inode);
    if (rc == 0) file = handOut(std::move(inode));
    return rc;
  });
  return file;
}

kest_ifile_t *kest_iopen_same(kest_fssnap_handle_t *active, const kest_ifile_t *snap) {
  kest_ifile_t *file = nullptr;
  cCall([&] {
    const OpenFile *other = openFile(snap);
    if (active == nullptr || other == nullptr) return -EINVAL;
    std::unique_ptr<Inode> inode;
    int rc = active->tree->openSame(*other->inode, &inode);
    if (rc == 0) file = handOut(std::move(inode));
    return rc;
  });
  return file;
}

int kest_iclose(kest_ifile_t *file) {
  OpenFile *open = openFile(file);
  if (open == nullptr) {
    errno = EINVAL;
    return -1;
  }
  open->if_kind = 0;
  delete open;
  return 0;
}

int kest_same_file(const kest_ifile_t *a, const kest_ifile_t *b) {
  const OpenFile *one = openFile(a), *other = openFile(b);
  if (one == nullptr || other == nullptr) return 0;
  const InodeFacts &x = one->inode->facts(), &y = other->inode->facts();
  return x.ino == y.ino && x.generation == y.generation && x.created.tv_sec == y.created.tv_sec &&
         x.created.tv_nsec == y.created.tv_nsec && ((x.mode ^ y.mode) & S_IFMT) == 0;
}

int kest_istat(const kest_ifile_t *file, kest_iattr64_t *attr) {
  return cCall([&] {
    OpenFile *open = openFile(file);
    return open == nullptr || attr == nullptr ? -EINVAL : open->inode->readAttributes(attr);
  });
}

int kest_ifacts(const kest_ifile_t *file, kest_facts_t *facts) {
  return cCall([&] {
    OpenFile *open = openFile(file);
    if (open == nullptr || facts == nullptr) return -EINVAL;
    const int rc = open->inode->readFacts(facts);
    if (rc == 0 && (facts->has & KEST_HAS_CAPABILITY) == 0) open->capability.replace(nullptr);
    return rc;
  });
}

int kest_idevice(const kest_ifile_t *file, unsigned *major_no, unsigned *minor_no) {
  return cCall([&] {
    OpenFile *open = openFile(file);
    if (open == nullptr || !(S_ISCHR(file->if_mode) || S_ISBLK(file->if_mode))) return -EINVAL;
    struct stat st;
    int rc = open->inode->stat(&st);
    if (rc < 0) return rc;
    *major_no = major(st.st_rdev);
    *minor_no = minor(st.st_rdev);
    return 0;
  });
}

int kest_path_descriptor(const kest_ifile_t *file) {
  return cCall([=] {
    OpenFile *open = openFile(file);
    return open == nullptr ? -EINVAL : open->inode->duplicateDescriptor();
  });
}

int64_t kest_iread(kest_ifile_t *file, void *buf, int64_t size, int64_t *offset) {
  return cCall([&]() -> int64_t {
    OpenFile *open = openFile(file);
    if (open == nullptr || offset == nullptr || *offset < 0 || size < 0) return -EINVAL;
    const int64_t n = S_ISLNK(file->if_mode) ? readLink(*open->inode, buf, size, *offset)
                                             : open->inode->read(buf, size, *offset);
    if (n > 0) *offset += n;
    return n;
  });
}

int64_t kest_iwritex(kest_ifile_t *file, const void *buf, int64_t len, int64_t offset, int hole) {
  int error = 0;
  int64_t done = cCall([&]() -> int64_t {
    OpenFile *open = openFile(file);
    if (open == nullptr || offset < 0 || len < 0 || offset > INT64_MAX - len) return -EINVAL;
    if (len == 0) return 0;
    if ((buf == nullptr) != (hole != 0)) return -EINVAL;
    return writeOrPunch(open, buf, len, offset, hole != 0, &error);
  });
  if (error != 0) errno = error;
  return done;
}

}  // extern "C"
