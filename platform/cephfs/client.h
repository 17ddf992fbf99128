// A client of a Ceph cluster: one session with the metadata servers and one with the object stores.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <vector>

#include <rados/librados.hpp>

#include "cephfs/ceph_api.h"
#include "diff/entry_pairs.h"

namespace kest {

inline constexpr uint64_t kActive = static_cast<uint64_t>(-2);  // snapshot number of the active tree
inline constexpr char kSnapFolder[] = ".snap";

// How to reach a cluster. Empty: what the environment and the configuration say.
struct ClusterAccess {
  std::string configuration;  // file
  std::string user, monitors, file_system;

  auto operator<=>(const ClusterAccess &) const = default;
};

using CephStat = struct ceph_statx;

class CephClient;

// A counted reference to an inode of the client.
class InodeRef {
 public:
  InodeRef() = default;
  InodeRef(std::shared_ptr<CephClient> client, ::Inode *inode)
      : client_(std::move(client)), inode_(inode) {}
  InodeRef(InodeRef &&other) noexcept { swap(other); }
  InodeRef &operator=(InodeRef &&other) noexcept {
    swap(other);
    return *this;
  }
  ~InodeRef();

  ::Inode *get() const { return inode_; }
  explicit operator bool() const { return inode_ != nullptr; }
  const std::shared_ptr<CephClient> &client() const { return client_; }
  InodeRef another() const;  // to the same inode

 private:
  void swap(InodeRef &other) {
    std::swap(client_, other.client_);
    std::swap(inode_, other.inode_);
  }
  std::shared_ptr<CephClient> client_;
  ::Inode *inode_ = nullptr;
};

struct CephEntry {
  std::string name;
  CephStat st{};
  InodeRef dir;  // of a directory, where it was asked for
};

DirEntry toEntry(const CephEntry &one);

// Where a directory of a snapshot stands.
struct SnapshotPlace {
  uint64_t parent = 0;
  std::string name;
};

// All calls return 0 or -errno. May be used by several threads.
class CephClient : public std::enable_shared_from_this<CephClient> {
 public:
  // The process has one client of each cluster and file system, as long as somebody holds it.
  static int open(const ClusterAccess &access, std::shared_ptr<CephClient> *client);
  ~CephClient();

  ceph_mount_info *mount() const { return mount_; }
  const UserPerm *perms() const { return perms_; }
  const std::string &fsid() const { return fsid_; }

  int root(InodeRef *inode, CephStat *st);
  // -ESTALE: the servers do not know the number (any more). Of an inode of a snapshot that was found so
  // the attributes are right, but the servers take any other request about it, to list it, say, or to
  // open it, as one about the active inode. Those need an inode that was looked up by names from the
  // root of the snapshot.
  int byNumber(uint64_t ino, uint64_t snapid, InodeRef *inode, CephStat *st);
  // One name in a directory; no link is followed.
  int lookUp(const InodeRef &dir, const std::string &name, InodeRef *inode, CephStat *st);
  int readStat(const InodeRef &inode, CephStat *st);
  // Every entry with its attributes, without "." and "..".
  int list(const InodeRef &dir, std::vector<CephEntry> *entries, bool open_directories = false);
  // Where a directory of a snapshot stands, if it was listed before, or its place was noted.
  bool placeInSnapshot(uint64_t snapid, uint64_t ino, SnapshotPlace *place);
  void notePlace(uint64_t snapid, uint64_t ino, SnapshotPlace place);
  int readXattr(const InodeRef &inode, const char *name, std::string *value);
  int listXattrs(const InodeRef &inode, std::vector<std::string> *names);
  // What this client has changed is safe with the servers afterwards. -errno also of a write that was
  // accepted earlier and could not be carried out (a full pool, an evicted client); from then on
  // always.
  int settle();
  // Closes a file that was written to. What became of the writes is asked at the next settle().
  void closeWritten(::Fh *file);

  // The object stores of a pool, by name; `name_space` "" the default.
  int pool(const std::string &pool, const std::string &name_space, librados::IoCtx **io);

 private:
  CephClient() = default;
  int connect(const ClusterAccess &access);
  int connectRados();
  int closeAll(std::vector<::Fh *> files);
  void limitFastTicks();

  ceph_mount_info *mount_ = nullptr;
  bool mounted_ = false;
  std::jthread slowing_;  // ends the fast ticks in time
  UserPerm *perms_ = nullptr;
  ClusterAccess access_;
  std::string fsid_;
  std::mutex mutex_;  // of what follows
  std::unique_ptr<librados::Rados> rados_;
  std::map<std::pair<std::string, std::string>, librados::IoCtx> pools_;
  std::map<uint64_t, std::unordered_map<uint64_t, SnapshotPlace>> places_;  // by snapshot, by directory
  std::vector<::Fh *> written_;  // files whose writes may still fail
  int failure_ = 0;              // of one of them
};

// Fills in what struct stat has; `device` becomes st_dev.
void toStat(const CephStat &from, dev_t device, struct stat *st);

}  // namespace kest
