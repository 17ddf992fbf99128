// Compares what the library knows about an open inode, in snapshot and fileset, with the kernel's
// answers. Also tests opening inodes by identity, and the cached directories of a handle.
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/xattr.h>
#include <unistd.h>

#include "platform/kest_reader.h"

namespace {

using namespace kesttest;
using testsupport::Descriptor;

// An access ACL with an entry for user 7, in the kernel's format.
const std::string kAcl(
    "\2\0\0\0\1\0\6\0\377\377\377\377\2\0\4\0\7\0\0\0\4\0\4\0\377\377\377\377\20\0\4\0\377\377\377\377"
    "\40\0\4\0\377\377\377\377",
    44);

class OpenInodes : public LibraryTest {
 protected:
  Inode openPath(const std::string &name) const {
    return Inode(kest_iopen_path(active_.get(), at(name).c_str()));
  }
  // Compares all facts of the inode with the object at `path`.
  void expectFacts(const Inode &file, const std::string &path) {
    SCOPED_TRACE(path);
    const struct stat want = statOf(path);
    kest_facts_t facts;
    ASSERT_EQ(0, kest_ifacts(file.get(), &facts));
    kest_iattr64_t attr;
    ASSERT_EQ(0, kest_istat(file.get(), &attr));
    EXPECT_EQ(0, memcmp(&attr, &facts.attr, sizeof attr));
    EXPECT_EQ(want.st_ino, facts.attr.ia_inode);
    EXPECT_EQ(want.st_mode, facts.attr.ia_mode);
    EXPECT_EQ(want.st_nlink, static_cast<nlink_t>(facts.attr.ia_nlink));
    EXPECT_EQ(want.st_size, facts.attr.ia_size);
    EXPECT_EQ(want.st_uid, facts.attr.ia_uid);
    EXPECT_EQ(want.st_gid, facts.attr.ia_gid);
    EXPECT_EQ(want.st_mtim.tv_nsec, facts.attr.ia_mtime.tv_nsec);
    EXPECT_EQ(want.st_atim.tv_nsec, facts.attr.ia_atime.tv_nsec);

    uint32_t has = 0;
    for (const auto &[name, value] : xattrsOf(path)) {
      char known[100];
      const int64_t length = kest_igetxattr(file.get(), name.c_str(), known, sizeof known);
      EXPECT_EQ(value, std::string(known, length < 0 ? 0 : static_cast<size_t>(length))) << name;
      if (name.starts_with("user.")) has |= KEST_HAS_BLOB;
      if (name == "security.capability") has |= KEST_HAS_BLOB | KEST_HAS_CAPABILITY;
      if (name.starts_with("system.")) has |= KEST_HAS_ACL;
      if (name == "trusted.kest.CLONE") has |= KEST_HAS_CLONE;
    }
    uint32_t protection = 0;
    if (S_ISREG(want.st_mode) || S_ISDIR(want.st_mode)) {
      const Descriptor fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
      int flags = 0;
      ASSERT_EQ(0, ioctl(fd.get(), FS_IOC_GETFLAGS, &flags));
      if (flags & FS_IMMUTABLE_FL) protection |= KEST_FP_IMMUTABLE;
      if (flags & FS_APPEND_FL) protection |= KEST_FP_APPEND_ONLY;
      if (flags & FS_NOATIME_FL) protection |= KEST_FP_NO_ATIME;
      if (flags & FS_NODUMP_FL) protection |= KEST_FP_NO_DUMP;
      if (flags & FS_SYNC_FL) protection |= KEST_FP_SYNC;
      if (flags & FS_DIRSYNC_FL) protection |= KEST_FP_DIRSYNC;
      if (flags & (FS_NOCOW_FL | FS_COMPR_FL | FS_NOCOMP_FL)) has |= KEST_HAS_BLOB;
    }
    EXPECT_EQ(protection, facts.protection);
    EXPECT_EQ(has, facts.has);
    EXPECT_EQ((has & KEST_HAS_BLOB) != 0, facts.attr.ia_xattr != 0);
    char byte;
    EXPECT_FAILS(ENODATA, kest_igetxattr(file.get(), "user.absent", &byte, 1));
  }
};

TEST_F(OpenInodes, FactsAreWhatTheKernelSays) {
  tree_->file("plain", "text", 04751);
  tree_->chown("plain", 5, 6);
  tree_->link("plain", "second");
  tree_->sparse("sparse", 1 << 20, {0, 65536});
  tree_->file("many", "x");
  tree_->setXattr("many", "user.a", "one");
  tree_->setXattr("many", "security.capability", kCapability);
  tree_->setXattr("many", "system.posix_acl_access", kAcl);
  tree_->file("fixed", "x");
  tree_->immutable("fixed");
  tree_->dir("log");
  tree_->setXattr("log", "system.posix_acl_default", kAcl);
  tree_->flag("log", FS_APPEND_FL | FS_NOATIME_FL | FS_NODUMP_FL | FS_SYNC_FL | FS_DIRSYNC_FL);
  tree_->dir("nocow");
  tree_->noCow("nocow");
  tree_->big("parent", 65536, 1);
  ASSERT_EQ(0, kest_clone_snap(at("parent").c_str(), nullptr));
  tree_->symlink("nowhere", "symlink");
  tree_->fifo("fifo");
  tree_->device("device", S_IFCHR, 7, 300);
  const std::string snap = snapshot();
  for (const std::string &name : tree_->names("")) {
    const Inode old = openInode(snapshot_, inode(name)), now = open(name);
    expectFacts(old, snap + "/" + name);
    expectFacts(now, at(name));
    expectFacts(openPath(name), at(name));
    EXPECT_EQ(1, kest_same_file(openPath(name).get(), old.get())) << name;
    const Inode named(kest_iopen_path(snapshot_.get(), (snap + "/" + name).c_str()));
    expectFacts(named, snap + "/" + name);
    const Inode same(kest_iopen_same(active_.get(), old.get()));
    ASSERT_NE(nullptr, same) << name;
    EXPECT_EQ(1, kest_same_file(same.get(), now.get())) << name;
    expectFacts(same, at(name));
  }
  // Facts of a snapshot's inode never change.
  tree_->append("plain", "more");
  expectFacts(openInode(snapshot_, inode("plain")), snap + "/plain");
}

TEST_F(OpenInodes, ByWhatTheyAre) {
  tree_->file("kept", "text");
  tree_->file("fixed", "text");
  tree_->immutable("fixed");
  tree_->file("gone", "text");
  snapshot();
  const Inode old = openInode(snapshot_, inode("kept"));
  Inode same(kest_iopen_same(active_.get(), old.get()));
  EXPECT_EQ(1, kest_iwritex(same.get(), "T", 1, 0, 0));
  EXPECT_EQ("Text", tree_->read("kept"));
  EXPECT_FAILS(EBUSY, kest_iclone_snap(same.get()));
  same.reset(kest_iopen_same(active_.get(), old.get()));
  EXPECT_EQ(0, kest_iclone_snap(same.get())) << "nothing was written through it";
  EXPECT_FAILS(EROFS, kest_iwritex(same.get(), "t", 1, 0, 0));
  const Inode fixed(kest_iopen_same(active_.get(), openInode(snapshot_, inode("fixed")).get()));
  EXPECT_FAILS(EROFS, kest_iwritex(fixed.get(), "t", 1, 0, 0));
  EXPECT_EQ(0, kest_iset_protection(fixed.get(), 0));
  EXPECT_EQ(1, kest_iwritex(fixed.get(), "t", 1, 0, 0));
  EXPECT_FAILS(EROFS, kest_iwritex(const_cast<kest_ifile_t *>(old.get()), "t", 1, 0, 0));

  const Inode lost = openInode(snapshot_, inode("gone"));
  const Descriptor held(::open(at("gone").c_str(), O_RDONLY | O_CLOEXEC));
  tree_->remove("gone");
  errno = 0;
  EXPECT_EQ(nullptr, kest_iopen_same(active_.get(), lost.get())) << "it is open, but has no name";
  EXPECT_EQ(ENOENT, errno);

  // Two relatives can give one number to different files.
  const std::string writable = fs_->snapshot(name_, name_ + "-fork", false);
  testsupport::TreeBuilder(writable).file("theirs", "x");
  usleep(20000);  // creation times are only as fine as the clock tick
  tree_->file("ours", "x");
  ASSERT_EQ(inode("ours"), testsupport::TreeBuilder(writable).inode("theirs"));
  const Handle relative = openHandle(fs_->mountPoint(), name_ + "-fork");
  errno = 0;
  EXPECT_EQ(nullptr, kest_iopen_same(active_.get(), openInode(relative, inode("ours")).get()));
  EXPECT_EQ(ENOENT, errno);
}

TEST_F(OpenInodes, ChangeThemselvesAlone) {
  tree_->dir("shared");
  tree_->setXattr("shared", "system.posix_acl_default", kAcl);
  const mode_t mask = umask(0277);
  Inode made(kest_icreate(active_.get(), at("shared/made").c_str(), 0600));
  umask(mask);
  ASSERT_NE(nullptr, made);
  EXPECT_EQ(inode("shared/made"), made->if_inode);
  EXPECT_EQ(S_IFREG | 0600u, statOf(at("shared/made")).st_mode);
  EXPECT_EQ(S_IFREG | 0600u, made->if_mode);
  errno = 0;
  EXPECT_EQ(nullptr, kest_icreate(active_.get(), at("shared/made").c_str(), 0600));
  EXPECT_EQ(EEXIST, errno);

  EXPECT_EQ(4, kest_iwritex(made.get(), "text", 4, 0, 0));
  EXPECT_EQ(0, kest_ichmod(made.get(), 06711));
  EXPECT_EQ(0, kest_isetxattr(made.get(), "security.capability", kCapability.data(), 20));
  EXPECT_EQ(0, kest_ichown(made.get(), 5, 6));
  EXPECT_EQ(1, kest_iwritex(made.get(), "T", 1, 0, 0));
  const kest_timestruc64_t times[4] = {{1, 2}, {3, 4}, {}, {}};
  EXPECT_EQ(0, kest_iset_times(made.get(), 3, times));
  EXPECT_EQ(kCapability, xattrsOf(at("shared/made"))["security.capability"]);
  const struct stat st = statOf(at("shared/made"));
  EXPECT_EQ(S_IFREG | 06711u, st.st_mode);
  EXPECT_EQ(5u, st.st_uid);
  EXPECT_EQ(3, st.st_mtim.tv_sec);
  char acl[100], value[20];
  const int32_t size = sizeof acl;
  memcpy(acl, &size, sizeof size);
  ASSERT_EQ(0, kest_igetacl(made.get(), 0, acl));
  EXPECT_EQ(0, kest_ichmod(made.get(), 0));
  EXPECT_EQ(0, kest_iputacl(made.get(), 0, acl));
  EXPECT_EQ(S_IFREG | 06711u, statOf(at("shared/made")).st_mode);
  EXPECT_FAILS(ERANGE, kest_igetxattr(made.get(), "security.capability", value, 19));
  EXPECT_EQ(0, kest_iset_protection(made.get(), KEST_FP_APPEND_ONLY));
  expectFacts(openPath("shared/made"), at("shared/made"));
}

TEST_F(OpenInodes, KeptDirectoriesFollowTheirNames) {
  const auto make = [&](const std::string &name) {
    return Inode(kest_icreate(active_.get(), at(name).c_str(), 0600)) != nullptr;
  };
  const auto rename = [&](const std::string &from, const std::string &to) {
    return kest_rename_noreplace(active_.get(), at(from).c_str(), at(to).c_str(), 0);
  };
  tree_->dirs("a/b/c");
  tree_->dirs("ab");
  EXPECT_TRUE(make("a/b/c/1"));
  EXPECT_TRUE(make("a/b/1"));
  EXPECT_TRUE(make("ab/1"));
  // Renamed by this process through another spelling of the path: the old name is gone, and its
  // successor is used.
  EXPECT_EQ(0, rename(".//a/", "moved/"));
  EXPECT_FALSE(make("a/b/c/2"));
  EXPECT_EQ(ENOENT, errno);
  tree_->dirs("a/b/c");
  EXPECT_TRUE(make("a/b/c/2"));
  EXPECT_TRUE(make("moved/b/c/3"));
  EXPECT_EQ((std::vector<std::string>{"2"}), tree_->names("a/b/c"));
  EXPECT_EQ((std::vector<std::string>{"1", "3"}), tree_->names("moved/b/c"));
  // Removed and made again by another process.
  tree_->removeTree("a");
  EXPECT_FALSE(make("a/b/c/4"));
  EXPECT_EQ(ENOENT, errno);
  tree_->dirs("a/b/c");
  EXPECT_TRUE(make("a/b/c/5"));
  EXPECT_EQ(0, kest_unlink(active_.get(), at("a/b/c/5").c_str(), 0));
  tree_->removeTree("a/b/c");
  tree_->dirs("a/b/c");
  EXPECT_TRUE(make("a/b/c/6"));
  // Renamed by another process: still the directory that was resolved.
  tree_->rename("a/b/c", "a/b/other");
  EXPECT_TRUE(make("a/b/c/7"));
  EXPECT_EQ((std::vector<std::string>{"6", "7"}), tree_->names("a/b/other"));
  // More directories than the cache holds.
  for (int round = 0; round < 2; ++round)
    for (int i = 0; i < 20; ++i) {
      const std::string dir = "many/" + std::to_string(i);
      tree_->dirs(dir);
      EXPECT_TRUE(make(dir + "/" + std::to_string(round)));
    }
  for (int i = 0; i < 20; ++i) EXPECT_EQ(2u, tree_->names("many/" + std::to_string(i)).size());
  // An anchor leads the same paths elsewhere.
  const Descriptor anchor(::open(at("ab").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  ASSERT_EQ(0, kest_anchor(active_.get(), at("many/19").c_str(), anchor.get()));
  EXPECT_TRUE(make("many/19/anchored"));
  EXPECT_EQ((std::vector<std::string>{"1", "anchored"}), tree_->names("ab"));
}

}  // namespace
