// Path calls on a real btrfs: errno values, what is never followed or removed, and what is kept.
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <functional>
#include <set>

#include "platform/kest_reader.h"

namespace {

using namespace kesttest;
using testsupport::Descriptor;

class PathCalls : public LibraryTest {
 protected:
  int unlink(const std::string &path, ino_t ino = 0) {
    return kest_unlink(active_.get(), at(path).c_str(), ino);
  }
  int rmdir(const std::string &path, ino_t ino = 0) {
    return kest_rmdir(active_.get(), at(path).c_str(), ino);
  }
  int rename(const std::string &from, const std::string &to, ino_t ino = 0) {
    return kest_rename_noreplace(active_.get(), at(from).c_str(), at(to).c_str(), ino);
  }
  int link(const std::string &from, const std::string &to, ino_t ino = 0) {
    return kest_link(active_.get(), at(from).c_str(), at(to).c_str(), ino);
  }
  int truncate(const std::string &path, int64_t size, ino_t ino = 0) {
    return kest_truncate(active_.get(), at(path).c_str(), size, ino);
  }
  int mkdir(const std::string &path, mode_t mode = 0700) {
    return kest_mkdir(active_.get(), at(path).c_str(), mode);
  }
  int mknod(const std::string &path, mode_t mode, dev_t device = 0) {
    return kest_mknod(active_.get(), at(path).c_str(), mode, device);
  }
  int symlink(const std::string &path) { return kest_symlink(active_.get(), "x", at(path).c_str()); }
  int chown(const std::string &path, uid_t owner) {
    const Inode object(kest_iopen_path(active_.get(), at(path).c_str()));
    return object ? kest_ichown(object.get(), owner, 8) : -1;
  }
  int create(const std::string &path, mode_t mode = 0600) {
    return Inode(kest_icreate(active_.get(), at(path).c_str(), mode)) ? 0 : -1;
  }
};

TEST_F(PathCalls, FlagsAreReportedAsReadOnlyAndClearingThemHelps) {
  // Errors for an immutable and for an append-only object.
  const struct {
    const char *call;
    std::vector<const char *> flagged;
    int immutable, append_only;
    std::function<int()> run;
  } cases[] = {
      {"unlink", {"from/file", "from"}, EROFS, EROFS, [&] { return unlink("from/file"); }},
      {"rmdir", {"from/sub", "from"}, EROFS, EROFS, [&] { return rmdir("from/sub"); }},
      {"rename", {"from/file", "from"}, EROFS, EROFS, [&] { return rename("from/file", "to/new"); }},
      {"rename", {"to"}, EROFS, 0, [&] { return rename("from/file", "to/new"); }},
      {"truncate", {"from/file"}, EROFS, EROFS, [&] { return truncate("from/file", 1); }},
      {"create", {"to"}, EROFS, 0, [&] { return create("to/new"); }},
      {"mkdir", {"to"}, EROFS, 0, [&] { return mkdir("to/new"); }},
      {"mknod", {"to"}, EROFS, 0, [&] { return mknod("to/new", S_IFIFO | 0600); }},
      {"symlink", {"to"}, EROFS, 0, [&] { return symlink("to/new"); }},
      {"link", {"to"}, EROFS, 0, [&] { return link("from/file", "to/new"); }},
      {"link", {"from/file"}, EROFS, EROFS, [&] { return link("from/file", "to/new"); }},
      {"fchown", {"from/file"}, EPERM, EPERM, [&] { return chown("from/file", 7); }},
  };
  for (const auto &one : cases) {
    for (size_t i = 0; i < 2 * one.flagged.size(); i++) {
      const bool append = i % 2;
      const std::string flagged = one.flagged[i / 2];
      SCOPED_TRACE(std::string(one.call) + (append ? " append-only " : " immutable ") + flagged);
      for (const char *dir : {"from/sub", "to"}) tree_->dirs(dir);
      tree_->file("from/file", "data");
      append ? tree_->appendOnly(flagged) : tree_->immutable(flagged);
      errno = 0;
      const int rc = one.run(), error = errno, expected = append ? one.append_only : one.immutable;
      append ? tree_->appendOnly(flagged, false) : tree_->immutable(flagged, false);
      EXPECT_EQ(expected, rc == 0 ? 0 : error) << strerror(error);
      EXPECT_EQ(0, rc == 0 ? 0 : one.run()) << strerror(errno);
      for (const char *dir : {"from", "to"}) tree_->removeTree(dir);
    }
  }
}

TEST_F(PathCalls, OtherErrorsAreThoseOfTheKernel) {
  tree_->dir("dir");
  tree_->file("dir/file", "data");
  tree_->file("other", "data");
  tree_->fifo("fifo");
  for (const char *name : {"none", "none/none"}) EXPECT_FAILS(ENOENT, unlink(name));
  for (const char *name : {"other/none", "other/"}) EXPECT_FAILS(ENOTDIR, unlink(name));
  for (size_t length : {256, 9000}) EXPECT_FAILS(ENAMETOOLONG, unlink(std::string(length, 'n') + "/x"));
  EXPECT_FAILS(ENOENT, kest_unlink(active_.get(), "", 0));
  EXPECT_FAILS(EISDIR, unlink("dir"));
  EXPECT_FAILS(ENOTEMPTY, rmdir("dir"));
  EXPECT_FAILS(ENOTDIR, rmdir("other"));
  EXPECT_FAILS(EEXIST, rename("other", "dir/file"));
  EXPECT_FAILS(EEXIST, mkdir("dir"));
  EXPECT_FAILS(EINVAL, truncate("fifo", 0));
  EXPECT_FAILS(EISDIR, truncate("dir", 0));
  EXPECT_FAILS(EISDIR, create("new/"));
  for (const char *taken : {"dir", "fifo", "other"}) EXPECT_FAILS(EEXIST, create(taken));
  EXPECT_FAILS(EPERM, link("dir", "dir2"));
  EXPECT_FAILS(EINVAL, chown("other", UINT32_MAX));
  EXPECT_EQ("data", tree_->read("other"));

  const std::string inside = snapshot() + "/other";
  EXPECT_FAILS(EROFS, kest_unlink(snapshot_.get(), inside.c_str(), 0));
  EXPECT_FAILS(EROFS, kest_truncate(snapshot_.get(), inside.c_str(), 1, 0));
}

TEST_F(PathCalls, NothingLeadsOutOfTheFileset) {
  for (const char *dir : {"dir", "mounted", "held", "stand-in"}) tree_->dir(dir);
  tree_->file("dir/file");
  tree_->file("held/mine");
  tree_->file("stand-in/planted");
  tree_->symlink("dir", "link");
  const std::string nested = fs_->createSubvolume(name_ + "/nested"), top = root();
  testsupport::runCommand("touch /mnt/outside " + nested + "/file && mount -t tmpfs none " +
                          at("mounted") + " && touch " + at("mounted/file"));
  kest_fssnap_handle_t *active = active_.get();
  struct stat st;
  EXPECT_EQ(0, kest_lstat(active, at("dir/file").c_str(), &st));
  EXPECT_EQ(0, kest_lstat(active, top.c_str(), &st));
  EXPECT_EQ(256u, st.st_ino);
  const std::pair<std::string, int> elsewhere[] = {
      {at("link/file"), ELOOP},  {at("mounted/file"), EXDEV},
      {nested + "/file", EXDEV}, {top + "/../" + name_ + "/x", EXDEV},
      {top + "/..", EXDEV},      {"/mnt/outside", EXDEV},
      {top + "2/file", EXDEV},   {at("dir/../../../x"), EXDEV},
      {"relative", EXDEV},       {at("dir/.." + std::string(5000, '/') + "../../x"), EXDEV}};
  for (const auto &[path, error] : elsewhere) {
    SCOPED_TRACE(path.substr(0, 200));
    EXPECT_FAILS(error, kest_lstat(active, path.c_str(), &st));
    EXPECT_FAILS(error, kest_unlink(active, path.c_str(), 0));
    EXPECT_FAILS(error, kest_mkdir(active, path.c_str(), 0700));
    EXPECT_FAILS(error, kest_rename_noreplace(active, at("dir/file").c_str(), path.c_str(), 0));
  }
  testsupport::runCommand("umount " + at("mounted") + " && rm /mnt/outside");

  // Paths below an anchor are found there, whatever has taken its name.
  const Descriptor held(::open(at("held").c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC)),
      foreign(::open("/mnt", O_PATH | O_DIRECTORY | O_CLOEXEC));
  EXPECT_FAILS(EXDEV, kest_anchor(active, at("held").c_str(), foreign.get()));
  ASSERT_EQ(0, kest_anchor(active, at("held").c_str(), held.get()));
  tree_->exchange("held", "stand-in");
  EXPECT_EQ(0, kest_lstat(active, at("held/mine").c_str(), &st));
  EXPECT_FAILS(ENOENT, kest_lstat(active, at("held/planted").c_str(), &st));
  EXPECT_EQ(0, mkdir("held/new"));
  EXPECT_TRUE(tree_->exists("stand-in/new"));
}

TEST_F(PathCalls, AnotherInodeThanTheOneThatIsMeant) {
  tree_->file("file", "data");
  tree_->file("other", "other");
  tree_->dir("dir");
  const ino_t file = inode("file"), other = inode("other"), dir = inode("dir");
  EXPECT_FAILS(ESTALE, unlink("file", other));
  EXPECT_FAILS(ESTALE, rmdir("dir", other));
  EXPECT_FAILS(ESTALE, truncate("file", 0, other));
  EXPECT_FAILS(ESTALE, link("file", "to", other));
  EXPECT_FAILS(ESTALE, rename("file", "to", other));
  EXPECT_FAILS(ENOENT, unlink("to", other));
  EXPECT_EQ("data", tree_->read("file"));
  EXPECT_EQ(0, truncate("file", 2, file));
  EXPECT_EQ(0, link("file", "to", file));
  EXPECT_EQ(0, unlink("to", file));
  EXPECT_EQ(0, rename("file", "to", file));
  EXPECT_EQ(0, rmdir("dir", dir));
}

TEST_F(PathCalls, ANestedSubvolumeIsNeverRemoved) {
  tree_->dir("dir");
  fs_->createSubvolume(name_ + "/dir/nested");
  EXPECT_FAILS(EPERM, rmdir("dir/nested"));
  EXPECT_FAILS(EPERM, rmdir("dir/nested/"));
  // A subvolume can be renamed, but not removed.
  ASSERT_EQ(0, rename("dir/nested", "moved")) << strerror(errno);
  EXPECT_FAILS(EPERM, rmdir("moved"));
  EXPECT_EQ(256u, statOf(at("moved")).st_ino);
  EXPECT_EQ(0, rmdir("dir/"));
}

TEST_F(PathCalls, TheLastComponentIsNotFollowed) {
  tree_->file("target", "data");
  tree_->dir("dir");
  tree_->symlink("target", "link");
  tree_->symlink("dir", "dirlink");
  tree_->symlink("nowhere", "dangling");
  EXPECT_FAILS(ELOOP, truncate("link", 0));
  EXPECT_FAILS(EEXIST, create("dangling"));
  EXPECT_FALSE(tree_->exists("nowhere"));
  EXPECT_FAILS(ENOTDIR, chown("dirlink/", 7));
  EXPECT_EQ(0, chown("link", 7));
  EXPECT_EQ(7u, statOf(at("link")).st_uid);
  EXPECT_EQ(0u, statOf(at("target")).st_uid + statOf(at("dir")).st_uid);
  EXPECT_EQ(0, link("link", "link2"));
  EXPECT_TRUE(S_ISLNK(statOf(at("link2")).st_mode));
  EXPECT_EQ("data", tree_->read("target"));
}

TEST_F(PathCalls, ModesAreExact) {
  tree_->dir("plain");
  tree_->dir("acl", 02777);  // new objects inherit its group bit and default ACL
  tree_->setXattr("acl", testsupport::kDefaultAcl, testsupport::aclForUser(1234, 4));
  mode_t before = umask(077);
  for (std::string dir : {"plain", "acl"}) {
    SCOPED_TRACE(dir);
    EXPECT_EQ(0, create(dir + "/file", 06775));
    EXPECT_EQ(0, mkdir(dir + "/dir", 01757));
    EXPECT_EQ(0, mknod(dir + "/device", S_IFBLK | 0660, makedev(7, 300)));
    EXPECT_EQ(mode_t{S_IFREG | 06775}, statOf(at(dir + "/file")).st_mode);
    EXPECT_EQ(mode_t{S_IFDIR | 01757}, statOf(at(dir + "/dir")).st_mode);
    EXPECT_EQ(mode_t{S_IFBLK | 0660}, statOf(at(dir + "/device")).st_mode);
  }
  EXPECT_EQ(mode_t{077}, umask(before));
}

TEST_F(PathCalls, OwnerChangeAndTruncationKeepSpecialBitsAndCapabilities) {
  const std::string file = at("file");
  tree_->file("file", "0123456789");
  tree_->chmod("file", 06755);
  tree_->setXattr("file", "security.capability", kCapability);
  auto expectKept = [&](uid_t owner) {
    EXPECT_EQ(owner, statOf(file).st_uid);
    EXPECT_EQ(mode_t{S_IFREG | 06755}, statOf(file).st_mode);
    EXPECT_EQ(kCapability, xattrsOf(file)["security.capability"]);
  };
  EXPECT_EQ(0, chown("file", 7));
  EXPECT_EQ(0, truncate("file", 4));
  expectKept(7);
  EXPECT_EQ("0123", tree_->read("file"));
  struct stat st = statOf(file);
  usleep(10000);  // more than the granularity of timestamps
  EXPECT_EQ(0, chown("file", 7));
  EXPECT_EQ(st.st_ctim.tv_nsec, statOf(file).st_ctim.tv_nsec) << "an equal owner was written";
  tree_->device("device", S_IFCHR, 1, 3);
  tree_->chmod("device", 06644);
  EXPECT_EQ(0, chown("device", 7));
  EXPECT_EQ(mode_t{S_IFCHR | 06644}, statOf(at("device")).st_mode);
}

TEST_F(PathCalls, NamesOfAnInodeInSnapshotAndFileset) {
  std::string deep;
  for (int i = 0; i < 30; i++) deep += std::string(200, 'd') + "/";
  tree_->dirs(deep);
  tree_->file("one");
  tree_->link("one", deep + "a\nb");
  tree_->link("one", deep + "gone");
  const uint64_t ino = inode("one");
  snapshot();
  tree_->remove(deep + "gone");  // must not be found, whether committed or not
  tree_->rename(deep.substr(0, 200), "moved");

  using Paths = std::set<std::string>;
  const auto namesOf = [&](const Handle &handle) {
    Paths paths;
    auto add = [](void *to, const char *path) {
      return static_cast<Paths *>(to)->insert(path).second ? 0 : 1;
    };
    EXPECT_EQ(0, kest_inode_names(handle.get(), ino, add, &paths));
    return paths;
  };
  EXPECT_EQ(namesOf(snapshot_), (Paths{"one", deep + "a\nb", deep + "gone"}));
  EXPECT_EQ(namesOf(active_), (Paths{"one", "moved/" + deep.substr(201) + "a\nb"}));

  int calls = 0;
  auto stop = [](void *count, const char *) { return ++*static_cast<int *>(count); };
  EXPECT_EQ(-2, kest_inode_names(snapshot_.get(), ino, stop, &calls));
  EXPECT_EQ(1, calls);
  for (uint64_t none : {uint64_t{0}, uint64_t{999999}, UINT64_MAX})
    EXPECT_FAILS(ENOENT, kest_inode_names(active_.get(), none, stop, &calls));
}

}  // namespace
