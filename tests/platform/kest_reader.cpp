#include "platform/kest_reader.h"

#include <sys/xattr.h>

#include <stdexcept>

namespace kesttest {

namespace {

[[noreturn]] void fail(const std::string &step) {
  throw std::runtime_error(step + ": " + kest_error_text());
}

void add(std::string *text, const std::string &word) {
  if (!text->empty()) *text += ' ';
  *text += word;
}

template <typename Call>
std::string entriesBy(Call call, const char *name, const Handle &active, const Scan &scan,
                      uint64_t ino) {
  Inode dir = openInode(active, ino);
  std::string text;
  const kest_direntx64_t *entry;
  int rc;
  while ((rc = call(dir.get(), scan.get(), &entry)) == 0 && entry != nullptr)
    add(&text, std::string(entry->d_name) + ((entry->d_type & KEST_DT_SNAP) ? "@snap" : "") +
                   ((entry->d_flags & KEST_DF_JUNCTION) ? "=" + std::to_string(entry->d_ino) : ""));
  if (rc < 0) fail(name);
  return text;
}

}  // namespace

Handle openHandle(const std::string &device, const std::string &fileset, const char *snapshot) {
  Handle handle(kest_get_fset_snaphandle_by_name(device.c_str(), fileset.c_str(), snapshot));
  if (handle == nullptr) fail("open " + fileset + " " + (snapshot ? snapshot : ""));
  return handle;
}

Scan openDifference(const Handle &active, const Handle &snapshot, uint64_t *max_ino) {
  kest_snapid_t id;
  kest_get_fssnapid_from_fssnaphandle(snapshot.get(), &id);
  Scan scan(kest_open_inodescan64(active.get(), &id, max_ino));
  if (scan == nullptr) fail("open difference");
  return scan;
}

Scan openFull(const Handle &handle, uint64_t *max_ino) {
  Scan scan(kest_open_inodescan64(handle.get(), nullptr, max_ino));
  if (scan == nullptr) fail("open full scan");
  return scan;
}

Inode openInode(const Handle &handle, uint64_t ino) {
  Inode file(kest_iopen64(handle.get(), ino, 0, nullptr, nullptr));
  if (file == nullptr) fail("open inode " + std::to_string(ino));
  return file;
}

std::string inodesOf(const Scan &scan) {
  std::string text;
  const kest_iattr64_t *attr;
  int rc;
  while ((rc = kest_next_inode64(scan.get(), UINT64_MAX, &attr)) == 0 && attr != nullptr)
    add(&text, (attr->ia_nlink == 0 ? "-" : "") + std::to_string(attr->ia_inode));
  if (rc < 0) fail("kest_next_inode64");
  return text;
}

std::string changedEntries(const Handle &active, const Scan &scan, uint64_t ino) {
  return entriesBy(kest_ireaddirx64, "kest_ireaddirx64", active, scan, ino);
}

std::string leadingEntries(const Handle &active, const Scan &scan, uint64_t ino) {
  return entriesBy(kest_ireaddirc64, "kest_ireaddirc64", active, scan, ino);
}

std::string ranges(const Handle &handle, const Scan &scan, uint64_t ino, int64_t term) {
  Inode file = openInode(handle, ino);
  std::string text;
  int64_t offset = 0, length;
  int hole;
  while ((length = kest_ireadx(file.get(), scan.get(), nullptr, 0, &offset, term, &hole)) > 0) {
    add(&text, std::to_string(offset) + "+" + std::to_string(length) + (hole ? "(hole)" : ""));
    offset += length;
  }
  if (length < 0) fail("kest_ireadx");
  return text;
}

kest_snapid_t idOf(const Handle &handle) {
  kest_snapid_t id = 0;
  EXPECT_EQ(0, kest_get_fssnapid_from_fssnaphandle(handle.get(), &id));
  return id;
}

struct stat statOf(const std::string &path) {
  struct stat st {};
  EXPECT_EQ(0, lstat(path.c_str(), &st)) << path;
  return st;
}

std::string timesOf(const std::string &path) {
  struct stat st = statOf(path);
  return std::to_string(st.st_atim.tv_sec) + "." + std::to_string(st.st_atim.tv_nsec) + " " +
         std::to_string(st.st_mtim.tv_sec) + "." + std::to_string(st.st_mtim.tv_nsec);
}

std::map<std::string, std::string> xattrsOf(const std::string &path) {
  char list[65536], value[65536];
  std::map<std::string, std::string> all;
  ssize_t n = llistxattr(path.c_str(), list, sizeof list);
  for (const char *name = list; name < list + n; name += strlen(name) + 1) {
    ssize_t length = lgetxattr(path.c_str(), name, value, sizeof value);
    all[name] = length < 0 ? "unreadable" : std::string(value, static_cast<size_t>(length));
  }
  return all;
}

std::unique_ptr<testsupport::LoopBtrfs> LibraryTest::fs_;

void LibraryTest::SetUpTestSuite() {
  fs_ = std::make_unique<testsupport::LoopBtrfs>("library", 512ull << 20);
}
void LibraryTest::TearDownTestSuite() {
  fs_.reset();
}

void LibraryTest::SetUp() {
  name_ = testing::UnitTest::GetInstance()->current_test_info()->name();
  tree_ = std::make_unique<testsupport::TreeBuilder>(fs_->createSubvolume(name_));
  active_ = openHandle(fs_->mountPoint(), name_);
}

std::string LibraryTest::snapshot(const std::string &which) {
  const std::string name = which + " of " + name_, made = fs_->snapshot(name_, name);
  active_ = openHandle(fs_->mountPoint(), name_);
  snapshot_ = openHandle(fs_->mountPoint(), name_, name.c_str());
  return made;
}

}  // namespace kesttest
