#include "cephfs/client.h"

#include <fcntl.h>
#include <signal.h>
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <exception>
#include <stop_token>

namespace kest {

namespace {

constexpr unsigned kAllAttributes = CEPH_STATX_ALL_STATS;
constexpr uint64_t kSnapFolderNumber = static_cast<uint64_t>(-1);
constexpr size_t kMostWritten = 64;  // files that are kept open for their outcome
constexpr int kAttempts = 5;         // while a value grows between two calls
constexpr int kMostMisses = 1000;    // consecutive entries of a listing that no longer exist

std::mutex registry_mutex;
std::map<ClusterAccess, std::weak_ptr<CephClient>> registry;

struct Setting {
  const char *name, *value;
};

// A rename cannot cross the border of a quota, and a restore has to, so quotas are off. A process that
// lives for seconds does not need a socket or log file of its own.
//
// A client releases its inodes at its ticks, and its end waits for the next tick. By default that takes
// up to a second, which is long for the many processes that live for less. With an interval of 0 it
// ticks without a pause. That takes up to half a processor, and memory without a bound if the
// processors are busy. So a thread ends it after kFastTicks, even while a call waits for the servers.
constexpr char kTick[] = "client_tick_interval";
constexpr std::chrono::seconds kFastTicks{1};
constexpr Setting kSettings[] = {{"client_quota", "false"},
                                 {"client_acl_type", "posix_acl"},
                                 {kTick, "0"},
                                 {"admin_socket", ""},
                                 {"log_file", ""},
                                 {"log_to_stderr", "false"},
                                 {"err_to_stderr", "false"}};

bool isDots(const char *name) {
  return strcmp(name, ".") == 0 || strcmp(name, "..") == 0;
}

// The link count of a directory counts its subdirectories, and its size the bytes of everything below
// it. A restore cannot set either, so both are left out of every comparison.
void leaveOutContents(CephStat *st) {
  if (!S_ISDIR(st->stx_mode)) return;
  st->stx_nlink = std::min<uint32_t>(st->stx_nlink, 1);
  st->stx_size = 0;
}

}  // namespace

InodeRef::~InodeRef() {
  if (inode_ != nullptr) ceph_ll_put(client_->mount(), inode_);
}

InodeRef InodeRef::another() const {
  CephStat st;
  InodeRef same;
  if (client_->readStat(*this, &st) == 0) client_->byNumber(st.stx_ino, st.stx_dev, &same, &st);
  return same;
}

int CephClient::open(const ClusterAccess &access, std::shared_ptr<CephClient> *client) {
  std::lock_guard lock(registry_mutex);
  *client = registry[access].lock();
  if (*client != nullptr) return 0;
  std::shared_ptr<CephClient> made(new CephClient);
  const int rc = made->connect(access);
  if (rc < 0) return rc;
  registry[access] = made;
  *client = std::move(made);
  return 0;
}

int CephClient::connect(const ClusterAccess &access) {
  access_ = access;
  int rc = ceph_create(&mount_, access.user.empty() ? nullptr : access.user.c_str());
  if (rc < 0) return rc;
  const char *file = access.configuration.empty() ? nullptr : access.configuration.c_str();
  rc = ceph_conf_read_file(mount_, file);
  if (rc == -ENOENT && !access.monitors.empty()) rc = 0;
  if (rc == 0) rc = ceph_conf_parse_env(mount_, nullptr);
  for (const Setting &one : kSettings)
    if (rc == 0) rc = ceph_conf_set(mount_, one.name, one.value);
  if (rc == 0 && !access.monitors.empty())
    rc = ceph_conf_set(mount_, "mon_host", access.monitors.c_str());
  if (rc == 0) rc = ceph_init(mount_);
  if (rc == 0 && !access.file_system.empty())
    rc = ceph_select_filesystem(mount_, access.file_system.c_str());
  if (rc == 0) limitFastTicks();
  if (rc == 0) rc = ceph_mount(mount_, "/");
  if (rc < 0) return rc;
  mounted_ = true;
  perms_ = ceph_userperm_new(0, 0, 0, nullptr);
  if (perms_ == nullptr) return -ENOMEM;
  InodeRef top;
  CephStat st;
  rc = root(&top, &st);
  if (rc == 0) rc = readXattr(top, "ceph.cluster_fsid", &fsid_);
  return rc;
}

CephClient::~CephClient() {
  closeAll(std::move(written_));
  if (perms_ != nullptr) ceph_userperm_destroy(perms_);
  if (mounted_) ceph_unmount(mount_);
  slowing_ = {};  // also limits the ticks of the end
  if (mount_ != nullptr) ceph_release(mount_);
}

void CephClient::limitFastTicks() {
  // Block all signals in the new thread, so that the main thread receives them.
  sigset_t all, before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  try {
    slowing_ = std::jthread([this](const std::stop_token &end) {
      std::mutex mutex;
      std::unique_lock lock(mutex);
      std::condition_variable_any never;
      never.wait_for(lock, end, kFastTicks, [] { return false; });
      if (!end.stop_requested()) ceph_conf_set(mount_, kTick, "1");
    });
  } catch (const std::exception &) {  // no thread, or no memory for one
    ceph_conf_set(mount_, kTick, "1");
  }
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

int CephClient::root(InodeRef *inode, CephStat *st) {
  ::Inode *found = nullptr;
  const int rc = ceph_ll_lookup_root(mount_, &found);
  if (rc < 0) return rc;
  *inode = InodeRef(shared_from_this(), found);
  return readStat(*inode, st);
}

int CephClient::byNumber(uint64_t ino, uint64_t snapid, InodeRef *inode, CephStat *st) {
  ::Inode *found = nullptr;
  int rc = ceph_ll_lookup_vino(mount_, {{ino}, {snapid}}, &found);
  if (rc < 0) return rc;
  *inode = InodeRef(shared_from_this(), found);
  rc = readStat(*inode, st);
  // The client may know an inode that has been deleted since, and gives its last attributes.
  return rc == 0 && st->stx_ino != ino ? -ESTALE : rc;
}

int CephClient::lookUp(const InodeRef &dir, const std::string &name, InodeRef *inode, CephStat *st) {
  ::Inode *found = nullptr;
  const int rc = ceph_ll_lookup(mount_, dir.get(), name.c_str(), &found, st, kAllAttributes,
                                AT_SYMLINK_NOFOLLOW, perms_);
  if (rc < 0) return rc;
  *inode = InodeRef(shared_from_this(), found);
  leaveOutContents(st);
  return 0;
}

int CephClient::readStat(const InodeRef &inode, CephStat *st) {
  const int rc = ceph_ll_getattr(mount_, inode.get(), st, kAllAttributes, 0, perms_);
  if (rc == 0) leaveOutContents(st);
  return rc;
}

int CephClient::list(const InodeRef &dir, std::vector<CephEntry> *entries, bool open_directories) {
  ceph_dir_result *stream = nullptr;
  entries->clear();
  CephStat own;
  int rc = readStat(dir, &own);
  if (rc < 0) return rc;
  const bool snapshot = own.stx_dev != kActive && own.stx_dev != kSnapFolderNumber;
  rc = ceph_ll_opendir(mount_, dir.get(), &stream, perms_);
  if (rc < 0) return rc;
  for (int misses = 0;;) {
    struct dirent entry;
    CephStat st;
    ::Inode *inode = nullptr;
    rc = ceph_readdirplus_r(mount_, stream, &entry, &st, kAllAttributes, AT_SYMLINK_NOFOLLOW, &inode);
    // Skip an entry that is removed during the call.
    if ((rc == -ENOENT || rc == -ESTALE) && ++misses < kMostMisses) continue;
    if (rc <= 0) break;
    misses = 0;
    InodeRef held(shared_from_this(), inode);
    if (isDots(entry.d_name)) continue;
    // The first entry of every message from the servers comes with attributes that another client may
    // have changed since. Only this call makes the servers ask that client. For the others it costs
    // nothing.
    if (int known = snapshot ? 0 : readStat(held, &st); known < 0) {
      if (known == -ENOENT || known == -ESTALE) continue;
      rc = known;
      break;
    }
    leaveOutContents(&st);
    entries->push_back({entry.d_name, st, {}});
    if (!S_ISDIR(st.stx_mode)) continue;
    if (open_directories) entries->back().dir = std::move(held);
    if (!snapshot) continue;
    std::lock_guard lock(mutex_);
    places_[own.stx_dev][st.stx_ino] = {own.stx_ino, entry.d_name};
  }
  const int closed = ceph_ll_releasedir(mount_, stream);
  return rc < 0 ? rc : closed;
}

bool CephClient::placeInSnapshot(uint64_t snapid, uint64_t ino, SnapshotPlace *place) {
  std::lock_guard lock(mutex_);
  const auto snapshot = places_.find(snapid);
  if (snapshot == places_.end()) return false;
  const auto found = snapshot->second.find(ino);
  if (found == snapshot->second.end()) return false;
  *place = found->second;
  return true;
}

void CephClient::notePlace(uint64_t snapid, uint64_t ino, SnapshotPlace place) {
  std::lock_guard lock(mutex_);
  places_[snapid][ino] = std::move(place);
}

int CephClient::readXattr(const InodeRef &inode, const char *name, std::string *value) {
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    int size = ceph_ll_getxattr(mount_, inode.get(), name, nullptr, 0, perms_);
    if (size < 0) return size;
    value->resize(static_cast<size_t>(size));
    if (size == 0) return 0;
    size = ceph_ll_getxattr(mount_, inode.get(), name, value->data(), value->size(), perms_);
    if (size == -ERANGE) continue;
    if (size < 0) return size;
    value->resize(static_cast<size_t>(size));
    return 0;
  }
  return -EBUSY;
}

int CephClient::listXattrs(const InodeRef &inode, std::vector<std::string> *names) {
  names->clear();
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    size_t size = 0;
    int rc = ceph_ll_listxattr(mount_, inode.get(), nullptr, 0, &size, perms_);
    if (rc < 0) return rc;
    if (size == 0) return 0;
    std::string text(size, '\0');
    rc = ceph_ll_listxattr(mount_, inode.get(), text.data(), text.size(), &size, perms_);
    if (rc == -ERANGE) continue;
    if (rc < 0) return rc;
    text.resize(size);
    for (size_t at = 0; at < text.size(); at += names->back().size() + 1)
      names->emplace_back(text.c_str() + at);
    return 0;
  }
  return -EBUSY;
}

void CephClient::closeWritten(::Fh *file) {
  std::vector<::Fh *> many;
  {
    std::lock_guard lock(mutex_);
    written_.push_back(file);
    if (written_.size() >= kMostWritten) many.swap(written_);
  }
  if (!many.empty()) closeAll(std::move(many));
}

// The open file keeps the error of a failed write, and closing it loses the error. So ask for it first.
int CephClient::closeAll(std::vector<::Fh *> files) {
  int failure = 0;
  for (::Fh *file : files) {
    const int written = ceph_ll_fsync(mount_, file, 1);
    const int closed = ceph_ll_close(mount_, file);
    if (failure == 0) failure = written < 0 ? written : std::min(closed, 0);
  }
  std::lock_guard lock(mutex_);
  if (failure_ == 0) failure_ = failure;
  return failure_;
}

int CephClient::settle() {
  // Write everything back at once, before asking for the result of each file.
  const int synced = ceph_sync_fs(mount_);
  if (synced < 0) {
    std::lock_guard lock(mutex_);
    if (failure_ == 0) failure_ = synced;
  }
  std::vector<::Fh *> files;
  {
    std::lock_guard lock(mutex_);
    files.swap(written_);
  }
  const int written = closeAll(std::move(files));
  if (written < 0 || synced < 0) return written < 0 ? written : synced;
  // The calls above can succeed in a client that the servers have evicted. A request to the servers
  // cannot.
  InodeRef top;
  CephStat st;
  return root(&top, &st);
}

int CephClient::connectRados() {
  if (rados_ != nullptr) return 0;
  auto rados = std::make_unique<librados::Rados>();
  int rc = rados->init(access_.user.empty() ? nullptr : access_.user.c_str());
  if (rc < 0) return rc;
  rc = rados->conf_read_file(access_.configuration.empty() ? nullptr : access_.configuration.c_str());
  if (rc == -ENOENT && !access_.monitors.empty()) rc = 0;
  if (rc == 0) rc = rados->conf_parse_env(nullptr);
  for (const Setting &one : kSettings)
    if (rc == 0) rc = rados->conf_set(one.name, one.value);
  if (rc == 0 && !access_.monitors.empty()) rc = rados->conf_set("mon_host", access_.monitors.c_str());
  if (rc == 0) rc = rados->connect();
  if (rc == 0) rados_ = std::move(rados);
  return rc;
}

int CephClient::pool(const std::string &pool, const std::string &name_space, librados::IoCtx **io) {
  std::lock_guard lock(mutex_);
  const auto key = std::make_pair(pool, name_space);
  const auto known = pools_.find(key);
  if (known != pools_.end()) {
    *io = &known->second;
    return 0;
  }
  if (int rc = connectRados(); rc < 0) return rc;
  librados::IoCtx made;
  if (int rc = rados_->ioctx_create(pool.c_str(), made); rc < 0) return rc;
  made.set_namespace(name_space);
  made.snap_set_read(librados::SNAP_DIR);
  *io = &(pools_[key] = std::move(made));
  return 0;
}

DirEntry toEntry(const CephEntry &one) {
  return {one.name, one.st.stx_ino, false, static_cast<uint8_t>(IFTODT(one.st.stx_mode))};
}

void toStat(const CephStat &from, dev_t device, struct stat *st) {
  *st = {};
  st->st_dev = device;
  st->st_ino = from.stx_ino;
  st->st_mode = from.stx_mode;
  st->st_nlink = from.stx_nlink;
  st->st_uid = from.stx_uid;
  st->st_gid = from.stx_gid;
  st->st_rdev = from.stx_rdev;
  st->st_size = static_cast<off_t>(from.stx_size);
  st->st_blksize = from.stx_blksize;
  st->st_blocks = static_cast<blkcnt_t>(from.stx_blocks);
  st->st_atim = from.stx_atime;
  st->st_mtim = from.stx_mtime;
  st->st_ctim = from.stx_ctime;
}

}  // namespace kest
