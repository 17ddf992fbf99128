// Attribute blobs, ACLs, times and control requests on a real btrfs.
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/statvfs.h>
#include <sys/xattr.h>
#include <unistd.h>

#include "platform/kest_reader.h"

namespace {

using namespace kesttest;
using testsupport::Descriptor;
using testsupport::TreeBuilder;

constexpr const char *kTypes[] = {"file", "dir", "link", "fifo", "socket", "device"};

class Attributes : public LibraryTest {
 protected:
  void make(const std::string &type, const std::string &name) {
    if (type == "file") tree_->file(name);
    if (type == "dir") tree_->dir(name);
    if (type == "link") tree_->symlink("nowhere", name);
    if (type == "fifo") tree_->fifo(name);
    if (type == "socket") tree_->socket(name);
    if (type == "device") tree_->device(name, S_IFCHR, 1, 3);
  }

  std::string blobOf(const std::string &name) {
    std::string blob(1 << 20, '\0');
    int size = -1;
    EXPECT_EQ(0, kest_igetattrsx(open(name).get(), 32, blob.data(), 1 << 20, &size)) << name;
    blob.resize(static_cast<size_t>(size));
    return blob;
  }
  int put(const std::string &name, const std::string &blob) {
    return kest_iputattrsx(open(name).get(), 32, blob.empty() ? nullptr : blob.data(), nullptr);
  }
  // The object has the blob already, or cannot have it, so nothing is written.
  void expectPutWritesNothing(const std::string &name, const std::string &blob) {
    struct timespec before = statOf(at(name)).st_ctim;
    usleep(10000);  // more than the granularity of timestamps
    EXPECT_EQ(0, put(name, blob)) << strerror(errno);
    EXPECT_EQ(before.tv_nsec, statOf(at(name)).st_ctim.tv_nsec) << "an equal blob was written";
  }
  void expectIndicator(const std::string &name, bool carries) {
    fs_->commit();
    kest_iattr64_t attr{};
    EXPECT_EQ(0, kest_istat(open(name).get(), &attr)) << strerror(errno);
    EXPECT_EQ(carries, attr.ia_xattr != 0) << name;
  }
};

TEST_F(Attributes, ABlobMakesEveryTypeOfObjectEqual) {
  for (std::string type : kTypes) {
    SCOPED_TRACE(type);
    std::string from = type + "-from", to = type + "-to";
    make(type, from);
    make(type, to);
    EXPECT_EQ("", blobOf(from));
    tree_->setXattr(from, "trusted.kest.CLONE", "of the source");
    expectIndicator(from, false);
    tree_->setXattr(from, "trusted.empty", "");
    tree_->setXattr(from, "trusted.binary", std::string("a\0b\n", 4));
    if (type == "file") tree_->setXattr(from, "security.capability", kCapability);
    tree_->setXattr(to, "trusted.binary", "a longer value than the new one");
    tree_->setXattr(to, "trusted.other", "goes away");
    // Attributes that no blob carries.
    tree_->setXattr(to, "trusted.kest.CLONE", "stays");
    if (type != "link") tree_->setXattr(to, testsupport::kAccessAcl, testsupport::aclForUser(1234, 4));

    std::string blob = blobOf(from);
    expectIndicator(from, true);
    ASSERT_EQ(0, put(to, blob)) << strerror(errno);
    auto expected = xattrsOf(at(from));
    expected["trusted.kest.CLONE"] = "stays";
    if (type != "link") expected[testsupport::kAccessAcl] = testsupport::aclForUser(1234, 4);
    EXPECT_EQ(expected, xattrsOf(at(to)));
    EXPECT_EQ(blob, blobOf(to));
    expectPutWritesNothing(to, blob);

    ASSERT_EQ(0, put(to, "")) << strerror(errno);
    EXPECT_EQ(type == "link" ? 1u : 2u, xattrsOf(at(to)).size());
    expectIndicator(to, false);
    expectPutWritesNothing(to, "");
  }
}

TEST_F(Attributes, MoreThanTheKernelLists) {
  tree_->file("from");
  tree_->file("to");
  auto name = [](int i) { return "user." + std::string(240, 'n') + std::to_string(i); };
  for (int i = 0; i < 300; i++) tree_->setXattr("from", name(i), std::to_string(i));
  tree_->setXattr("from", "user.large", std::string(12000, 'l'));
  ASSERT_EQ(-1, listxattr(at("from").c_str(), std::string(70000, ' ').data(), 70000));
  int size = 0;
  std::string small(10240, 'x');
  EXPECT_FAILS(ENOSPC, kest_igetattrsx(open("from").get(), 32, small.data(), 10240, &size));
  EXPECT_EQ(std::string(10240, 'x'), small);
  std::string blob = blobOf("from");
  EXPECT_EQ(blob.size(), static_cast<size_t>(size));
  ASSERT_EQ(0, put("to", blob)) << strerror(errno);
  EXPECT_EQ(blob, blobOf("to"));
  expectIndicator("to", true);
  char value[8] = {};
  EXPECT_EQ(3, lgetxattr(at("to").c_str(), name(299).c_str(), value, sizeof value));
  EXPECT_STREQ("299", value);
  EXPECT_EQ(0, put("to", "")) << strerror(errno);
  EXPECT_EQ(0, listxattr(at("to").c_str(), nullptr, 0));
}

// Brings an object into one of the states of storage flags and compression property.
void setStorageState(TreeBuilder *tree, const std::string &name, const std::string &state) {
  if (state.starts_with("property ")) tree->setXattr(name, "btrfs.compression", state.substr(9));
  if (state == "compress") tree->compress(name);
  if (state == "no-copy-on-write") tree->noCow(name);
  if (!state.starts_with("no-compress")) return;
  Descriptor fd(open((tree->root() + "/" + name).c_str(), O_RDONLY | O_CLOEXEC));
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
        ASSERT_EQ(0, put(id + "to", blob)) << strerror(errno);
        EXPECT_EQ(blob, blobOf(id + "to"));
        if (k == 0) expectPutWritesNothing(id + "to", blob);
      }
    }
  }
}

TEST_F(Attributes, NoCopyOnWriteOfAFileWithDataStaysAsItIs) {
  tree_->file("cow", "data");
  for (const char *name : {"nocow", "both"}) {
    tree_->file(name);
    const bool both = name == std::string("both");
    setStorageState(tree_.get(), name, both ? "no-compress, no-copy-on-write" : "no-copy-on-write");
    tree_->append(name, "data");
  }
  tree_->file("compressed");
  tree_->setXattr("compressed", "btrfs.compression", "zstd");
  tree_->setXattr("compressed", "user.a", "1");
  const std::string nocow = blobOf("nocow"), both = blobOf("both"), compressed = blobOf("compressed");

  expectPutWritesNothing("cow", nocow);
  expectPutWritesNothing("nocow", "");
  // The kernel never adds the no-compression flag to those, but clears it.
  expectPutWritesNothing("nocow", both);
  EXPECT_EQ(0, put("both", nocow)) << strerror(errno);
  EXPECT_EQ(nocow, blobOf("both"));
  // Compression is impossible there, but the rest of the blob is set.
  EXPECT_EQ(0, put("nocow", compressed)) << strerror(errno);
  EXPECT_EQ((std::map<std::string, std::string>{{"user.a", "1"}}), xattrsOf(at("nocow")));
  expectPutWritesNothing("nocow", compressed);
}

TEST_F(Attributes, AclCallsOnEqualProtectedAndUnfollowedObjects) {
  tree_->file("file", "", 0640);
  tree_->setXattr("file", testsupport::kAccessAcl, testsupport::aclForUser(1234, 4));
  tree_->file("plain", "", 0600);
  tree_->symlink("plain", "link");
  auto get = [&](const char *name, std::string *acl) {
    return kest_getacl(at(name).c_str(), 0, acl->data());
  };
  auto put = [&](const char *name, const std::string &acl) {
    return kest_putacl(at(name).c_str(), 0, acl.data());
  };
  // The length of the buffer, version 0, type 1.
  auto buffer = [](int32_t length) {
    std::string bytes(length, '\0');
    memcpy(bytes.data(), &length, sizeof length);
    bytes[6] = 1;
    return bytes;
  };
  std::string acl = buffer(10240), other = buffer(10240), tight = buffer(20);
  ASSERT_EQ(0, get("file", &acl));
  ASSERT_EQ(0, get("plain", &other));
  EXPECT_FAILS(ENOSPC, get("file", &tight));
  EXPECT_EQ(acl.substr(0, 4), tight.substr(0, 4)) << "the length that is needed";
  EXPECT_FAILS(ENOENT, get("none", &other));

  tree_->immutable("file");
  EXPECT_EQ(0, put("file", acl)) << "equal: nothing to write";
  EXPECT_EQ(0, put("link", acl));
  EXPECT_EQ(mode_t{S_IFREG | 0600}, statOf(at("plain")).st_mode) << "the link was followed";
  EXPECT_FAILS(EPERM, put("file", other));
  acl[8] ^= 1;  // magic
  EXPECT_FAILS(EINVAL, put("plain", acl));
}

TEST_F(Attributes, TimesOfEveryObjectAreSetToTheNanosecond) {
  for (std::string type : kTypes) {
    SCOPED_TRACE(type);
    make(type, type);
    kest_timestruc64_t times[4] = {{-5, 999999999}, {(int64_t{1} << 33) + 1, 1}, {7, 7}, {8, 8}};
    ASSERT_EQ(0, kest_set_times_path(at(type).c_str(), 15, times)) << strerror(errno);
    times[0] = {1, 2};
    times[1] = {3, 2000000000};  // not requested, so not checked
    ASSERT_EQ(0, kest_set_times_path(at(type).c_str(), 1, times)) << strerror(errno);
    EXPECT_EQ("1.2 8589934593.1", timesOf(at(type)));
    EXPECT_FAILS(EINVAL, kest_set_times_path(at(type).c_str(), 2, times));
    times[1] = {-5, UTIME_NOW};  // a command to the kernel, not a time
    EXPECT_FAILS(EINVAL, kest_set_times_path(at(type).c_str(), 2, times));
    times[1] = {-5, 3};
    Descriptor fd(kest_open_path(active_.get(), at(type).c_str()));
    EXPECT_EQ(0, kest_fset_times(fd.get(), 2, times)) << strerror(errno);
    EXPECT_EQ("1.2 -5.3", timesOf(at(type)));
  }
  const kest_timestruc64_t zero[4] = {};
  EXPECT_FAILS(ENOENT, kest_set_times_path(at("none").c_str(), 15, zero));
}

struct Directive {
  int32_t length, type, value, fourth, zero[2];
};
struct Request {
  int32_t total, version, error_offset, reserved;
  Directive directives[2];
};

Request request(int32_t first, int32_t second, int32_t value = 0) {
  return {64, 1, 0, 0, {{24, first, value, 0, {0, 0}}, {24, second, value, 0, {0, 0}}}};
}

TEST_F(Attributes, FlagsAreReadSetAndClearedThroughAnyDescriptor) {
  constexpr int32_t kSetImmutable = 5000, kGetImmutable = 5001, kSetAppend = 5004, kGetAppend = 5005;
  for (std::string type : kTypes) {
    const bool keeps = type == "file" || type == "dir";
    for (int open_flags : {O_RDONLY | O_NONBLOCK, O_PATH | O_NOFOLLOW}) {
      SCOPED_TRACE(type + (open_flags & O_PATH ? " O_PATH" : ""));
      if (!(open_flags & O_PATH) && (type == "link" || type == "socket")) continue;
      std::string name = type + std::to_string(open_flags);
      make(type, name);
      if (keeps) tree_->setXattr(name, "btrfs.compression", "zstd:9");
      Descriptor fd(::open(at(name).c_str(), open_flags));
      Request set = request(kSetImmutable, kSetAppend, 1), get = request(kGetImmutable, kGetAppend, 9);
      ASSERT_EQ(0, kest_fcntl(fd.get(), &set)) << strerror(errno);
      struct stat before = statOf(at(name));
      usleep(10000);
      EXPECT_EQ(0, kest_fcntl(fd.get(), &set));
      EXPECT_EQ(before.st_ctim.tv_nsec, statOf(at(name)).st_ctim.tv_nsec) << "a set flag was written";
      ASSERT_EQ(0, kest_fcntl(fd.get(), &get)) << strerror(errno);
      EXPECT_EQ(keeps, get.directives[0].value);
      EXPECT_EQ(keeps, get.directives[1].value);
      if (keeps) {
        EXPECT_EQ("zstd:9", xattrsOf(at(name))["btrfs.compression"]) << "lost with the flag";
      }
      Request clear = request(kSetImmutable, kSetAppend);
      EXPECT_EQ(0, kest_fcntl(fd.get(), &clear));
      EXPECT_EQ(0, kest_fcntl(fd.get(), &get));
      EXPECT_EQ(0, get.directives[0].value + get.directives[1].value);

      // The whole request is checked before anything is done.
      std::vector<Request> bad(7, request(kSetImmutable, kSetAppend, 1));
      bad[0].version = 2;
      bad[1].total = 63;
      bad[2].total = -1;
      bad[3].directives[1].type = 5002;
      bad[4].directives[1].length = 0;
      bad[5].directives[1].length = 32;
      bad[6].directives[0].length = -24;
      for (Request &one : bad) EXPECT_FAILS(EINVAL, kest_fcntl(fd.get(), &one));
      EXPECT_EQ(0, kest_fcntl(fd.get(), &get));
      EXPECT_EQ(0, get.directives[0].value + get.directives[1].value);
    }
  }
  Descriptor fd(::open(snapshot().c_str(), O_RDONLY | O_CLOEXEC));
  Request set = request(kSetImmutable, kSetAppend, 1);
  EXPECT_FAILS(EROFS, kest_fcntl(fd.get(), &set));
  EXPECT_FAILS(EBADF, kest_fcntl(-1, &set));
}

TEST_F(Attributes, FileSystemFiguresAreCountedInTransferUnits) {
  kest_statfs64_t figures;
  ASSERT_EQ(0, kest_statfs64(root().c_str(), &figures));
  struct statvfs expected;
  ASSERT_EQ(0, statvfs(root().c_str(), &expected));
  EXPECT_EQ(262144u, figures.f_bsize);
  EXPECT_EQ(expected.f_blocks * expected.f_frsize / 262144, figures.f_blocks);
  EXPECT_LT(figures.f_bfree, figures.f_blocks);
  EXPECT_FAILS(ENOENT, kest_statfs64(at("none").c_str(), &figures));
}

}  // namespace
