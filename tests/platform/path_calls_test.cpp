// Path calls on a real btrfs: error numbers, what is never followed or removed, what is kept.
#include <cerrno>
#include <cstring>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>
#include <unistd.h>

#include "kest.h"
#include "support/loop_btrfs.h"
#include "support/tree_builder.h"

namespace {

using testsupport::LoopBtrfs;
using testsupport::TreeBuilder;

// cap_net_raw+ep, as setcap stores it
const std::string kCapability(
    "\x01\x00\x00\x02\x00\x20\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00", 20);

std::string xattrOf(const std::string &path, const char *name) {
  char value[256];
  ssize_t n = lgetxattr(path.c_str(), name, value, sizeof value);
  return n < 0 ? strerror(errno) : std::string(value, static_cast<size_t>(n));
}

struct stat statOf(const std::string &path) {
  struct stat st {};
  EXPECT_EQ(0, lstat(path.c_str(), &st)) << path;
  return st;
}

class PathCalls : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    fs_ = std::make_unique<LoopBtrfs>("paths");
    root_ = fs_->createSubvolume("data");
    active_ = kest_get_fset_snaphandle_by_name(fs_->mountPoint().c_str(), "data", nullptr);
    ASSERT_NE(nullptr, active_) << kest_error_text();
  }
  static void TearDownTestSuite() {
    kest_free_fssnaphandle(active_);
    fs_.reset();
  }
  void SetUp() override {
    std::string folder = root_ + "/" + testing::UnitTest::GetInstance()->current_test_info()->name();
    ASSERT_EQ(0, mkdir(folder.c_str(), 0755));
    tree_ = std::make_unique<TreeBuilder>(folder);
  }
  std::string at(const std::string &name) const { return tree_->root() + "/" + name; }

  static std::unique_ptr<LoopBtrfs> fs_;
  static std::string root_;
  static kest_fssnap_handle_t *active_;
  std::unique_ptr<TreeBuilder> tree_;
};

std::unique_ptr<LoopBtrfs> PathCalls::fs_;
std::string PathCalls::root_;
kest_fssnap_handle_t *PathCalls::active_;

enum Flag { kImmutable, kAppendOnly };

struct FlagCase {
  const char *call;
  const char *flagged;  // object of the small tree that carries the flag
  Flag flag;
  int error;  // 0: goes through all the same
  std::function<int(kest_fssnap_handle_t *, const std::string &)> run;
};

int closeOpened(int fd) {
  return fd < 0 ? fd : close(fd);
}

std::vector<FlagCase> flagCases() {
  using Handle = kest_fssnap_handle_t *;
  using Path = const std::string &;
  auto unlinkFile = [](Handle h, Path d) { return kest_unlink(h, (d + "/from/file").c_str(), 0); };
  auto unlinkFifo = [](Handle h, Path d) { return kest_unlink(h, (d + "/from/fifo").c_str(), 0); };
  auto rmdirSub = [](Handle h, Path d) { return kest_rmdir(h, (d + "/from/sub").c_str(), 0); };
  auto rename = [](Handle h, Path d) {
    return kest_rename_noreplace(h, (d + "/from/file").c_str(), (d + "/to/new").c_str(), 0);
  };
  auto truncateFile = [](Handle h, Path d) {
    return kest_truncate(h, (d + "/from/file").c_str(), 1, 0);
  };
  auto create = [](Handle h, Path d) {
    return closeOpened(kest_open_file(h, (d + "/to/new").c_str(), O_CREAT | O_RDWR, 0600));
  };
  auto openForWrite = [](Handle h, Path d) {
    return closeOpened(kest_open_file(h, (d + "/from/file").c_str(), O_CREAT | O_WRONLY, 0600));
  };
  auto makeDir = [](Handle h, Path d) { return kest_mkdir(h, (d + "/to/new").c_str(), 0700); };
  auto makeNode = [](Handle h, Path d) {
    return kest_mknod(h, (d + "/to/new").c_str(), S_IFCHR | 0600, makedev(1, 3));
  };
  auto makeLink = [](Handle h, Path d) { return kest_symlink(h, "x", (d + "/to/new").c_str()); };
  auto hardLink = [](Handle h, Path d) {
    return kest_link(h, (d + "/from/file").c_str(), (d + "/to/new").c_str(), 0);
  };
  auto owner = [](Handle h, Path d) { return kest_lchown(h, (d + "/from/file").c_str(), 7, 8); };
  auto times = [](Handle, Path d) {
    kest_timestruc64_t stamps[4] = {{1, 2}, {3, 4}, {}, {}};
    return kest_set_times_path((d + "/from/file").c_str(), 15, stamps);
  };
  return {
      {"unlink", "from/file", kImmutable, EROFS, unlinkFile},
      {"unlink", "from/file", kAppendOnly, EROFS, unlinkFile},
      {"unlink", "from", kImmutable, EROFS, unlinkFile},
      {"unlink", "from", kAppendOnly, EROFS, unlinkFile},
      {"unlink of a FIFO", "from", kImmutable, EROFS, unlinkFifo},
      {"unlink", "to", kImmutable, 0, unlinkFile},
      {"rmdir", "from/sub", kImmutable, EROFS, rmdirSub},
      {"rmdir", "from/sub", kAppendOnly, EROFS, rmdirSub},
      {"rmdir", "from", kImmutable, EROFS, rmdirSub},
      {"rmdir", "from", kAppendOnly, EROFS, rmdirSub},
      {"rename", "from/file", kImmutable, EROFS, rename},
      {"rename", "from/file", kAppendOnly, EROFS, rename},
      {"rename", "from", kImmutable, EROFS, rename},
      {"rename", "from", kAppendOnly, EROFS, rename},
      {"rename", "to", kImmutable, EROFS, rename},
      {"rename", "to", kAppendOnly, 0, rename},
      {"truncate", "from/file", kImmutable, EROFS, truncateFile},
      {"truncate", "from/file", kAppendOnly, EROFS, truncateFile},
      {"truncate", "from", kImmutable, 0, truncateFile},
      {"open for writing", "from/file", kImmutable, EROFS, openForWrite},
      {"open for writing", "from/file", kAppendOnly, EROFS, openForWrite},
      {"create", "to", kImmutable, EROFS, create},
      {"create", "to", kAppendOnly, 0, create},
      {"mkdir", "to", kImmutable, EROFS, makeDir},
      {"mkdir", "to", kAppendOnly, 0, makeDir},
      {"mknod", "to", kImmutable, EROFS, makeNode},
      {"symlink", "to", kImmutable, EROFS, makeLink},
      {"link", "to", kImmutable, EROFS, hardLink},
      {"link", "from/file", kImmutable, EROFS, hardLink},
      {"link", "from/file", kAppendOnly, EROFS, hardLink},
      {"lchown", "from/file", kImmutable, EPERM, owner},
      {"lchown", "from/file", kAppendOnly, EPERM, owner},
      {"set times", "from/file", kImmutable, EPERM, times},
  };
}

TEST_F(PathCalls, FlagsAreReportedAsReadOnlyAndClearingThemHelps) {
  int number = 0;
  for (const FlagCase &c : flagCases()) {
    std::string name = std::to_string(number++);
    SCOPED_TRACE(std::string(c.call) + " with a flag on " + c.flagged);
    for (const char *dir : {"", "/from", "/from/sub", "/to"}) tree_->dir(name + dir);
    tree_->file(name + "/from/file", "data");
    tree_->fifo(name + "/from/fifo");
    auto set = [&](bool on) {
      std::string flagged = name + "/" + c.flagged;
      c.flag == kImmutable ? tree_->immutable(flagged, on) : tree_->appendOnly(flagged, on);
    };
    set(true);
    errno = 0;
    int rc = c.run(active_, at(name));
    int err = errno;
    set(false);
    if (c.error == 0) {
      EXPECT_EQ(0, rc) << strerror(err);
      continue;
    }
    EXPECT_EQ(-1, rc);
    EXPECT_EQ(c.error, err) << strerror(err);
    EXPECT_EQ(0, c.run(active_, at(name))) << strerror(errno);
  }
}

#define EXPECT_FAILS(error, call)           \
  do {                                      \
    errno = 0;                              \
    EXPECT_EQ(-1, call);                    \
    EXPECT_EQ(error, errno) << "of " #call; \
  } while (0)

TEST_F(PathCalls, OtherErrorsAreThoseOfTheKernel) {
  tree_->dir("dir");
  tree_->file("dir/file", "data");
  tree_->file("other", "data");
  tree_->fifo("fifo");
  EXPECT_FAILS(ENOENT, kest_unlink(active_, at("none").c_str(), 0));
  EXPECT_FAILS(ENOENT, kest_unlink(active_, at("none/none").c_str(), 0));
  EXPECT_FAILS(ENOTDIR, kest_unlink(active_, at("other/none").c_str(), 0));
  EXPECT_FAILS(ENOTDIR, kest_unlink(active_, at("other/").c_str(), 0));
  EXPECT_FAILS(EISDIR, kest_unlink(active_, at("dir").c_str(), 0));
  EXPECT_FAILS(ENOTEMPTY, kest_rmdir(active_, at("dir").c_str(), 0));
  EXPECT_FAILS(ENOTDIR, kest_rmdir(active_, at("other").c_str(), 0));
  EXPECT_FAILS(EEXIST, kest_rename_noreplace(active_, at("other").c_str(), at("dir/file").c_str(), 0));
  EXPECT_FAILS(EEXIST, kest_mkdir(active_, at("dir").c_str(), 0700));
  EXPECT_FAILS(EINVAL, kest_truncate(active_, at("fifo").c_str(), 0, 0));
  EXPECT_FAILS(EISDIR, kest_truncate(active_, at("dir").c_str(), 0, 0));
  EXPECT_FAILS(EISDIR, kest_open_file(active_, at("dir").c_str(), O_CREAT | O_RDONLY, 0600));
  EXPECT_FAILS(EEXIST, kest_open_file(active_, at("fifo").c_str(), O_CREAT | O_RDONLY, 0600));  // waits
  EXPECT_FAILS(EEXIST, kest_open_file(active_, at("other").c_str(), O_CREAT | O_EXCL | O_RDWR, 0600));
  EXPECT_FAILS(EPERM, kest_link(active_, at("dir").c_str(), at("dir2").c_str(), 0));
  EXPECT_FAILS(ENOENT, kest_unlink(active_, "", 0));
  EXPECT_FAILS(EINVAL, kest_lchown(active_, at("other").c_str(), UINT32_MAX, 0));
  EXPECT_EQ("data", tree_->read("other"));

  std::string snapshot = fs_->snapshot("data", "snapshot-of-errors");
  std::string inside = snapshot + "/" + "OtherErrorsAreThoseOfTheKernel";
  kest_fssnap_handle_t *snap =
      kest_get_fset_snaphandle_by_name(fs_->mountPoint().c_str(), "data", "snapshot-of-errors");
  ASSERT_NE(nullptr, snap) << kest_error_text();
  EXPECT_FAILS(EROFS, kest_unlink(snap, (inside + "/other").c_str(), 0));
  EXPECT_FAILS(EROFS, kest_truncate(snap, (inside + "/other").c_str(), 1, 0));
  kest_free_fssnaphandle(snap);
}

TEST_F(PathCalls, NothingLeadsOutOfTheFileset) {
  for (const char *dir : {"dir", "mounted", "held", "stand-in"}) tree_->dir(dir);
  tree_->file("dir/file");
  tree_->file("held/mine");
  tree_->file("stand-in/planted");
  tree_->symlink("dir", "link");
  const std::string nested = fs_->createSubvolume("data/NothingLeadsOutOfTheFileset/nested");
  testsupport::runCommand("touch /mnt/outside " + nested + "/file && mount -t tmpfs none " +
                          at("mounted") + " && touch " + at("mounted/file"));
  struct stat st;
  EXPECT_EQ(0, kest_lstat(active_, at("dir/file").c_str(), &st));
  EXPECT_EQ(0, kest_lstat(active_, root_.c_str(), &st));
  EXPECT_EQ(256u, st.st_ino);
  const std::pair<std::string, int> elsewhere[] = {
      {at("link/file"), ELOOP},  {at("mounted/file"), EXDEV},
      {nested + "/file", EXDEV}, {root_ + "/../data/x", EXDEV},
      {root_ + "/..", EXDEV},    {"/mnt/outside", EXDEV},
      {root_ + "2/file", EXDEV}, {at("dir/../../../x"), EXDEV},
      {"relative", EXDEV},       {at("dir/.." + std::string(5000, '/') + "../../x"), EXDEV}};
  for (const auto &[path, error] : elsewhere) {
    SCOPED_TRACE(path.substr(0, 200));
    EXPECT_FAILS(error, kest_lstat(active_, path.c_str(), &st));
    EXPECT_FAILS(error, kest_unlink(active_, path.c_str(), 0));
    EXPECT_FAILS(error, kest_mkdir(active_, path.c_str(), 0700));
    EXPECT_FAILS(error, kest_rename_noreplace(active_, at("dir/file").c_str(), path.c_str(), 0));
  }
  testsupport::runCommand("umount " + at("mounted") + " && rm /mnt/outside");

  // What lies below an anchor is found there, whatever has its name.
  const int held = open(at("held").c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
  const int foreign = open("/mnt", O_PATH | O_DIRECTORY | O_CLOEXEC);
  EXPECT_FAILS(EXDEV, kest_anchor(active_, at("held").c_str(), foreign));
  ASSERT_EQ(0, kest_anchor(active_, at("held").c_str(), held));
  tree_->exchange("held", "stand-in");
  EXPECT_EQ(0, kest_lstat(active_, at("held/mine").c_str(), &st));
  EXPECT_FAILS(ENOENT, kest_lstat(active_, at("held/planted").c_str(), &st));
  EXPECT_EQ(0, kest_mkdir(active_, at("held/new").c_str(), 0700));
  EXPECT_TRUE(tree_->exists("stand-in/new"));
  close(held);
  close(foreign);
}

TEST_F(PathCalls, AnotherInodeThanTheOneThatIsMeant) {
  tree_->file("file", "data");
  tree_->file("other", "other");
  tree_->dir("dir");
  const ino_t file = tree_->inode("file"), other = tree_->inode("other"), dir = tree_->inode("dir");
  const std::string path = at("file"), to = at("to");
  EXPECT_FAILS(ESTALE, kest_unlink(active_, path.c_str(), other));
  EXPECT_FAILS(ESTALE, kest_rmdir(active_, at("dir").c_str(), other));
  EXPECT_FAILS(ESTALE, kest_truncate(active_, path.c_str(), 0, other));
  EXPECT_FAILS(ESTALE, kest_link(active_, path.c_str(), to.c_str(), other));
  EXPECT_FAILS(ESTALE, kest_rename_noreplace(active_, path.c_str(), to.c_str(), other));
  EXPECT_FAILS(ENOENT, kest_unlink(active_, to.c_str(), other));
  EXPECT_EQ("data", tree_->read("file"));
  EXPECT_EQ(0, kest_truncate(active_, path.c_str(), 2, file));
  EXPECT_EQ(0, kest_link(active_, path.c_str(), to.c_str(), file));
  EXPECT_EQ(0, kest_unlink(active_, to.c_str(), file));
  EXPECT_EQ(0, kest_rename_noreplace(active_, path.c_str(), to.c_str(), file));
  EXPECT_EQ(0, kest_rmdir(active_, at("dir").c_str(), dir));
}

TEST_F(PathCalls, ANestedSubvolumeIsNeverRemoved) {
  tree_->dir("dir");
  std::string nested = fs_->createSubvolume("data/ANestedSubvolumeIsNeverRemoved/dir/nested");
  EXPECT_FAILS(EPERM, kest_rmdir(active_, nested.c_str(), 0));
  EXPECT_FAILS(EPERM, kest_rmdir(active_, (nested + "/").c_str(), 0));
  EXPECT_EQ(256u, statOf(nested).st_ino);
  // The same tree after a move: a subvolume can be renamed, and is still not removed.
  ASSERT_EQ(0, kest_rename_noreplace(active_, nested.c_str(), at("moved").c_str(), 0))
      << strerror(errno);
  EXPECT_FAILS(EPERM, kest_rmdir(active_, at("moved").c_str(), 0));
  EXPECT_EQ(0, kest_rmdir(active_, at("dir/").c_str(), 0));
}

TEST_F(PathCalls, TheLastComponentIsNotFollowed) {
  tree_->file("target", "data");
  tree_->dir("dir");
  tree_->symlink("target", "link");
  tree_->symlink("dir", "dirlink");
  tree_->symlink("nowhere", "dangling");
  EXPECT_FAILS(ELOOP, kest_truncate(active_, at("link").c_str(), 0, 0));
  EXPECT_FAILS(ELOOP, kest_open_file(active_, at("link").c_str(), O_RDWR | O_TRUNC, 0));
  EXPECT_FAILS(ELOOP, kest_open_file(active_, at("dangling").c_str(), O_CREAT | O_RDWR, 0600));
  EXPECT_FALSE(tree_->exists("nowhere"));
  EXPECT_FAILS(ENOTDIR, kest_lchown(active_, at("dirlink/").c_str(), 7, 8));
  EXPECT_EQ(0, kest_lchown(active_, at("link").c_str(), 7, 8));
  EXPECT_EQ(7u, statOf(at("link")).st_uid);
  EXPECT_EQ(0u, statOf(at("target")).st_uid);
  EXPECT_EQ(0u, statOf(at("dir")).st_uid);
  EXPECT_EQ(0, kest_link(active_, at("link").c_str(), at("link2").c_str(), 0));
  EXPECT_TRUE(S_ISLNK(statOf(at("link2")).st_mode));
  EXPECT_EQ(0, kest_unlink(active_, at("link").c_str(), 0));
  EXPECT_EQ("data", tree_->read("target"));
}

TEST_F(PathCalls, ModesAreExact) {
  tree_->dir("plain");
  tree_->dir("acl", 02777);  // new objects take its group bit and its default ACL
  tree_->setXattr("acl", testsupport::kDefaultAcl, testsupport::aclForUser(1234, 4));
  tree_->file("plain/existing", "", 0600);
  mode_t before = umask(077);
  for (std::string dir : {"plain", "acl"}) {
    SCOPED_TRACE(dir);
    int fd = kest_open_file(active_, at(dir + "/file").c_str(), O_CREAT | O_RDWR, 06775);
    ASSERT_GE(fd, 0) << strerror(errno);
    EXPECT_EQ(FD_CLOEXEC, fcntl(fd, F_GETFD));
    close(fd);
    EXPECT_EQ(0, kest_mkdir(active_, at(dir + "/dir").c_str(), 01757));
    EXPECT_EQ(0, kest_mknod(active_, at(dir + "/fifo").c_str(), S_IFIFO | 0666, 0));
    EXPECT_EQ(0, kest_mknod(active_, at(dir + "/device").c_str(), S_IFBLK | 0660, makedev(7, 300)));
    EXPECT_EQ(0, kest_mknod(active_, at(dir + "/node").c_str(), 0644, 0));
    EXPECT_EQ(mode_t{S_IFREG | 06775}, statOf(at(dir + "/file")).st_mode);
    EXPECT_EQ(mode_t{S_IFDIR | 01757}, statOf(at(dir + "/dir")).st_mode);
    EXPECT_EQ(mode_t{S_IFIFO | 0666}, statOf(at(dir + "/fifo")).st_mode);
    EXPECT_EQ(mode_t{S_IFBLK | 0660}, statOf(at(dir + "/device")).st_mode);
    EXPECT_EQ(makedev(7, 300), statOf(at(dir + "/device")).st_rdev);
    EXPECT_EQ(mode_t{S_IFREG | 0644}, statOf(at(dir + "/node")).st_mode);
  }
  EXPECT_EQ(0,
            closeOpened(kest_open_file(active_, at("plain/existing").c_str(), O_CREAT | O_RDWR, 0777)));
  EXPECT_EQ(mode_t{S_IFREG | 0600}, statOf(at("plain/existing")).st_mode);
  EXPECT_EQ(mode_t{077}, umask(before));
}

TEST_F(PathCalls, OwnerChangeAndTruncationKeepSpecialBitsAndCapabilities) {
  for (const char *name : {"file", "plain"}) {
    tree_->file(name, "0123456789");
    tree_->chmod(name, 06755);
    tree_->setXattr(name, "security.capability", kCapability);
  }
  // The kernel takes all three away: what the rest of this test is about.
  ASSERT_EQ(0, lchown(at("plain").c_str(), 7, 8));
  ASSERT_EQ(mode_t{S_IFREG | 0755}, statOf(at("plain")).st_mode);
  ASSERT_EQ(strerror(ENODATA), xattrOf(at("plain"), "security.capability"));

  std::string file = at("file");
  EXPECT_EQ(0, kest_lchown(active_, file.c_str(), 7, 8));
  EXPECT_EQ(0, kest_truncate(active_, file.c_str(), 4, 0));
  struct stat st = statOf(file);
  EXPECT_EQ(7u, st.st_uid);
  EXPECT_EQ(8u, st.st_gid);
  EXPECT_EQ(4, st.st_size);
  EXPECT_EQ(mode_t{S_IFREG | 06755}, st.st_mode);
  EXPECT_EQ(kCapability, xattrOf(file, "security.capability"));

  usleep(10000);  // more than the granularity of time stamps
  EXPECT_EQ(0, kest_lchown(active_, file.c_str(), 7, 8));
  EXPECT_EQ(st.st_ctim.tv_nsec, statOf(file).st_ctim.tv_nsec) << "an equal owner was written";

  int fd = kest_open_path(active_, file.c_str());
  ASSERT_GE(fd, 0);
  EXPECT_EQ(0, kest_fchown(fd, 9, 9)) << strerror(errno);
  close(fd);
  EXPECT_EQ(9u, statOf(file).st_uid);
  EXPECT_FAILS(EBADF, kest_fchown(fd, 9, 9));
  EXPECT_EQ(kCapability, xattrOf(file, "security.capability"));

  tree_->device("device", S_IFCHR, 1, 3);
  tree_->chmod("device", 06644);
  EXPECT_EQ(0, kest_lchown(active_, at("device").c_str(), 7, 8));
  EXPECT_EQ(mode_t{S_IFCHR | 06644}, statOf(at("device")).st_mode);
}

TEST_F(PathCalls, ADescriptorOfAnOpenInodeOutlivesIt) {
  tree_->fifo("fifo");
  kest_ifile_t *file = kest_iopen64(active_, tree_->inode("fifo"), 0, nullptr, nullptr);
  ASSERT_NE(nullptr, file) << strerror(errno);
  int fd = kest_path_descriptor(file);
  ASSERT_GE(fd, 0) << strerror(errno);
  kest_iclose(file);
  EXPECT_EQ(O_PATH, fcntl(fd, F_GETFL) & O_PATH);
  EXPECT_EQ(FD_CLOEXEC, fcntl(fd, F_GETFD));
  struct stat st;
  EXPECT_EQ(0, fstat(fd, &st));
  EXPECT_EQ(tree_->inode("fifo"), st.st_ino);
  close(fd);
}

TEST_F(PathCalls, PathsOfAnyLength) {
  std::string deep;
  for (int i = 0; i < 40; i++) deep += (deep.empty() ? "" : "/") + std::string(200, 'd');
  tree_->dirs(deep);
  ASSERT_GT(at(deep).size(), 2u * 4096 - 200);
  std::string file = at(deep + "//file"), moved = at("moved");
  EXPECT_EQ(0, closeOpened(kest_open_file(active_, file.c_str(), O_CREAT | O_RDWR, 0640)));
  struct stat st;
  ASSERT_EQ(0, kest_lstat(active_, file.c_str(), &st)) << strerror(errno);
  EXPECT_EQ(mode_t{S_IFREG | 0640}, st.st_mode);
  EXPECT_EQ(0, kest_rename_noreplace(active_, file.c_str(), moved.c_str(), 0));
  EXPECT_EQ(st.st_ino, statOf(moved).st_ino);
  EXPECT_EQ(0, kest_rmdir(active_, at(deep).c_str(), 0));
  EXPECT_FAILS(ENAMETOOLONG, kest_unlink(active_, at(std::string(256, 'n')).c_str(), 0));
  EXPECT_FAILS(ENAMETOOLONG, kest_unlink(active_, at(std::string(9000, 'n') + "/x").c_str(), 0));
}

TEST_F(PathCalls, NamesOfAnInodeInSnapshotAndFileset) {
  std::string deep;
  for (int i = 0; i < 30; i++) deep += std::string(200, 'd') + "/";
  tree_->dirs(deep);
  tree_->file("one");
  tree_->link("one", deep + "a\nb");
  tree_->link("one", deep + "gone");
  const uint64_t ino = statOf(at("one")).st_ino;
  fs_->snapshot("data", "names");
  std::unique_ptr<kest_fssnap_handle_t, void (*)(kest_fssnap_handle_t *)> snap(
      kest_get_fset_snaphandle_by_name(fs_->mountPoint().c_str(), "data", "names"),
      kest_free_fssnaphandle);
  ASSERT_TRUE(snap) << kest_error_text();
  tree_->remove(deep + "gone");  // must not be found, committed or not
  tree_->rename(deep.substr(0, 200), "moved");

  using Paths = std::set<std::string>;
  const auto namesOf = [&](kest_fssnap_handle_t *handle) {
    Paths paths;
    auto add = [](void *to, const char *path) {
      return static_cast<Paths *>(to)->insert(path).second ? 0 : 1;
    };
    EXPECT_EQ(0, kest_inode_names(handle, ino, add, &paths));
    return paths;
  };
  const std::string top = at("").substr(root_.size() + 1), rest = deep.substr(201);
  EXPECT_EQ(namesOf(snap.get()), (Paths{top + "one", top + deep + "a\nb", top + deep + "gone"}));
  EXPECT_EQ(namesOf(active_), (Paths{top + "one", top + "moved/" + rest + "a\nb"}));

  int calls = 0;
  auto stop = [](void *count, const char *) { return ++*static_cast<int *>(count); };
  EXPECT_EQ(-2, kest_inode_names(snap.get(), ino, stop, &calls));
  EXPECT_EQ(1, calls);
  for (uint64_t none : {uint64_t{0}, uint64_t{999999}, UINT64_MAX}) {
    EXPECT_EQ(-1, kest_inode_names(active_, none, stop, &calls));
    EXPECT_EQ(ENOENT, errno);
  }
}

}  // namespace
