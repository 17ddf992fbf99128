#include "unit/support/fake_kest.h"

#include <fcntl.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "record/aggregate.h"
#include "run/run_handles.h"
#include "run/settings.h"
#include "run/trace_log.h"
#include "run/trace_buffer.h"
#include "run/work_dir.h"
#include "scan/scan_pass.h"

namespace fs = std::filesystem;

struct kest_fssnap_handle {
  std::string root;
};
struct kest_iscan {
  bool difference;
};

FakeKest fakeKest;

namespace {

kest_fssnap_handle activeHandle, snapHandle;
kest_iscan differenceScan{true}, fullScan{false};

struct FakeInode : kest_ifile {
  kest_fssnap_handle *handle;
  std::string path;
  std::vector<kest_direntx64_t> entries;
  size_t next = 0;
};

FakeInode *fake(const kest_ifile_t *file) {
  return static_cast<FakeInode *>(const_cast<kest_ifile_t *>(file));
}

int fail(int err) {
  errno = err;
  return -1;
}

std::string parentOf(const std::string &path) {
  return fs::path(path).parent_path();
}

int faultAt(const std::string &call, const std::string &path) {
  return fakeKest.fault ? fakeKest.fault(call, path) : 0;
}

// Notes a changing call; its injected error, or EROFS where one of the paths is flagged.
int refusal(const std::string &call, const std::string &path,
            std::initializer_list<std::string> flagged) {
  fakeKest.calls.push_back(call + " " + path);
  if (int err = faultAt(call, path)) return err;
  for (const std::string &one : flagged)
    if (fakeKest.immutable.count(one)) return EROFS;
  return 0;
}

std::string pathOf(int fd) {
  char path[4096];
  const std::string link = "/proc/self/fd/" + std::to_string(fd);
  const ssize_t length = readlink(link.c_str(), path, sizeof path);
  return std::string(path, static_cast<size_t>(std::max<ssize_t>(length, 0)));
}

uint64_t numberOf(const std::string &path, uint64_t real) {
  const auto known = fakeKest.inoOf.find(fs::path(path).lexically_normal());
  return known == fakeKest.inoOf.end() ? real : known->second;
}

bool findInode(const std::string &root, uint64_t ino, std::string *found) {
  struct stat st;
  const auto matches = [&](const std::string &path) {
    if (lstat(path.c_str(), &st) != 0 || numberOf(path, st.st_ino) != ino) return false;
    *found = path;
    return true;
  };
  if (matches(root)) return true;
  for (const auto &entry : fs::recursive_directory_iterator(root))
    if (matches(entry.path())) return true;
  return false;
}

uint64_t inoAt(const std::string &path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0 ? numberOf(path, st.st_ino) : 0;
}

}  // namespace

size_t FakeKest::count(const std::string &call) const {
  return static_cast<size_t>(std::count_if(
      calls.begin(), calls.end(), [&](const std::string &one) { return one.starts_with(call + " "); }));
}

void FakeFileset::SetUp() {
  char pattern[] = "/tmp/fake_kest.XXXXXX";
  ASSERT_NE(mkdtemp(pattern), nullptr);
  folder_ = pattern;
  fakeKest = FakeKest();
  settings = Settings();
  aggregates = Aggregates();
  scan = ScanState();
  activeHandle.root = folder_ + "/fset";
  snapHandle.root = folder_ + "/snap";
  settings.shareDir = activeHandle.root + "/RestoreTemp47";
  for (const std::string &dir : {activeHandle.root, snapHandle.root, settings.shareDir})
    fs::create_directory(dir);
  fs::create_directory(workPath(kCheckpointDir));
  handles = RunHandles{&activeHandle,   &snapHandle, &differenceScan, &fullScan, activeHandle.root,
                       snapHandle.root, 256};
}

void FakeFileset::TearDown() {
  closeTraceLog();
  fs::remove_all(folder_);
}

std::string FakeFileset::active(const std::string &name) const {
  return folder_ + "/fset/" + name;
}
std::string FakeFileset::snap(const std::string &name) const {
  return folder_ + "/snap/" + name;
}
void FakeFileset::makeFile(const std::string &path, const std::string &text) {
  std::ofstream(path, std::ios::binary) << text;
}
void FakeFileset::makeDir(const std::string &path) {
  fs::create_directories(path);
}
void FakeFileset::inBoth(const std::string &name, bool directory, uint64_t ino) {
  for (const std::string &path : {active(name), snap(name)}) {
    directory ? makeDir(path) : makeFile(path);
    fakeKest.inoOf[path] = ino;
  }
}
uint64_t FakeFileset::inoOf(const std::string &path) {
  return inoAt(path);
}
std::string FakeFileset::read(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}
std::string FakeFileset::traces() const {
  flushTraceLines();
  return read(settings.shareDir + "/" + kErrorLog);
}

extern "C" {

int kest_next_inode64(kest_iscan_t *, uint64_t end_ino, const kest_iattr64_t **attr) {
  static kest_iattr64_t record;
  *attr = nullptr;
  if (fakeKest.scanError) return fail(fakeKest.scanError);
  if (fakeKest.scanPosition == fakeKest.scanned.size()) return 0;
  const uint64_t ino = fakeKest.scanned[fakeKest.scanPosition];
  if (ino > end_ino) return 0;
  ++fakeKest.scanPosition;
  record = {};
  record.ia_inode = ino;
  *attr = &record;
  return 0;
}

// Nothing is known in advance: the inodes themselves are asked.
int kest_idifference(kest_iscan_t *, uint64_t) {
  return 0;
}

kest_ifile_t *kest_iopen64(kest_fssnap_handle_t *handle, uint64_t ino, int, const void *,
                           const char *) {
  const std::string tree = handle == &activeHandle ? "active" : "snap";
  if (int err = faultAt("iopen64", tree + " " + std::to_string(ino))) return fail(err), nullptr;
  std::string path;
  struct stat st;
  if (!findInode(handle->root, ino, &path) || lstat(path.c_str(), &st) != 0)
    return fail(ENOENT), nullptr;
  auto *file = new FakeInode();
  file->handle = handle;
  file->path = path;
  file->if_kind = KEST_IFILE_KIND;
  file->if_inode = ino;
  file->if_mode = st.st_mode;
  file->if_size = static_cast<uint64_t>(st.st_size);
  return file;
}

int kest_iclose(kest_ifile_t *file) {
  delete fake(file);
  return 0;
}

int kest_same_file(const kest_ifile_t *a, const kest_ifile_t *b) {
  return a->if_inode == b->if_inode && ((a->if_mode ^ b->if_mode) & S_IFMT) == 0 &&
         !fakeKest.replaced.count(a->if_inode);
}

int64_t kest_iread(kest_ifile_t *, void *buf, int64_t size, int64_t *offset) {
  memset(buf, 'r', static_cast<size_t>(size));
  *offset += size;
  return size;
}

int64_t kest_ireadx(kest_ifile_t *, kest_iscan_t *, void *buf, int64_t size, int64_t *offset,
                    int64_t term, int *hole) {
  fakeKest.calls.push_back("ireadx " + std::to_string(*offset));
  *hole = fakeKest.readHole;
  int64_t answer = buf != nullptr ? size : term - *offset;
  if (!fakeKest.reads.empty()) {
    answer = fakeKest.reads.front();
    fakeKest.reads.erase(fakeKest.reads.begin());
  }
  if (answer < 0) return fail(fakeKest.ioError);
  if (buf != nullptr) memset(buf, 'x', static_cast<size_t>(answer));
  return answer;
}

int64_t kest_iwritex(kest_ifile_t *, const void *buf, int64_t len, int64_t offset, int hole) {
  fakeKest.calls.push_back(std::string(hole && buf == nullptr ? "punch " : "iwritex ") +
                           std::to_string(offset) + "+" + std::to_string(len));
  int64_t answer = len;
  if (!fakeKest.writes.empty()) {
    answer = fakeKest.writes.front();
    fakeKest.writes.erase(fakeKest.writes.begin());
  }
  return answer < 0 ? fail(fakeKest.ioError) : answer;
}

int kest_ireaddir64(kest_ifile_t *dir, const kest_direntx64_t **entry) {
  FakeInode *inode = fake(dir);
  if (inode->entries.empty()) {
    for (const auto &one : fs::directory_iterator(inode->path)) {
      const std::string name = one.path().filename();
      if (name.starts_with(".snap")) continue;  // hidden, as snapshots are
      kest_direntx64_t record{};
      record.d_ino = inoAt(one.path());
      record.d_type = one.is_directory() ? 4 : 8;
      record.d_flags = name.starts_with("junction") ? KEST_DF_JUNCTION : 0;
      name.copy(record.d_name, sizeof record.d_name - 1);
      inode->entries.push_back(record);
    }
  }
  *entry = inode->next < inode->entries.size() ? &inode->entries[inode->next++] : nullptr;
  return 0;
}

// Flags requests are answered from the set of flagged paths, attribute requests from the table.
int kest_fcntl(int fd, void *request) {
  int32_t words[16];
  memcpy(words, request, 40);
  char *bytes = static_cast<char *>(request);
  if (words[5] == 6001) {
    const std::string name(bytes + 40, static_cast<size_t>(words[6]));
    const auto found = fakeKest.attributes.find(name);
    const size_t room = (static_cast<size_t>(words[6]) + 7) / 8 * 8;
    if (int err = faultAt("fcntl", name)) return fail(err);
    words[9] = found == fakeKest.attributes.end() ? 27 : 0;
    if (words[9] == 0) {
      const auto size = static_cast<int32_t>(found->second.size());
      if (size > words[7]) {
        words[9] = 29;
      } else {
        memcpy(bytes + 40 + room, found->second.data(), found->second.size());
      }
      words[7] = size;
    }
    memcpy(request, words, 40);
    return 0;
  }
  const std::string path = pathOf(fd);
  fakeKest.requests.emplace_back(bytes, bytes + words[0]);
  if (int err = faultAt("fcntl", path)) return fail(err);
  for (int at = 16; at < words[0]; at += 24) {
    int32_t directive[3];
    memcpy(directive, bytes + at, sizeof directive);
    if (directive[1] == 5000) {
      fakeKest.calls.push_back((directive[2] ? "flag " : "unflag ") + path);
      directive[2] ? (void)fakeKest.immutable.insert(path) : (void)fakeKest.immutable.erase(path);
    }
    directive[2] = directive[1] == 5001 && fakeKest.immutable.count(path);
    if (directive[1] == 5001 || directive[1] == 5005) memcpy(bytes + at, directive, sizeof directive);
  }
  return 0;
}

// From the same table: both trees have the same clones.
int kest_iclone_attr(kest_ifile_t *file, uint8_t clone[16], uint8_t clone_snap[8]) {
  if (int err = faultAt("iclone_attr", fake(file)->path)) return fail(err);
  const auto found = fakeKest.attributes.find("kest.CLONE");
  if (found == fakeKest.attributes.end()) return 0;
  if (clone != nullptr) std::copy_n(found->second.begin(), 16, clone);
  const auto snap = fakeKest.attributes.find("kest.CLONESNAP");
  if (clone_snap != nullptr && snap != fakeKest.attributes.end())
    std::copy_n(snap->second.begin(), 8, clone_snap);
  return 1;
}

int kest_ishare(kest_ifile_t *, kest_ifile_t *, int64_t offset, int64_t len) {
  const std::string range = std::to_string(offset) + "+" + std::to_string(len);
  fakeKest.calls.push_back("ishare " + range);
  if (int err = faultAt("ishare", range)) return fail(err);
  return 0;
}

int kest_ishareable(kest_ifile_t *, kest_ifile_t *) {
  return 1;
}

int kest_inode_names(kest_fssnap_handle_t *, uint64_t ino, int (*)(void *, const char *), void *) {
  return fail(faultAt("inode_names", std::to_string(ino)));
}

int kest_lstat(kest_fssnap_handle_t *, const char *path, struct stat *st) {
  if (int err = faultAt("lstat", path)) return fail(err);
  if (lstat(path, st) != 0) return -1;
  st->st_ino = numberOf(path, st->st_ino);
  return 0;
}

int kest_open_path(kest_fssnap_handle_t *, const char *path) {
  if (int err = faultAt("open_path", path)) return fail(err);
  return open(path, O_PATH | O_NOFOLLOW | O_CLOEXEC);
}

int kest_path_descriptor(const kest_ifile_t *file) {
  return open(fake(file)->path.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC);
}

int kest_unlink(kest_fssnap_handle_t *, const char *path, uint64_t) {
  const int err = refusal("unlink", path, {path, parentOf(path)});
  return err ? fail(err) : unlink(path);
}

int kest_rmdir(kest_fssnap_handle_t *, const char *path, uint64_t) {
  const int err = refusal("rmdir", path, {path, parentOf(path)});
  return err ? fail(err) : rmdir(path);
}

int kest_rename_noreplace(kest_fssnap_handle_t *, const char *from, const char *to, uint64_t) {
  const int err = refusal("rename", from, {from, parentOf(from), parentOf(to)});
  return err ? fail(err) : renameat2(AT_FDCWD, from, AT_FDCWD, to, RENAME_NOREPLACE);
}

int kest_symlink(kest_fssnap_handle_t *, const char *target, const char *path) {
  const int err = refusal("symlink", path, {parentOf(path)});
  return err ? fail(err) : symlink(target, path);
}

}  // extern "C"
