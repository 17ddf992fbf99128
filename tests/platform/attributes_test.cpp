// Attribute blobs, ACLs, times and control requests on a real btrfs.
#include <cerrno>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/xattr.h>
#include <unistd.h>

#include "kest.h"
#include "support/loop_btrfs.h"
#include "support/tree_builder.h"

namespace {

using testsupport::Descriptor;
using testsupport::LoopBtrfs;
using testsupport::TreeBuilder;

#define EXPECT_FAILS(error, call)           \
  do {                                      \
    errno = 0;                              \
    EXPECT_EQ(-1, call);                    \
    EXPECT_EQ(error, errno) << "of " #call; \
  } while (0)

struct stat statOf(const std::string &path) {
  struct stat st {};
  EXPECT_EQ(0, lstat(path.c_str(), &st)) << path;
  return st;
}

// Every attribute of an object, as the kernel tells it.
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

class Attributes : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    fs_ = std::make_unique<LoopBtrfs>("attributes");
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

  // A new object of a type: file, dir, link, fifo, socket or device.
  void make(const std::string &type, const std::string &name) {
    if (type == "file") tree_->file(name);
    if (type == "dir") tree_->dir(name);
    if (type == "link") tree_->symlink("nowhere", name);
    if (type == "fifo") tree_->fifo(name);
    if (type == "socket") tree_->socket(name);
    if (type == "device") tree_->device(name, S_IFCHR, 1, 3);
  }

  kest_ifile_t *open(const std::string &name) {
    kest_ifile_t *file = kest_iopen64(active_, tree_->inode(name), 0, nullptr, nullptr);
    EXPECT_NE(nullptr, file) << name << ": " << strerror(errno);
    return file;
  }

  std::string blobOf(const std::string &name) {
    kest_ifile_t *file = open(name);
    std::string blob(1 << 20, '\0');
    int size = -1;
    EXPECT_EQ(0, kest_igetattrsx(file, 32, blob.data(), static_cast<int>(blob.size()), &size))
        << name << ": " << strerror(errno);
    kest_iclose(file);
    blob.resize(static_cast<size_t>(size));
    return blob;
  }

  int put(const std::string &name, const std::string *blob) {
    kest_ifile_t *file = open(name);
    int rc = kest_iputattrsx(file, 32, blob == nullptr ? nullptr : blob->data(), nullptr);
    int err = errno;
    kest_iclose(file);
    errno = err;
    return rc;
  }

  // Puts the blob once more and expects that nothing is written.
  void expectPutWritesNothing(const std::string &name, const std::string &blob) {
    struct timespec before = statOf(at(name)).st_ctim;
    usleep(10000);  // more than the granularity of time stamps
    EXPECT_EQ(0, put(name, blob.empty() ? nullptr : &blob)) << strerror(errno);
    struct timespec after = statOf(at(name)).st_ctim;
    EXPECT_EQ(before.tv_sec, after.tv_sec);
    EXPECT_EQ(before.tv_nsec, after.tv_nsec) << "an equal blob was written";
  }

  void expectIndicator(const std::string &name, bool carries) {
    fs_->commit();
    kest_ifile_t *file = open(name);
    kest_iattr64_t attr{};
    EXPECT_EQ(0, kest_istat(file, &attr)) << strerror(errno);
    kest_iclose(file);
    EXPECT_EQ(carries, attr.ia_xattr != 0) << name;
  }

  static std::unique_ptr<LoopBtrfs> fs_;
  static std::string root_;
  static kest_fssnap_handle_t *active_;
  std::unique_ptr<TreeBuilder> tree_;
};

std::unique_ptr<LoopBtrfs> Attributes::fs_;
std::string Attributes::root_;
kest_fssnap_handle_t *Attributes::active_;

// ---- blob ----

TEST_F(Attributes, ABlobMakesEveryTypeOfObjectEqual) {
  const std::string capability("\x01\0\0\x02\0\x20\0\0\0\0\0\0\0\0\0\0\0\0\0\0", 20);
  for (std::string type : {"file", "dir", "link", "fifo", "socket", "device"}) {
    SCOPED_TRACE(type);
    std::string from = type + "-from", to = type + "-to";
    make(type, from);
    make(type, to);
    EXPECT_EQ("", blobOf(from));
    expectIndicator(from, false);

    tree_->setXattr(from, "trusted.empty", "");
    tree_->setXattr(from, "trusted.binary", std::string("a\0b\n", 4));
    tree_->setXattr(from, "security.label", "one");
    tree_->setXattr(from, "trusted.kest.CLONE", "of the source");
    if (type == "file") tree_->setXattr(from, "security.capability", capability);
    if (type == "file" || type == "dir") {
      tree_->setXattr(from, "user.name", "value");
      tree_->setXattr(to, "user.other", "goes away");
    }
    tree_->setXattr(to, "trusted.binary", "a longer value than the new one");
    tree_->setXattr(to, "trusted.kest.CLONE", "stays");
    if (type != "link") tree_->setXattr(to, testsupport::kAccessAcl, testsupport::aclForUser(1234, 4));

    std::string blob = blobOf(from);
    expectIndicator(from, true);
    ASSERT_EQ(0, put(to, &blob)) << strerror(errno);
    auto expected = xattrsOf(at(from));
    expected["trusted.kest.CLONE"] = "stays";
    if (type != "link") expected[testsupport::kAccessAcl] = testsupport::aclForUser(1234, 4);
    EXPECT_EQ(expected, xattrsOf(at(to)));
    EXPECT_EQ(blob, blobOf(to));
    expectPutWritesNothing(to, blob);

    ASSERT_EQ(0, put(to, nullptr)) << strerror(errno);
    EXPECT_EQ("", blobOf(to));
    EXPECT_EQ("stays", xattrsOf(at(to))["trusted.kest.CLONE"]);
    EXPECT_EQ(type == "link" ? 1u : 2u, xattrsOf(at(to)).size());
    expectIndicator(to, false);
    expectPutWritesNothing(to, "");
  }
}

TEST_F(Attributes, ALargeBlobAsksForItsSize) {
  tree_->file("from");
  tree_->file("to");
  for (int i = 0; i < 60; i++)
    tree_->setXattr("from", "user." + std::string(200, 'n') + std::to_string(i),
                    testsupport::patternBytes(static_cast<uint64_t>(i), 0, 3000));
  kest_ifile_t *file = open("from");
  int size = 0;
  std::string small(10240, 'x');
  EXPECT_FAILS(ENOSPC, kest_igetattrsx(file, 32, small.data(), 10240, &size));
  EXPECT_EQ(std::string(10240, 'x'), small);
  ASSERT_GT(size, 60 * 3200);
  std::string blob(static_cast<size_t>(size), '\0');
  int needed = size;
  EXPECT_FAILS(ENOSPC, kest_igetattrsx(file, 96, blob.data(), needed - 1, &size));
  EXPECT_EQ(0, kest_igetattrsx(file, 96, blob.data(), needed, &size));
  EXPECT_EQ(needed, size);
  kest_iclose(file);
  ASSERT_EQ(0, put("to", &blob)) << strerror(errno);
  EXPECT_EQ(xattrsOf(at("from")), xattrsOf(at("to")));
}

TEST_F(Attributes, MoreNamesThanTheKernelLists) {
  tree_->file("from");
  tree_->file("to");
  auto name = [](int i) { return "user." + std::string(240, 'n') + std::to_string(i); };
  for (int i = 0; i < 300; i++) tree_->setXattr("from", name(i), std::to_string(i));
  ASSERT_EQ(-1, listxattr(at("from").c_str(), std::string(70000, ' ').data(), 70000));
  ASSERT_EQ(E2BIG, errno);
  std::string blob = blobOf("from");
  ASSERT_EQ(0, put("to", &blob)) << strerror(errno);
  EXPECT_EQ(blob, blobOf("to"));
  expectIndicator("to", true);
  char value[8] = {};
  EXPECT_EQ(3, lgetxattr(at("to").c_str(), name(299).c_str(), value, sizeof value));
  EXPECT_STREQ("299", value);
  EXPECT_EQ(0, put("to", nullptr)) << strerror(errno);
  EXPECT_EQ(0, listxattr(at("to").c_str(), nullptr, 0));
}

// Brings an object into one of the states of storage flags and compression property.
void setStorageState(TreeBuilder *tree, const std::string &name, const std::string &state) {
  if (state.starts_with("property ")) tree->setXattr(name, "btrfs.compression", state.substr(9));
  if (state == "compress") tree->compress(name);
  if (state == "no-copy-on-write") tree->noCow(name);
  if (!state.starts_with("no-compress")) return;
  Descriptor fd(open((tree->root() + "/" + name).c_str(), O_RDONLY));
  int flags = FS_NOCOMP_FL | (state == "no-compress, no-copy-on-write" ? FS_NOCOW_FL : 0);
  ASSERT_EQ(0, ioctl(fd.get(), FS_IOC_SETFLAGS, &flags));
}

TEST_F(Attributes, StorageFlagsTravelBetweenAllStates) {
  const std::vector<std::string> states = {
      "none",        "property zstd",    "property zlib:9", "property no",
      "no-compress", "no-copy-on-write", "compress",        "no-compress, no-copy-on-write"};
  for (std::string type : {"file", "dir"}) {
    for (size_t i = 0; i < states.size(); i++) {
      for (size_t k = 0; k < states.size(); k++) {
        SCOPED_TRACE(type + ": " + states[i] + " put on " + states[k]);
        std::string id = type + std::to_string(i) + "-" + std::to_string(k);
        make(type, id + "from");
        make(type, id + "to");
        setStorageState(tree_.get(), id + "from", states[i]);
        setStorageState(tree_.get(), id + "to", states[k]);
        std::string blob = blobOf(id + "from");
        EXPECT_EQ(states[i] == "none", blob.empty());
        ASSERT_EQ(0, put(id + "to", blob.empty() ? nullptr : &blob)) << strerror(errno);
        EXPECT_EQ(blob, blobOf(id + "to"));
        if (k == 0) expectPutWritesNothing(id + "to", blob);
        if (k == 0) expectIndicator(id + "from", i != 0);
      }
    }
  }
}

TEST_F(Attributes, NoCopyOnWriteOfAFileWithDataStaysAsItIs) {
  tree_->file("cow", "data");
  tree_->file("nocow");
  tree_->noCow("nocow");
  tree_->append("nocow", "data");
  tree_->file("both");
  setStorageState(tree_.get(), "both", "no-compress, no-copy-on-write");
  tree_->append("both", "data");
  tree_->file("compressed");
  tree_->setXattr("compressed", "btrfs.compression", "zstd");
  tree_->setXattr("compressed", "user.a", "1");
  std::string plain = blobOf("cow"), nocow = blobOf("nocow"), compressed = blobOf("compressed");

  EXPECT_EQ(0, put("cow", &nocow)) << strerror(errno);
  EXPECT_EQ(plain, blobOf("cow"));
  expectPutWritesNothing("cow", nocow);
  EXPECT_EQ(0, put("nocow", nullptr)) << strerror(errno);
  EXPECT_EQ(nocow, blobOf("nocow"));
  // The kernel adds the no-compression flag to none of those, but takes it away.
  std::string both = blobOf("both");
  EXPECT_EQ(0, put("nocow", &both)) << strerror(errno);
  EXPECT_EQ(nocow, blobOf("nocow"));
  EXPECT_EQ(0, put("both", &nocow)) << strerror(errno);
  EXPECT_EQ(nocow, blobOf("both"));
  expectPutWritesNothing("both", both);
  // Compression is impossible there; the rest of the blob arrives.
  EXPECT_EQ(0, put("nocow", &compressed)) << strerror(errno);
  EXPECT_EQ((std::map<std::string, std::string>{{"user.a", "1"}}), xattrsOf(at("nocow")));
  expectPutWritesNothing("nocow", compressed);
}

TEST_F(Attributes, ProtectedObjectsRefuseABlobOnlyWhereItDiffers) {
  tree_->file("file");
  tree_->setXattr("file", "user.a", "1");
  std::string equal = blobOf("file");
  tree_->file("other");
  tree_->setXattr("other", "user.a", "2");
  std::string different = blobOf("other");
  for (bool append_only : {false, true}) {
    append_only ? tree_->appendOnly("file") : tree_->immutable("file");
    EXPECT_EQ(0, put("file", &equal));
    EXPECT_FAILS(EPERM, put("file", &different));
    EXPECT_FAILS(EPERM, put("file", nullptr));
    append_only ? tree_->appendOnly("file", false) : tree_->immutable("file", false);
  }
  EXPECT_EQ(equal, blobOf("file"));
}

TEST_F(Attributes, DamagedBlobsChangeNothing) {
  tree_->file("file");
  tree_->setXattr("file", "user.a", "1");
  const std::string good = blobOf("file");
  for (size_t i = 0; i < good.size(); i++) {
    std::string bad = good;
    bad[i] = static_cast<char>(bad[i] ^ 0x40);
    bad.resize(1 << 16);  // what a wrong length leads to stays readable
    // A length beyond what is readable is the caller's: its header is all that there is to go by.
    if (i >= 14 && i < 16) continue;
    // Name and value are the caller's own bytes.
    if (i >= good.size() - 2) continue;
    SCOPED_TRACE(i);
    EXPECT_FAILS(EINVAL, put("file", &bad));
  }
  EXPECT_EQ(good, blobOf("file"));
}

// ---- ACLs ----

struct AclBuffer {
  explicit AclBuffer(int32_t length = 10240) : bytes(static_cast<size_t>(length)) {
    memcpy(bytes.data(), &length, sizeof length);
    bytes[6] = 1;
  }
  int32_t length() const {
    int32_t value;
    memcpy(&value, bytes.data(), sizeof value);
    return value;
  }
  std::vector<char> bytes;
};

TEST_F(Attributes, AclsAndModesAreOneState) {
  const std::string read_only = testsupport::aclForUser(1234, 4), all = testsupport::aclForUser(99, 7);
  // Any of the states of a type is put on any other: access ACL, default ACL, mode.
  struct State {
    std::string access, inherited;
    mode_t mode;
  };
  const std::vector<State> states = {{"", "", 0600},
                                     {"", "", 07777},
                                     {read_only, "", 06754},
                                     {all, read_only, 01070},
                                     {"", all, 02711}};
  for (std::string type : {"file", "dir", "fifo", "device"}) {
    for (size_t i = 0; i < states.size() * states.size(); i++) {
      const State *pair[2] = {&states[i / states.size()], &states[i % states.size()]};
      std::string names[2] = {type + std::to_string(i) + "from", type + std::to_string(i) + "to"};
      SCOPED_TRACE(names[1]);
      for (int k = 0; k < 2; k++) {
        make(type, names[k]);
        if (!pair[k]->access.empty())
          tree_->setXattr(names[k], testsupport::kAccessAcl, pair[k]->access);
        if (type == "dir" && !pair[k]->inherited.empty())
          tree_->setXattr(names[k], testsupport::kDefaultAcl, pair[k]->inherited);
        tree_->chmod(names[k], pair[k]->mode);
      }
      AclBuffer buffer;
      ASSERT_EQ(0, kest_getacl(at(names[0]).c_str(), 0, buffer.bytes.data()));
      ASSERT_EQ(0, kest_putacl(at(names[1]).c_str(), 0, buffer.bytes.data())) << strerror(errno);
      EXPECT_EQ(statOf(at(names[0])).st_mode, statOf(at(names[1])).st_mode);
      EXPECT_EQ(xattrsOf(at(names[0])), xattrsOf(at(names[1])));
    }
  }
}

TEST_F(Attributes, AclCallsOnEqualProtectedAndUnfollowedObjects) {
  tree_->file("file", "", 0640);
  tree_->setXattr("file", testsupport::kAccessAcl, testsupport::aclForUser(1234, 4));
  tree_->chmod("file", 04750);
  tree_->file("plain", "", 0600);
  tree_->symlink("plain", "link");

  AclBuffer buffer;
  ASSERT_EQ(0, kest_getacl(at("file").c_str(), 0, buffer.bytes.data()));
  AclBuffer tight(buffer.length() - 1);
  EXPECT_FAILS(ENOSPC, kest_getacl(at("file").c_str(), 0, tight.bytes.data()));
  EXPECT_EQ(buffer.length(), tight.length());
  AclBuffer exact(buffer.length());
  EXPECT_EQ(0, kest_getacl(at("file").c_str(), 0, exact.bytes.data()));

  tree_->immutable("file");
  EXPECT_EQ(0, kest_putacl(at("file").c_str(), 0, exact.bytes.data())) << "equal: nothing to write";
  EXPECT_EQ(0, kest_putacl(at("link").c_str(), 0, exact.bytes.data()));
  EXPECT_EQ(mode_t{S_IFREG | 0600}, statOf(at("plain")).st_mode) << "the link was followed";

  AclBuffer other;
  ASSERT_EQ(0, kest_getacl(at("plain").c_str(), 0, other.bytes.data()));
  EXPECT_FAILS(EPERM, kest_putacl(at("file").c_str(), 0, other.bytes.data()));
  tree_->immutable("file", false);
  Descriptor fd(kest_open_path(active_, at("file").c_str()));
  EXPECT_EQ(0, kest_fputacl(fd.get(), 0, other.bytes.data()));
  EXPECT_EQ(mode_t{S_IFREG | 0600}, statOf(at("file")).st_mode);
  EXPECT_TRUE(xattrsOf(at("file")).empty());

  exact.bytes[8] ^= 1;  // magic
  EXPECT_FAILS(EINVAL, kest_putacl(at("file").c_str(), 0, exact.bytes.data()));
  EXPECT_FAILS(ENOENT, kest_getacl(at("none").c_str(), 0, buffer.bytes.data()));
}

// ---- times ----

TEST_F(Attributes, TimesOfEveryObjectAreSetToTheNanosecond) {
  for (std::string type : {"file", "dir", "link", "fifo", "socket", "device"}) {
    SCOPED_TRACE(type);
    make(type, type);
    kest_timestruc64_t times[4] = {{-5, 999999999}, {(int64_t{1} << 33) + 1, 1}, {7, 7}, {8, 8}};
    ASSERT_EQ(0, kest_set_times_path(at(type).c_str(), 15, times)) << strerror(errno);
    times[0] = {1, 2};
    times[1] = {3, 2000000000};  // not asked for, not looked at
    ASSERT_EQ(0, kest_set_times_path(at(type).c_str(), 1, times)) << strerror(errno);
    struct stat st = statOf(at(type));
    EXPECT_EQ(1, st.st_atim.tv_sec);
    EXPECT_EQ(2, st.st_atim.tv_nsec);
    EXPECT_EQ((int64_t{1} << 33) + 1, st.st_mtim.tv_sec);
    EXPECT_EQ(1, st.st_mtim.tv_nsec);
    EXPECT_FAILS(EINVAL, kest_set_times_path(at(type).c_str(), 2, times));
    times[1] = {-5, UTIME_NOW};  // a command to the kernel, not a time
    EXPECT_FAILS(EINVAL, kest_set_times_path(at(type).c_str(), 2, times));
    times[1] = {-5, 3};
    Descriptor fd(kest_open_path(active_, at(type).c_str()));
    EXPECT_EQ(0, kest_fset_times(fd.get(), 2, times)) << strerror(errno);
    EXPECT_EQ(-5, statOf(at(type)).st_mtim.tv_sec);
  }
  const kest_timestruc64_t zero[4] = {};
  EXPECT_FAILS(ENOENT, kest_set_times_path(at("none").c_str(), 15, zero));
}

// ---- control requests ----

struct Directive {
  int32_t length, type, value, fourth, zero[2];
};
struct Request {
  int32_t total, version, error_offset, reserved;
  Directive directives[2];
};
static_assert(sizeof(Request) == 64);

Request request(int32_t type, int32_t value) {
  return {40, 1, 0, 0, {{24, type, value, value != 0 ? -1 : 0, {0, 0}}, {}}};
}
Request bothFlags(int32_t first, int32_t second) {
  return {64, 1, 0, 0, {{24, first, 0, 0, {0, 0}}, {24, second, 0, 0, {0, 0}}}};
}

TEST_F(Attributes, FlagsAreReadSetAndClearedThroughAnyDescriptor) {
  for (std::string type : {"file", "dir"}) {
    for (int open_flags : {O_RDONLY | O_NONBLOCK, O_PATH}) {
      SCOPED_TRACE(type + (open_flags == O_PATH ? " O_PATH" : ""));
      std::string name = type + std::to_string(open_flags);
      make(type, name);
      tree_->setXattr(name, "btrfs.compression", "zstd:9");
      Descriptor fd(::open(at(name).c_str(), open_flags));
      for (int32_t flag : {5000, 5004}) {
        Request set = request(flag, 1), get = bothFlags(5001, 5005);
        ASSERT_EQ(0, kest_fcntl(fd.get(), &set)) << strerror(errno);
        ASSERT_EQ(0, kest_fcntl(fd.get(), &get)) << strerror(errno);
        EXPECT_EQ(1, get.directives[0].value);
        EXPECT_EQ(flag == 5004, get.directives[1].value);
      }
      struct stat before = statOf(at(name));
      usleep(10000);
      Request again = request(5000, 1);
      EXPECT_EQ(0, kest_fcntl(fd.get(), &again));
      EXPECT_EQ(before.st_ctim.tv_nsec, statOf(at(name)).st_ctim.tv_nsec) << "a set flag was written";
      EXPECT_EQ("zstd:9", xattrsOf(at(name))["btrfs.compression"]) << "lost with the flag";
      Request clear = bothFlags(5000, 5004), get = bothFlags(5001, 5005);
      get.directives[0].value = get.directives[1].value = 9;
      EXPECT_EQ(0, kest_fcntl(fd.get(), &clear));
      EXPECT_EQ(0, kest_fcntl(fd.get(), &get));
      EXPECT_EQ(0, get.directives[0].value + get.directives[1].value);
    }
  }
  for (std::string type : {"fifo", "device", "socket", "link"}) {
    SCOPED_TRACE(type);
    make(type, type);
    bool openable = type == "fifo" || type == "device";
    Descriptor fd(::open(at(type).c_str(), openable ? O_RDONLY | O_NONBLOCK : O_PATH | O_NOFOLLOW));
    Request set = request(5000, 1), get = bothFlags(5001, 5005);
    get.directives[0].value = get.directives[1].value = 9;
    EXPECT_EQ(0, kest_fcntl(fd.get(), &set)) << strerror(errno);
    EXPECT_EQ(0, kest_fcntl(fd.get(), &get)) << strerror(errno);
    EXPECT_EQ(0, get.directives[0].value + get.directives[1].value);
  }
  std::string snapshot = fs_->snapshot("data", "snapshot-of-flags");
  Descriptor fd(::open(snapshot.c_str(), O_RDONLY));
  Request set = request(5000, 1);
  EXPECT_FAILS(EROFS, kest_fcntl(fd.get(), &set));
}

TEST_F(Attributes, MalformedRequestsChangeNothing) {
  tree_->file("file");
  Descriptor fd(::open(at("file").c_str(), O_RDONLY));
  std::vector<Request> bad(8, bothFlags(5000, 5004));
  for (Request &r : bad) r.directives[0].value = r.directives[1].value = 1;
  bad[0].version = 2;
  bad[1].total = 16;
  bad[2].total = 63;
  bad[3].total = -1;
  bad[4].directives[1].type = 5002;
  bad[5].directives[1].length = 0;
  bad[6].directives[1].length = 32;
  bad[7].directives[0].length = -24;
  for (size_t i = 0; i < bad.size(); i++) {
    SCOPED_TRACE(i);
    EXPECT_FAILS(EINVAL, kest_fcntl(fd.get(), &bad[i]));
  }
  Request get = bothFlags(5001, 5005);
  EXPECT_EQ(0, kest_fcntl(fd.get(), &get));
  EXPECT_EQ(0, get.directives[0].value + get.directives[1].value);
  EXPECT_FAILS(EBADF, kest_fcntl(-1, &get));
}

// A request to read an attribute, `size` bytes in all, as its callers build it.
std::vector<char> readRequest(const std::string &name, int32_t size) {
  int32_t padded = static_cast<int32_t>((name.size() + 7) / 8 * 8);
  int32_t words[10] = {
      size, 1, 0, 0, size - 16, 6001, static_cast<int32_t>(name.size()), size - 16 - padded - 24, 0, 0};
  std::vector<char> bytes(static_cast<size_t>(size));
  memcpy(bytes.data(), words, sizeof words);
  memcpy(bytes.data() + sizeof words, name.data(), name.size());
  return bytes;
}
int32_t word(const std::vector<char> &bytes, size_t index) {
  int32_t value;
  memcpy(&value, bytes.data() + index * 4, sizeof value);
  return value;
}

TEST_F(Attributes, AttributesAreReadByControlRequest) {
  const std::string clone = testsupport::patternBytes(1, 0, 16),
                    large = testsupport::patternBytes(2, 0, 2000);
  tree_->file("file");
  tree_->setXattr("file", "trusted.kest.CLONE", clone);
  tree_->setXattr("file", "trusted.kest.CLONESNAP", large);
  for (int open_flags : {O_RDONLY, O_PATH}) {
    Descriptor fd(::open(at("file").c_str(), open_flags));
    std::vector<char> bytes = readRequest("kest.CLONE", 1024);
    ASSERT_EQ(0, kest_fcntl(fd.get(), bytes.data())) << strerror(errno);
    EXPECT_EQ(0, word(bytes, 9));
    EXPECT_EQ(16, word(bytes, 7));
    EXPECT_EQ(clone, std::string(bytes.data() + 56, 16));  // 16 header, 24 directive, 16 padded name

    bytes = readRequest("kest.CLONESNAP", 1024);
    ASSERT_EQ(0, kest_fcntl(fd.get(), bytes.data()));
    EXPECT_EQ(29, word(bytes, 9));
    ASSERT_EQ(2000, word(bytes, 7));
    bytes = readRequest("kest.CLONESNAP", 16 + 2000 + 40);  // exactly enough
    ASSERT_EQ(0, kest_fcntl(fd.get(), bytes.data()));
    EXPECT_EQ(0, word(bytes, 9));
    EXPECT_EQ(large, std::string(bytes.data() + 56, 2000));

    bytes = readRequest("kest.NONE", 1024);
    ASSERT_EQ(0, kest_fcntl(fd.get(), bytes.data()));
    EXPECT_EQ(27, word(bytes, 9));

    bytes = readRequest("kest.CLONE", 1024);
    int32_t too_long = word(bytes, 7) + 1;
    memcpy(bytes.data() + 28, &too_long, sizeof too_long);
    EXPECT_FAILS(EINVAL, kest_fcntl(fd.get(), bytes.data()));
  }
}

TEST_F(Attributes, FileSystemFiguresAreCountedInTransferUnits) {
  kest_statfs64_t figures;
  ASSERT_EQ(0, kest_statfs64(root_.c_str(), &figures));
  struct statvfs expected;
  ASSERT_EQ(0, statvfs(root_.c_str(), &expected));
  EXPECT_EQ(262144u, figures.f_bsize);
  EXPECT_EQ(expected.f_blocks * expected.f_frsize / 262144, figures.f_blocks);
  EXPECT_LT(figures.f_bfree, figures.f_blocks);
  EXPECT_FAILS(ENOENT, kest_statfs64(at("none").c_str(), &figures));
}

}  // namespace
