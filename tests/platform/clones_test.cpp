// Clone parents and clones on a real btrfs: what they share, what forbids what, what comes and goes.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/fiemap.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <thread>

#include "platform/kest_reader.h"
#include "support/descriptor.h"
#include "support/loop_btrfs.h"
#include "support/tree_builder.h"

namespace {

using namespace kesttest;
using testsupport::Descriptor;
using testsupport::LoopBtrfs;
using testsupport::TreeBuilder;

constexpr uint64_t K = 1024;

#define EXPECT_FAILS(error, call)           \
  do {                                      \
    errno = 0;                              \
    EXPECT_EQ(-1, call);                    \
    EXPECT_EQ(error, errno) << "of " #call; \
  } while (0)

struct Extents {
  std::string map;  // every extent: where in the file and on the disk, how long, preallocated or not
  uint64_t exclusive = 0;  // bytes on the disk that no other file has
};

Extents extentsOf(const std::string &path) {
  Extents result;
  Descriptor fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  std::vector<char> buffer(sizeof(fiemap) + 1000 * sizeof(fiemap_extent));
  auto *map = reinterpret_cast<fiemap *>(buffer.data());
  map->fm_length = FIEMAP_MAX_OFFSET;
  map->fm_flags = FIEMAP_FLAG_SYNC;
  map->fm_extent_count = 1000;
  EXPECT_EQ(0, ioctl(fd.get(), FS_IOC_FIEMAP, map)) << path;
  EXPECT_LT(map->fm_mapped_extents, 1000u);
  for (uint32_t i = 0; i < map->fm_mapped_extents; i++) {
    const fiemap_extent &one = map->fm_extents[i];
    bool is_inline = (one.fe_flags & FIEMAP_EXTENT_DATA_INLINE) != 0;
    result.map += std::to_string(one.fe_logical) + ">" +
                  (is_inline ? "inline" : std::to_string(one.fe_physical)) + "+" +
                  std::to_string(one.fe_length) +
                  ((one.fe_flags & FIEMAP_EXTENT_UNWRITTEN) != 0 ? "u " : " ");
    if (!is_inline && (one.fe_flags & FIEMAP_EXTENT_SHARED) == 0) result.exclusive += one.fe_length;
  }
  return result;
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

std::string hex(const uint8_t *bytes, size_t count) {
  std::string text;
  char two[3];
  for (size_t i = 0; i < count; i++) {
    snprintf(two, sizeof two, "%02x", bytes[i]);
    text += two;
  }
  return text;
}

std::string cloneBytes(uint64_t parent, const char *flags, unsigned depth) {
  char text[40];
  snprintf(text, sizeof text, "%016llx00000000%s00%04x", static_cast<unsigned long long>(parent), flags,
           depth);
  return text;
}

class Clones : public testing::Test {
 protected:
  static void SetUpTestSuite() { fs_ = std::make_unique<LoopBtrfs>("clones"); }
  static void TearDownTestSuite() { fs_.reset(); }
  // A fileset for every test.
  void SetUp() override {
    name_ = testing::UnitTest::GetInstance()->current_test_info()->name();
    tree_ = std::make_unique<TreeBuilder>(fs_->createSubvolume(name_));
    active_ = openHandle(fs_->mountPoint(), name_);
  }

  std::string at(const std::string &path) const { return tree_->root() + "/" + path; }
  Inode open(const std::string &path) const { return openInode(active_, tree_->inode(path)); }
  int snap(const std::string &path) const { return kest_clone_snap(at(path).c_str(), nullptr); }
  int copy(const std::string &parent, const std::string &path) const {
    return kest_clone_copy(at(parent).c_str(), at(path).c_str());
  }
  void parent(const std::string &path, uint64_t bytes = 256 * K) {
    tree_->big(path, bytes, 7);
    ASSERT_EQ(0, snap(path)) << path << ": " << strerror(errno);
  }
  // "CLONE", "CLONE CLONESNAP" where the second is not all 0, "" for neither clone nor parent.
  std::string attribute(const std::string &path) const {
    uint8_t clone[16], clone_snap[8];
    int rc = kest_iclone_attr(open(path).get(), clone, clone_snap);
    if (rc != 1) return rc == 0 ? "" : strerror(errno);
    std::string second = hex(clone_snap, sizeof clone_snap);
    return hex(clone, sizeof clone) + (second == std::string(16, '0') ? "" : " " + second);
  }
  bool immutable(const std::string &path) const {
    Descriptor fd(::open(at(path).c_str(), O_RDONLY | O_CLOEXEC));
    int flags = 0;
    EXPECT_EQ(0, ioctl(fd.get(), FS_IOC_GETFLAGS, &flags));
    return (flags & FS_IMMUTABLE_FL) != 0;
  }
  kest_snapid_t idOf(const Handle &handle) const {
    kest_snapid_t id = 0;
    EXPECT_EQ(0, kest_get_fssnapid_from_fssnaphandle(handle.get(), &id));
    return id;
  }

  static std::unique_ptr<LoopBtrfs> fs_;
  std::string name_;
  std::unique_ptr<TreeBuilder> tree_;
  Handle active_;
};

std::unique_ptr<LoopBtrfs> Clones::fs_;

TEST_F(Clones, AParentIsReadOnlyAndKeepsItsTimes) {
  tree_->big("p", 64 * K, 1);
  tree_->mtime("p", 1234567890, 987654321);
  std::string times = timesOf(at("p"));
  Inode before = open("p");  // not yet open for writing
  ASSERT_EQ(0, snap("p")) << strerror(errno);
  EXPECT_EQ(times, timesOf(at("p")));
  EXPECT_EQ(cloneBytes(0, "80", 0), attribute("p"));
  std::string data = tree_->read("p");

  tree_->file("other", data);
  EXPECT_FAILS(EROFS, snap("p"));
  EXPECT_FAILS(EROFS, kest_truncate(active_.get(), at("p").c_str(), 1, 0));
  EXPECT_FAILS(EROFS, kest_open_file(active_.get(), at("p").c_str(), O_WRONLY, 0));
  EXPECT_FAILS(EROFS, kest_iwritex(before.get(), "x", 1, 0, 0));
  EXPECT_FAILS(EROFS, kest_iwritex(open("p").get(), nullptr, 4096, 0, 1));
  EXPECT_FAILS(EROFS, kest_ishare(open("other").get(), open("p").get(), 0, 64 * K));
  EXPECT_EQ(data, tree_->read("p"));

  tree_->immutable("p", false);  // by an administrator, or by a process lost halfway
  EXPECT_EQ(0, snap("p"));
  EXPECT_TRUE(immutable("p"));
  EXPECT_EQ(cloneBytes(0, "80", 0), attribute("p"));
}

TEST_F(Clones, WhatCannotBecomeAParent) {
  tree_->dir("dir");
  tree_->fifo("fifo");
  tree_->file("file", "data");
  tree_->symlink("file", "link");
  EXPECT_FAILS(EINVAL, snap("dir"));
  EXPECT_FAILS(EINVAL, snap("fifo"));
  EXPECT_FAILS(EINVAL, snap("link"));
  EXPECT_FAILS(ENOENT, snap("none"));
  EXPECT_FAILS(ENOENT, kest_clone_snap("", nullptr));
  {
    Descriptor writer(::open(at("file").c_str(), O_WRONLY | O_CLOEXEC));
    EXPECT_FAILS(EBUSY, snap("file"));
    EXPECT_EQ("", attribute("file"));
    EXPECT_FALSE(immutable("file"));
  }
  tree_->immutable("file");
  EXPECT_FAILS(EROFS, snap("file"));
  tree_->immutable("file", false);
  tree_->appendOnly("file");
  EXPECT_FAILS(EROFS, snap("file"));
  tree_->appendOnly("file", false);
  EXPECT_EQ("", attribute("file"));
  fs_->snapshot(name_, "snap of " + name_);
  EXPECT_FAILS(EROFS, kest_clone_snap((fs_->path("snap of " + name_) + "/file").c_str(), nullptr));
  Descriptor reader(::open(at("file").c_str(), O_RDONLY | O_CLOEXEC));
  EXPECT_EQ(0, snap("file")) << strerror(errno);
}

TEST_F(Clones, ACloneSharesAllOfItsParent) {
  tree_->dir("plain");
  tree_->dir("nocow");
  tree_->noCow("nocow");
  tree_->dir("squeezed");
  tree_->setXattr("squeezed", "btrfs.compression", "zstd");
  tree_->big("plain/whole", 300 * K + 5, 1);
  tree_->big("nocow/whole", 300 * K + 5, 2);
  tree_->big("squeezed/whole", 300 * K + 5, 3);
  tree_->file("squeezed/letters", std::string(300 * K, 'a'));
  tree_->file("plain/tiny", "inline");
  tree_->file("plain/empty");
  tree_->file("nocow/empty");
  tree_->sparse("plain/sparse", 1024 * K, {0, 512 * K});
  tree_->file("plain/preallocated", "x");
  tree_->preallocate("plain/preallocated", 0, 512 * K);
  for (std::string one :
       {"plain/whole", "nocow/whole", "squeezed/whole", "squeezed/letters", "plain/tiny", "plain/empty",
        "nocow/empty", "plain/sparse", "plain/preallocated"}) {
    // The folder decides whether a new file is no-copy-on-write or compressed; the parent has the last
    // word.
    for (std::string folder : {"plain", "nocow", "squeezed"}) {
      std::string clone =
          folder + "/clone of " + one.substr(0, one.find('/')) + one.substr(one.find('/') + 1);
      SCOPED_TRACE(clone);
      ASSERT_TRUE(snap(one) == 0 || errno == EROFS);
      ASSERT_EQ(0, copy(one, clone)) << strerror(errno);
      Extents of_parent = extentsOf(at(one)), of_clone = extentsOf(at(clone));
      EXPECT_EQ(of_parent.map, of_clone.map);
      EXPECT_EQ(0u, of_parent.exclusive);
      EXPECT_EQ(0u, of_clone.exclusive);
      EXPECT_EQ(tree_->read(one), tree_->read(clone));
      EXPECT_EQ(mode_t{S_IFREG | 0600}, statOf(at(clone)).st_mode);
      EXPECT_EQ(cloneBytes(tree_->inode(one), "00", 1), attribute(clone));
    }
  }
  EXPECT_FALSE(extentsOf(at("plain/whole")).map.empty());
  std::string before = tree_->read("plain/whole");
  tree_->write("nocow/clone of plainwhole", 4096, "changed");
  EXPECT_EQ(before, tree_->read("plain/whole"));
  EXPECT_EQ(4 * K, extentsOf(at("nocow/clone of plainwhole")).exclusive);
}

TEST_F(Clones, CloneOfACloneOfAClone) {
  parent("p");
  std::string last = "p";
  for (unsigned depth = 1; depth <= 5; depth++) {
    std::string clone = "c" + std::to_string(depth);
    ASSERT_EQ(0, copy(last, clone)) << strerror(errno);
    EXPECT_FAILS(EINVAL, copy(clone, "x"));  // no parent yet
    tree_->write(clone, 0, clone);
    ASSERT_EQ(0, snap(clone));
    EXPECT_EQ(cloneBytes(tree_->inode(last), "80", depth), attribute(clone));
    EXPECT_EQ(4 * K, extentsOf(at(clone)).exclusive);
    last = clone;
  }
  tree_->immutable("c5", false);
  tree_->setXattr("c5", "trusted.kest.CLONE",
                  std::string("\0\0\0\0\0\0\1\1\0\0\0\0\x80\0\xff\xff", 16));
  EXPECT_FAILS(EOVERFLOW, copy("c5", "x"));
  EXPECT_FALSE(tree_->exists("x"));
}

TEST_F(Clones, TheParentMayLieInASnapshot) {
  parent("p");
  fs_->snapshot(name_, "old of " + name_);
  std::string old = fs_->path("old of " + name_);
  Handle snapshot = openHandle(fs_->mountPoint(), name_, ("old of " + name_).c_str());
  ASSERT_EQ(0, kest_clone_copy((old + "/p").c_str(), at("c").c_str())) << strerror(errno);
  char id[17];
  snprintf(id, sizeof id, "%016llx", static_cast<unsigned long long>(idOf(snapshot)));
  EXPECT_EQ(cloneBytes(tree_->inode("p"), "40", 1) + " " + id, attribute("c"));
  EXPECT_EQ(extentsOf(at("p")).map, extentsOf(at("c")).map);
  ASSERT_EQ(0, snap("c"));
  EXPECT_EQ(cloneBytes(tree_->inode("p"), "c0", 1) + " " + id, attribute("c"));

  // In a tree that has nothing to do with the parent's its number would mean something else.
  std::string stranger = fs_->createSubvolume("unrelated of " + name_);
  EXPECT_FAILS(EXDEV, kest_clone_copy(at("p").c_str(), (stranger + "/c").c_str()));
  EXPECT_FAILS(EXDEV, kest_clone_copy(at("p").c_str(), "/mnt/clone"));
  EXPECT_FAILS(EROFS, kest_clone_copy(at("p").c_str(), (old + "/c").c_str()));
  EXPECT_TRUE(TreeBuilder(stranger).names("").empty());
}

TEST_F(Clones, AFailedCopyLeavesNothing) {
  parent("p");
  tree_->file("ordinary", "data");
  tree_->symlink("p", "link");
  tree_->dir("immutable");
  tree_->dir("append");
  tree_->immutable("immutable");
  tree_->appendOnly("append");
  EXPECT_FAILS(EEXIST, copy("p", "ordinary"));
  EXPECT_FAILS(EEXIST, copy("p", "link"));
  EXPECT_FAILS(EINVAL, copy("ordinary", "x"));
  EXPECT_FAILS(EINVAL, copy("link", "x"));
  EXPECT_FAILS(EINVAL, copy("append", "x"));
  EXPECT_FAILS(ENOENT, copy("none", "x"));
  EXPECT_FAILS(ENOENT, copy("p", "none/x"));
  EXPECT_FAILS(EROFS, copy("p", "immutable/x"));
  EXPECT_EQ(0, copy("p", "append/x")) << strerror(errno);
  tree_->immutable("immutable", false);
  tree_->appendOnly("append", false);
  EXPECT_EQ((std::vector<std::string>{"append", "immutable", "link", "ordinary", "p"}),
            tree_->names(""));
  EXPECT_TRUE(tree_->names("immutable").empty());
}

TEST_F(Clones, NamesOfAParentComeAndGo) {
  parent("one");
  parent("two");
  std::string times = timesOf(at("two"));
  kest_fssnap_handle_t *active = active_.get();
  EXPECT_EQ(0, kest_unlink(active, at("one").c_str(), 0)) << strerror(errno);
  EXPECT_FALSE(tree_->exists("one"));

  EXPECT_EQ(0, kest_link(active, at("two").c_str(), at("second").c_str(), 0)) << strerror(errno);
  EXPECT_TRUE(immutable("two"));
  EXPECT_EQ(0, kest_rename_noreplace(active, at("two").c_str(), at("moved").c_str(), 0))
      << strerror(errno);
  EXPECT_TRUE(immutable("moved"));
  EXPECT_EQ(0, kest_unlink(active, at("second").c_str(), 0)) << strerror(errno);
  EXPECT_TRUE(immutable("moved"));
  EXPECT_EQ(cloneBytes(0, "80", 0), attribute("moved"));
  EXPECT_EQ(times, timesOf(at("moved")));

  tree_->file("taken", "data");
  EXPECT_FAILS(EEXIST, kest_rename_noreplace(active, at("moved").c_str(), at("taken").c_str(), 0));
  EXPECT_FAILS(EEXIST, kest_link(active, at("moved").c_str(), at("taken").c_str(), 0));
  EXPECT_FAILS(ENOENT, kest_rename_noreplace(active, at("moved").c_str(), at("none/x").c_str(), 0));
  EXPECT_TRUE(immutable("moved"));

  // The flags of directories and of ordinary files forbid what they always did.
  tree_->dir("dir");
  parent("dir/p");
  tree_->immutable("taken");
  struct stat before = statOf(at("dir/p"));
  for (bool append : {false, true}) {
    append ? tree_->appendOnly("dir") : tree_->immutable("dir");
    EXPECT_FAILS(EROFS, kest_unlink(active, at("dir/p").c_str(), 0));
    EXPECT_FAILS(EROFS, kest_rename_noreplace(active, at("dir/p").c_str(), at("x").c_str(), 0));
    if (!append) {
      EXPECT_FAILS(EROFS, kest_link(active, at("moved").c_str(), at("dir/x").c_str(), 0));
    }
    append ? tree_->appendOnly("dir", false) : tree_->immutable("dir", false);
  }
  struct stat after = statOf(at("dir/p"));
  EXPECT_EQ(before.st_ctim.tv_sec, after.st_ctim.tv_sec);
  EXPECT_EQ(before.st_ctim.tv_nsec, after.st_ctim.tv_nsec) << "its flag was lifted for nothing";
  EXPECT_FAILS(EROFS, kest_unlink(active, at("taken").c_str(), 0));
  tree_->immutable("dir/p", false);
  tree_->appendOnly("dir/p");  // of a parent, too, it says more than being one
  EXPECT_FAILS(EROFS, kest_unlink(active, at("dir/p").c_str(), 0));
}

TEST_F(Clones, SeveralWorkersAtTheNamesOfOneParent) {
  parent("p");
  constexpr int kNames = 300, kWorkers = 4;
  for (int i = 0; i < kNames * kWorkers; i++)
    ASSERT_EQ(0, kest_link(active_.get(), at("p").c_str(), at("name" + std::to_string(i)).c_str(), 0));
  std::vector<int> failures(kWorkers);
  std::vector<std::thread> workers;
  for (int worker = 0; worker < kWorkers; worker++) {
    workers.emplace_back([&, worker] {
      for (int i = worker; i < kNames * kWorkers; i += kWorkers)
        failures[worker] += kest_unlink(active_.get(), at("name" + std::to_string(i)).c_str(), 0) != 0;
    });
  }
  for (std::thread &worker : workers) worker.join();
  EXPECT_EQ(std::vector<int>(kWorkers), failures);
  EXPECT_EQ(std::vector<std::string>{"p"}, tree_->names(""));
  EXPECT_TRUE(immutable("p"));
}

// The request of an attribute as a caller builds it; the value, or "reason N".
std::string requested(const std::string &path, const std::string &name, int32_t room) {
  struct {
    int32_t header[4];
    int32_t directive[6];
    char rest[64];
  } request{};
  int32_t name_room = static_cast<int32_t>((name.size() + 7) / 8 * 8);
  request.directive[0] = 24 + name_room + room;
  request.directive[1] = 6001;
  request.directive[2] = static_cast<int32_t>(name.size());
  request.directive[3] = room;
  request.header[0] = 16 + request.directive[0];
  request.header[1] = 1;
  memcpy(request.rest, name.data(), name.size());
  Descriptor fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (kest_fcntl(fd.get(), &request) != 0) return strerror(errno);
  if (request.directive[5] != 0)
    return "reason " + std::to_string(request.directive[5]) + " length " +
           std::to_string(request.directive[3]);
  return hex(reinterpret_cast<uint8_t *>(request.rest) + name_room,
             static_cast<size_t>(request.directive[3]));
}

TEST_F(Clones, AttributesByRequestAndByNumber) {
  parent("p");
  ASSERT_EQ(0, copy("p", "c"));
  EXPECT_EQ(cloneBytes(tree_->inode("p"), "00", 1), requested(at("c"), "kest.CLONE", 16));
  EXPECT_EQ("reason 29 length 16", requested(at("c"), "kest.CLONE", 8));
  EXPECT_EQ("reason 27 length 16", requested(at("c"), "kest.CLONESNAP", 16));

  tree_->dir("dir");
  tree_->file("none", "data");
  tree_->file("short", "data");
  tree_->file("half", "data");
  tree_->setXattr("short", "trusted.kest.CLONE", std::string(15, '\x80'));
  tree_->setXattr("half", "trusted.kest.CLONE", std::string("\0\0\0\0\0\0\1\1\0\0\0\0\x40\0\0\1", 16));
  for (const char *path : {"dir", "none", "short", "half"}) {
    EXPECT_EQ(0, kest_iclone_attr(open(path).get(), nullptr, nullptr)) << path;
  }
  EXPECT_FAILS(EINVAL, kest_clone_copy(at("short").c_str(), at("x").c_str()));
  EXPECT_FAILS(EINVAL, kest_iclone_attr(nullptr, nullptr, nullptr));
}

TEST_F(Clones, TheNumberOfTheParentCanBeSet) {
  parent("p");
  for (const char *name : {"c", "immutable", "append", "parent"}) ASSERT_EQ(0, copy("p", name));
  ASSERT_EQ(0, snap("parent"));
  tree_->immutable("immutable");
  tree_->appendOnly("append");
  for (const char *name : {"c", "immutable", "append", "parent"}) {
    std::string times = timesOf(at(name));
    EXPECT_EQ(0, kest_iset_clone_parent(open(name).get(), 0x0102030405060708)) << strerror(errno);
    EXPECT_EQ(cloneBytes(0x0102030405060708, name == std::string("parent") ? "80" : "00", 1),
              attribute(name));
    EXPECT_EQ(times, timesOf(at(name))) << name;
  }
  EXPECT_TRUE(immutable("immutable"));
  EXPECT_TRUE(immutable("parent"));
  EXPECT_FALSE(immutable("append"));
  EXPECT_FAILS(EROFS, kest_truncate(active_.get(), at("append").c_str(), 0, 0));
  tree_->file("none", "data");
  EXPECT_FAILS(EINVAL, kest_iset_clone_parent(open("none").get(), 300));
  EXPECT_FAILS(EINVAL, kest_iset_clone_parent(open("p").get(), 300));  // no clone itself
  fs_->snapshot(name_, "snap of " + name_);
  Handle snapshot = openHandle(fs_->mountPoint(), name_, ("snap of " + name_).c_str());
  EXPECT_FAILS(EROFS, kest_iset_clone_parent(openInode(snapshot, tree_->inode("c")).get(), 300));
}

TEST_F(Clones, RangesAreSharedFromTheSnapshot) {
  const std::string capability("\x01\0\0\x02\0\x20\0\0\0\0\0\0\0\0\0\0\0\0\0\0", 20);
  tree_->big("file", 300 * K + 5, 1);
  tree_->big("part", 300 * K, 1);
  tree_->sparse("sparse", 1024 * K, {0, 512 * K});
  tree_->big("nocow", 4 * K, 1);
  tree_->chmod("file", 04755);
  tree_->setXattr("file", "security.capability", capability);
  fs_->snapshot(name_, "snap of " + name_);
  TreeBuilder old(fs_->path("snap of " + name_));
  Handle snapshot = openHandle(fs_->mountPoint(), name_, ("snap of " + name_).c_str());
  auto share = [&](const std::string &name, int64_t offset, int64_t length) {
    return kest_ishare(openInode(snapshot, old.inode(name)).get(), open(name).get(), offset, length);
  };

  tree_->truncate("file", 100);
  tree_->setXattr("file", "security.capability", capability);
  EXPECT_EQ(0, share("file", 0, 300 * K + 5)) << strerror(errno);
  EXPECT_EQ(old.read("file"), tree_->read("file"));
  EXPECT_EQ(extentsOf(old.root() + "/file").map, extentsOf(at("file")).map);
  EXPECT_EQ(0u, extentsOf(at("file")).exclusive);
  EXPECT_EQ(mode_t{S_IFREG | 04755}, statOf(at("file")).st_mode);
  char value[64];
  EXPECT_EQ(20, lgetxattr(at("file").c_str(), "security.capability", value, sizeof value));

  tree_->pattern("part", 0, 300 * K, 99);
  EXPECT_EQ(0, share("part", 64 * K, 128 * K)) << strerror(errno);
  EXPECT_EQ(172 * K, extentsOf(at("part")).exclusive);
  EXPECT_EQ(old.read("part").substr(64 * K, 128 * K), tree_->read("part").substr(64 * K, 128 * K));
  EXPECT_EQ(0, share("part", 0, 0));
  EXPECT_FAILS(EINVAL, share("part", 64 * K, 100));
  EXPECT_FAILS(EINVAL, share("part", 100, 4 * K));
  EXPECT_FAILS(EINVAL, share("part", -4096, 4 * K));
  tree_->append("file", "longer");
  EXPECT_FAILS(EINVAL, share("file", 0, 300 * K + 5));  // would leave a part of a block behind it
  EXPECT_EQ(0, share("file", 0, 300 * K));

  tree_->pattern("sparse", 0, 1024 * K, 99);
  EXPECT_EQ(0, share("sparse", 0, 1024 * K));
  EXPECT_EQ(extentsOf(old.root() + "/sparse").map, extentsOf(at("sparse")).map);

  ino_t plain = old.inode("nocow");
  tree_->remove("nocow");
  tree_->file("nocow");
  tree_->noCow("nocow");
  EXPECT_FAILS(EINVAL, kest_ishare(openInode(snapshot, plain).get(), open("nocow").get(), 0, 4 * K));
  tree_->appendOnly("part");
  EXPECT_FAILS(EROFS, share("part", 0, 4 * K));
}

TEST_F(Clones, BlobsLeaveTheCloneAttributesAlone) {
  parent("p");
  fs_->snapshot(name_, "first of " + name_);
  ASSERT_EQ(0, kest_clone_copy((fs_->path("first of " + name_) + "/p").c_str(), at("c").c_str()));
  tree_->file("other", "data");
  tree_->setXattr("other", "user.note", "text");
  std::string attribute_before = attribute("c");
  Inode clone = open("c"), other = open("other");
  kest_iattr64_t attr;
  ASSERT_EQ(0, kest_istat(clone.get(), &attr));
  EXPECT_EQ(0u, attr.ia_xattr);
  char blob[4096];
  int size = -1;
  EXPECT_EQ(0, kest_igetattrsx(clone.get(), 32, blob, sizeof blob, &size));
  EXPECT_EQ(0, size);
  ASSERT_EQ(0, kest_igetattrsx(other.get(), 32, blob, sizeof blob, &size));
  ASSERT_EQ(0, kest_iputattrsx(clone.get(), 32, blob, nullptr));
  EXPECT_EQ(attribute_before, attribute("c"));
  EXPECT_EQ(0, kest_iputattrsx(clone.get(), 32, nullptr, nullptr));
  EXPECT_EQ(attribute_before, attribute("c"));
  EXPECT_LT(lgetxattr(at("c").c_str(), "user.note", nullptr, 0), 0);
}

TEST_F(Clones, TheDifferenceComparesTheCloneAttributes) {
  parent("p");
  ASSERT_EQ(0, copy("p", "c"));
  tree_->file("later", "data");
  fs_->snapshot(name_, "snap of " + name_);
  Handle snapshot = openHandle(fs_->mountPoint(), name_, ("snap of " + name_).c_str());
  std::string number = std::to_string(tree_->inode("c"));
  auto difference = [&] { return inodesOf(openDifference(active_, snapshot)); };
  ASSERT_EQ("", difference());
  ASSERT_EQ(0, kest_iset_clone_parent(open("c").get(), 4711));
  EXPECT_EQ(number, difference());
  ASSERT_EQ(0, kest_iset_clone_parent(open("c").get(), tree_->inode("p")));
  EXPECT_EQ("", difference());
  ASSERT_EQ(0, snap("later"));
  EXPECT_EQ(std::to_string(tree_->inode("later")), difference());
  ASSERT_EQ(0, kest_link(active_.get(), at("p").c_str(), at("q").c_str(), 0));
  ASSERT_EQ(0, kest_unlink(active_.get(), at("q").c_str(), 0));
  // p is what it was, unlike the directory's time.
  EXPECT_EQ("256 " + std::to_string(tree_->inode("later")), difference());
}

TEST_F(Clones, BlockMap) {
  std::vector<uint64_t> islands;
  for (uint64_t i = 0; i < 100; i++) islands.push_back(i * 16 * K);
  tree_->sparse("file", 100 * 16 * K, islands);
  Descriptor fd(::open(at("file").c_str(), O_RDONLY | O_CLOEXEC));
  kest_block_map_t map{};
  // In answers of one table each: every stretch once, data and holes by turns.
  int64_t end = 0;
  unsigned stretches = 0;
  for (map.bm_end = INT64_MAX; map.bm_start < int64_t{100 * 16 * K};
       map.bm_start = map.bm_end, map.bm_end = INT64_MAX) {
    ASSERT_EQ(0, kxfattr(fd.get(), KEST_BLOCK_MAP, &map, nullptr)) << strerror(errno);
    ASSERT_GT(map.bm_count, 0u);
    for (uint32_t i = 0; i < map.bm_count; i++, stretches++) {
      EXPECT_EQ(end, map.bm_extents[i].ex_start);
      EXPECT_EQ(stretches % 2, map.bm_extents[i].ex_hole);
      end = map.bm_extents[i].ex_end;
    }
    EXPECT_EQ(end, map.bm_end);
  }
  EXPECT_EQ(200u, stretches);
  EXPECT_EQ(int64_t{100 * 16 * K}, end);
  EXPECT_EQ(0, kxfattr(fd.get(), KEST_BLOCK_MAP, &map, nullptr));
  EXPECT_EQ(0u, map.bm_count);
  map.bm_start = 2 * K;
  map.bm_end = 3 * K;
  EXPECT_EQ(0, kxfattr(fd.get(), KEST_BLOCK_MAP, &map, nullptr));
  EXPECT_EQ(1u, map.bm_count);
  EXPECT_EQ(int64_t{3 * K}, map.bm_extents[0].ex_end);
  EXPECT_FAILS(EINVAL, kxfattr(fd.get(), 85, &map, nullptr));
  Descriptor dir(::open(tree_->root().c_str(), O_RDONLY | O_CLOEXEC));
  EXPECT_FAILS(EINVAL, kxfattr(dir.get(), KEST_BLOCK_MAP, &map, nullptr));
}

}  // namespace
