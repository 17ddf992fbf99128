// Clone parents and clones on a real btrfs: what they share, what is forbidden, and how they come and
// go.
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <thread>

#include "platform/kest_reader.h"
#include "support/clone_print.h"

namespace {

using namespace kesttest;
using testsupport::Descriptor;
using testsupport::TreeBuilder;

constexpr uint64_t K = 1024;

// Returns the place of each block of a file.
std::vector<std::pair<uint64_t, uint64_t>> blocksOf(const std::string &path) {
  Descriptor fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  EXPECT_EQ(0, fsync(fd.get()));
  const testsupport::PlacedBlocks blocks = testsupport::physicalBlocks(fd.get(), path);
  return {blocks.begin(), blocks.end()};
}

class Clones : public LibraryTest {
 protected:
  int snap(const std::string &path) const { return kest_clone_snap(at(path).c_str(), nullptr); }
  int copy(const std::string &parent, const std::string &path) const {
    return kest_clone_copy(at(parent).c_str(), at(path).c_str());
  }
  void parent(const std::string &path) {
    tree_->big(path, 256 * K, 7);
    ASSERT_EQ(0, snap(path)) << path << ": " << strerror(errno);
  }
  // Returns "clone 1 of 257", "clone 1 of snapshot 300 inode 257, parent", "parent", or "" for neither.
  std::string state(const std::string &path) const {
    uint8_t clone[16], clone_snap[8];
    int rc = kest_iclone_attr(open(path).get(), clone, clone_snap);
    if (rc != 1) return rc == 0 ? "" : strerror(errno);
    const auto print = testsupport::readClone(std::string(clone, std::end(clone)),
                                              std::string(clone_snap, std::end(clone_snap)));
    if (print->depth == 0) return print->parent ? "parent" : "damaged";
    const std::string &snapshot = print->parentPath;
    return "clone " + std::to_string(print->depth) + " of " +
           (snapshot.empty() ? std::to_string(print->parentInode) : snapshot) +
           (print->parent ? ", parent" : "");
  }
  bool immutable(const std::string &path) const {
    Descriptor fd(::open(at(path).c_str(), O_RDONLY | O_CLOEXEC));
    int flags = 0;
    EXPECT_EQ(0, ioctl(fd.get(), FS_IOC_GETFLAGS, &flags));
    return (flags & FS_IMMUTABLE_FL) != 0;
  }
};

TEST_F(Clones, AParentIsReadOnlyAndKeepsItsTimes) {
  tree_->big("p", 64 * K, 1);
  tree_->mtime("p", 1234567890, 987654321);
  std::string times = timesOf(at("p")), data = tree_->read("p");
  Inode before = open("p");  // not open for writing yet
  ASSERT_EQ(0, snap("p")) << strerror(errno);
  EXPECT_EQ("parent", state("p"));

  tree_->file("other", data);
  EXPECT_FAILS(EROFS, snap("p"));
  EXPECT_FAILS(EROFS, kest_truncate(active_.get(), at("p").c_str(), 1, 0));
  EXPECT_FAILS(EROFS, kest_iwritex(before.get(), "x", 1, 0, 0));
  EXPECT_FAILS(EROFS, kest_iwritex(open("p").get(), nullptr, 4096, 0, 1));
  EXPECT_FAILS(EROFS, kest_ishare(open("other").get(), open("p").get(), 0, 64 * K));
  EXPECT_EQ(data, tree_->read("p"));

  tree_->immutable("p", false);  // as an administrator or a process that died may leave it
  EXPECT_EQ(0, snap("p"));
  EXPECT_TRUE(immutable("p"));
  EXPECT_EQ("parent", state("p"));
  EXPECT_EQ(times, timesOf(at("p")));
}

TEST_F(Clones, WhatCannotBecomeAParent) {
  tree_->dir("dir");
  tree_->fifo("fifo");
  tree_->file("file", "data");
  tree_->symlink("file", "link");
  for (const char *name : {"dir", "fifo", "link"}) EXPECT_FAILS(EINVAL, snap(name));
  EXPECT_FAILS(ENOENT, snap("none"));
  EXPECT_FAILS(ENOENT, kest_clone_snap("", nullptr));
  {
    Descriptor writer(::open(at("file").c_str(), O_WRONLY | O_CLOEXEC));
    EXPECT_FAILS(EBUSY, snap("file"));
    EXPECT_FALSE(immutable("file"));
  }
  tree_->immutable("file");
  EXPECT_FAILS(EROFS, snap("file"));
  tree_->immutable("file", false);
  tree_->appendOnly("file");
  EXPECT_FAILS(EROFS, snap("file"));
  tree_->appendOnly("file", false);
  EXPECT_EQ("", state("file"));
  EXPECT_FAILS(EROFS, kest_clone_snap((snapshot() + "/file").c_str(), nullptr));
  Descriptor reader(::open(at("file").c_str(), O_RDONLY | O_CLOEXEC));
  EXPECT_EQ(0, snap("file")) << strerror(errno);
}

TEST_F(Clones, ACloneSharesAllOfItsParent) {
  for (const char *folder : {"plain", "nocow", "squeezed"}) tree_->dir(folder);
  tree_->noCow("nocow");
  tree_->setXattr("squeezed", "btrfs.compression", "zstd");
  tree_->big("plain/whole", 300 * K + 5, 1);
  tree_->big("nocow/whole", 300 * K + 5, 2);
  tree_->file("squeezed/letters", std::string(300 * K, 'a'));
  tree_->file("plain/tiny", "inline");
  tree_->file("nocow/empty");
  tree_->sparse("plain/sparse", 1024 * K, {0, 512 * K});
  tree_->preallocate("plain/sparse", 600 * K, 64 * K);
  for (std::string one : {"plain/whole", "nocow/whole", "squeezed/letters", "plain/tiny", "nocow/empty",
                          "plain/sparse"}) {
    ASSERT_EQ(0, snap(one));
    // The folder decides whether a new file is no-copy-on-write or compressed, but the parent overrides
    // that.
    for (std::string folder : {"plain", "nocow", "squeezed"}) {
      std::string clone = folder + "/clone of " + one.substr(one.find('/') + 1) + one[0];
      SCOPED_TRACE(clone);
      ASSERT_EQ(0, copy(one, clone)) << strerror(errno);
      EXPECT_EQ(blocksOf(at(one)), blocksOf(at(clone)));
      EXPECT_EQ(tree_->read(one), tree_->read(clone));
      EXPECT_EQ(mode_t{S_IFREG | 0600}, statOf(at(clone)).st_mode);
      EXPECT_EQ("clone 1 of " + std::to_string(inode(one)), state(clone));
    }
  }
  tree_->write("nocow/clone of wholep", 4096, "changed");
  EXPECT_EQ(testsupport::patternBytes(1, 0, 300 * K + 5), tree_->read("plain/whole"));
}

TEST_F(Clones, TheParentMayLieInASnapshot) {
  parent("p");
  std::string old = snapshot();
  ASSERT_EQ(0, kest_clone_copy((old + "/p").c_str(), at("c").c_str())) << strerror(errno);
  const std::string expected =
      "clone 1 of snapshot " + std::to_string(idOf(snapshot_)) + " inode " + std::to_string(inode("p"));
  EXPECT_EQ(expected, state("c"));
  EXPECT_EQ(blocksOf(at("p")), blocksOf(at("c")));
  ASSERT_EQ(0, snap("c"));
  EXPECT_EQ(expected + ", parent", state("c"));

  // In an unrelated tree, the parent's number would mean another file.
  std::string stranger = fs_->createSubvolume("unrelated of " + name_);
  EXPECT_FAILS(EXDEV, kest_clone_copy(at("p").c_str(), (stranger + "/c").c_str()));
  EXPECT_FAILS(EXDEV, kest_clone_copy(at("p").c_str(), "/mnt/clone"));
  EXPECT_FAILS(EROFS, kest_clone_copy(at("p").c_str(), (old + "/c").c_str()));
  EXPECT_TRUE(TreeBuilder(stranger).names("").empty());
}

TEST_F(Clones, AFailedCopyLeavesNothing) {
  parent("p");
  ASSERT_EQ(0, copy("p", "clone"));
  parent("deepest");
  tree_->immutable("deepest", false);
  tree_->setXattr("deepest", "trusted.kest.CLONE",
                  std::string("\0\0\0\0\0\0\1\1\0\0\0\0\x80\0\xff\xff", 16));
  tree_->file("ordinary", "data");
  tree_->file("damaged", "data");
  tree_->setXattr("damaged", "trusted.kest.CLONE", std::string(15, '\x80'));
  tree_->symlink("p", "link");
  tree_->dir("immutable");
  tree_->immutable("immutable");
  const std::vector<std::string> before = tree_->names("");
  EXPECT_FAILS(EEXIST, copy("p", "ordinary"));
  EXPECT_FAILS(EEXIST, copy("p", "link"));
  for (const char *no_parent : {"ordinary", "link", "immutable", "clone", "damaged"})
    EXPECT_FAILS(EINVAL, copy(no_parent, "x"));
  EXPECT_FAILS(EOVERFLOW, copy("deepest", "x"));
  EXPECT_FAILS(ENOENT, copy("none", "x"));
  EXPECT_FAILS(ENOENT, copy("p", "none/x"));
  EXPECT_FAILS(EROFS, copy("p", "immutable/x"));
  EXPECT_EQ(before, tree_->names(""));
  EXPECT_TRUE(tree_->names("immutable").empty());
}

TEST_F(Clones, NamesOfAParentComeAndGo) {
  parent("one");
  parent("two");
  std::string times = timesOf(at("two"));
  kest_fssnap_handle_t *active = active_.get();
  EXPECT_EQ(0, kest_unlink(active, at("one").c_str(), 0)) << strerror(errno);
  EXPECT_EQ(0, kest_link(active, at("two").c_str(), at("second").c_str(), 0)) << strerror(errno);
  EXPECT_EQ(0, kest_rename_noreplace(active, at("two").c_str(), at("moved").c_str(), 0));
  EXPECT_TRUE(immutable("moved"));
  EXPECT_EQ(0, kest_unlink(active, at("second").c_str(), 0)) << strerror(errno);
  EXPECT_EQ("parent", state("moved"));
  EXPECT_EQ(times, timesOf(at("moved")));

  tree_->file("taken", "data");
  EXPECT_FAILS(EEXIST, kest_rename_noreplace(active, at("moved").c_str(), at("taken").c_str(), 0));
  EXPECT_FAILS(EEXIST, kest_link(active, at("moved").c_str(), at("taken").c_str(), 0));
  EXPECT_TRUE(immutable("moved"));

  // Flags of directories and ordinary files still forbid what they always did.
  tree_->dir("dir");
  parent("dir/p");
  struct stat before = statOf(at("dir/p"));
  tree_->immutable("dir");
  EXPECT_FAILS(EROFS, kest_unlink(active, at("dir/p").c_str(), 0));
  EXPECT_FAILS(EROFS, kest_rename_noreplace(active, at("dir/p").c_str(), at("x").c_str(), 0));
  EXPECT_FAILS(EROFS, kest_link(active, at("moved").c_str(), at("dir/x").c_str(), 0));
  EXPECT_EQ(before.st_ctim.tv_nsec, statOf(at("dir/p")).st_ctim.tv_nsec) << "lifted for nothing";
  tree_->immutable("dir", false);
  tree_->immutable("dir/p", false);
  tree_->appendOnly("dir/p");  // a parent that is append-only, too, is more than a parent
  EXPECT_FAILS(EROFS, kest_unlink(active, at("dir/p").c_str(), 0));
}

TEST_F(Clones, SeveralWorkersAtTheNamesOfOneParent) {
  parent("p");
  constexpr int kNames = 300, kWorkers = 4;
  auto name = [this](int i) { return at("name" + std::to_string(i)); };
  for (int i = 0; i < kNames * kWorkers; i++)
    ASSERT_EQ(0, kest_link(active_.get(), at("p").c_str(), name(i).c_str(), 0));
  std::vector<int> failures(kWorkers);
  std::vector<std::thread> workers;
  for (int worker = 0; worker < kWorkers; worker++) {
    workers.emplace_back([&, worker] {
      for (int i = worker; i < kNames * kWorkers; i += kWorkers)
        failures[worker] += kest_unlink(active_.get(), name(i).c_str(), 0) != 0;
    });
  }
  for (std::thread &worker : workers) worker.join();
  EXPECT_EQ(std::vector<int>(kWorkers), failures);
  EXPECT_EQ(std::vector<std::string>{"p"}, tree_->names(""));
  EXPECT_TRUE(immutable("p"));
}

TEST_F(Clones, TheNumberOfTheParentCanBeSet) {
  parent("p");
  for (const char *name : {"c", "immutable", "append", "parent"}) ASSERT_EQ(0, copy("p", name));
  ASSERT_EQ(0, snap("parent"));
  tree_->immutable("immutable");
  tree_->appendOnly("append");
  tree_->immutable("parent", false);  // as another process does for a moment
  for (const char *name : {"c", "immutable", "append", "parent"}) {
    std::string times = timesOf(at(name));
    EXPECT_EQ(0, kest_iset_clone_parent(open(name).get(), 0x0102030405060708)) << strerror(errno);
    EXPECT_EQ(0u, state(name).find("clone 1 of 72623859790382856")) << state(name);
    EXPECT_EQ(times, timesOf(at(name))) << name;
    EXPECT_EQ(std::string("immutable parent").find(name) != std::string::npos, immutable(name));
  }
  EXPECT_FAILS(EROFS, kest_truncate(active_.get(), at("append").c_str(), 0, 0));
  EXPECT_FAILS(EINVAL, kest_iset_clone_parent(open("p").get(), 300));  // not a clone itself
  tree_->dir("dir");
  tree_->file("none", "data");
  tree_->file("half", "data");
  tree_->setXattr("half", "trusted.kest.CLONE", std::string("\0\0\0\0\0\0\1\1\0\0\0\0\x40\0\0\1", 16));
  for (const char *none : {"dir", "none", "half"}) {
    EXPECT_EQ(0, kest_iclone_attr(open(none).get(), nullptr, nullptr)) << none;
    EXPECT_FAILS(EINVAL, kest_iset_clone_parent(open(none).get(), 300));
  }
  snapshot();
  EXPECT_FAILS(EROFS, kest_iset_clone_parent(openInode(snapshot_, inode("c")).get(), 300));
}

TEST_F(Clones, RangesAreSharedFromTheSnapshot) {
  tree_->big("file", 300 * K + 5, 1);
  tree_->big("part", 300 * K, 1);
  tree_->big("nocow", 4 * K, 1);
  tree_->chmod("file", 04755);
  tree_->setXattr("file", "security.capability", kCapability);
  TreeBuilder old(snapshot());
  auto share = [&](const std::string &name, int64_t offset, int64_t length) {
    return kest_ishare(openInode(snapshot_, old.inode(name)).get(), open(name).get(), offset, length);
  };

  tree_->truncate("file", 100);
  tree_->setXattr("file", "security.capability", kCapability);
  EXPECT_EQ(0, share("file", 0, 300 * K + 5)) << strerror(errno);
  EXPECT_EQ(old.read("file"), tree_->read("file"));
  EXPECT_EQ(blocksOf(old.root() + "/file"), blocksOf(at("file")));
  EXPECT_EQ(mode_t{S_IFREG | 04755}, statOf(at("file")).st_mode);
  EXPECT_EQ(kCapability, xattrsOf(at("file"))["security.capability"]);

  tree_->pattern("part", 0, 300 * K, 99);
  EXPECT_EQ(0, share("part", 64 * K, 128 * K)) << strerror(errno);
  const auto had = blocksOf(old.root() + "/part"), has = blocksOf(at("part"));
  for (size_t i = 0; i < 75; i++) EXPECT_EQ(i >= 16 && i < 48, had[i] == has[i]) << i;
  EXPECT_EQ(0, share("part", 0, 0));
  EXPECT_FAILS(EINVAL, share("part", 64 * K, 100));
  EXPECT_FAILS(EINVAL, share("part", 100, 4 * K));
  EXPECT_FAILS(EINVAL, share("part", -4096, 4 * K));
  tree_->append("file", "longer");
  EXPECT_FAILS(EINVAL, share("file", 0, 300 * K + 5));  // would leave part of a block behind it

  ino_t plain = old.inode("nocow");
  tree_->remove("nocow");
  tree_->file("nocow");
  tree_->noCow("nocow");
  EXPECT_FAILS(EINVAL, kest_ishare(openInode(snapshot_, plain).get(), open("nocow").get(), 0, 4 * K));
  tree_->appendOnly("part");
  EXPECT_FAILS(EROFS, share("part", 0, 4 * K));
}

TEST_F(Clones, BlockMap) {
  std::vector<uint64_t> islands;
  for (uint64_t i = 0; i < 100; i++) islands.push_back(i * 16 * K);
  tree_->sparse("file", 100 * 16 * K, islands);
  Descriptor fd(::open(at("file").c_str(), O_RDONLY | O_CLOEXEC));
  // In answers of one table each: every stretch once, data and holes alternating.
  kest_block_map_t map{};
  for (int64_t end = 0; end < int64_t{100 * 16 * K}; map.bm_start = end) {
    map.bm_end = INT64_MAX;
    ASSERT_EQ(0, kxfattr(fd.get(), KEST_BLOCK_MAP, &map, nullptr)) << strerror(errno);
    ASSERT_GT(map.bm_count, 0u);
    for (uint32_t i = 0; i < map.bm_count; i++) {
      EXPECT_EQ(end, map.bm_extents[i].ex_start);
      EXPECT_EQ(end % (16 * K) != 0, map.bm_extents[i].ex_hole);
      end = map.bm_extents[i].ex_end;
    }
  }
  EXPECT_FAILS(EINVAL, kxfattr(fd.get(), 85, &map, nullptr));
}

}  // namespace
