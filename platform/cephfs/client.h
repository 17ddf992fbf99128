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

// How to reach a cluster. An empty field means what the environment and the configuration say.
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
  InodeRef another() const;  // returns a further reference to the same inode; empty after a failure

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
  InodeRef dir;  // the directory itself, if list() was asked to open directories
};

DirEntry toEntry(const CephEntry &one);

// The place of a directory in a snapshot.
struct SnapshotPlace {
  uint64_t parent = 0;
  std::string name;
};

// All calls return 0 or -errno. May be used by several threads.
class CephClient : public std::enable_shared_from_this<CephClient> {
 public:
  // A process has one client of each cluster and file system, which lives while something refers to it.
  static int open(const ClusterAccess &access, std::shared_ptr<CephClient> *client);
  ~CephClient();

  ceph_mount_info *mount() const { return mount_; }
  const UserPerm *perms() const { return perms_; }
  const std::string &fsid() const { return fsid_; }

  int root(InodeRef *inode, CephStat *st);
  // Finds an inode by number. -ESTALE: the servers do not know the number, or have forgotten it. If the
  // inode is one of a snapshot, only its attributes are right: the servers take every other request
  // about it, for example to list or open it, as one about the active inode. Such requests need an
  // inode that was looked up by names from the root of the snapshot.
  int byNumber(uint64_t ino, uint64_t snapid, InodeRef *inode, CephStat *st);
  // Looks up one name in a directory. Follows no symbolic link.
  int lookUp(const InodeRef &dir, const std::string &name, InodeRef *inode, CephStat *st);
  int readStat(const InodeRef &inode, CephStat *st);
  // Lists the entries with their attributes, without "." and "..".
  int list(const InodeRef &dir, std::vector<CephEntry> *entries, bool open_directories = false);
  // Finds the place of a directory of a snapshot if its parent was listed, or the place was noted.
  bool placeInSnapshot(uint64_t snapid, uint64_t ino, SnapshotPlace *place);
  void notePlace(uint64_t snapid, uint64_t ino, SnapshotPlace place);
  int readXattr(const InodeRef &inode, const char *name, std::string *value);
  int listXattrs(const InodeRef &inode, std::vector<std::string> *names);
  // Makes sure that everything this client has changed is safe with the servers. -errno: also that of a
  // write that was accepted earlier and failed later (a full pool, an evicted client). After such a
  // failure every further call fails, too.
  int settle();
  // Closes a file that was written to. The next settle() tells whether the writes succeeded.
  void closeWritten(::Fh *file);

  // Opens a pool of the object stores by its name. `name_space` "" means the default namespace.
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
  std::mutex mutex_;  // protects the members below
  std::unique_ptr<librados::Rados> rados_;
  std::map<std::pair<std::string, std::string>, librados::IoCtx> pools_;
  std::map<uint64_t, std::unordered_map<uint64_t, SnapshotPlace>> places_;  // by snapshot, by directory
  std::vector<::Fh *> written_;  // files whose writes may still fail
  int failure_ = 0;              // -errno of the first write that failed
};

// Fills in what struct stat has; `device` becomes st_dev.
void toStat(const CephStat &from, dev_t device, struct stat *st);

}  // namespace kest
