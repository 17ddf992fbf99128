#include "object/clear_flags.h"

#include <cerrno>

#include "object/control_request.h"
#include "run/descriptor.h"
#include "unit/support/real_fileset.h"

namespace {

class ClearFlags : public RealFileset {
 protected:
  void SetUp() override {
    RealFileset::SetUp();
    tree.dirs("a/b");
    tree.file("a/b/f");
    tree.symlink("f", "a/b/link");
    takeSnapshot();
  }
  bool flagged(const std::string &name) {
    InodeFlags flags;
    const Descriptor fd(kest_open_path(handles.activeFsP, active(name).c_str()));
    EXPECT_EQ(getInodeFlags(fd.get(), &flags), 0) << name;
    return flags.immutable;
  }
};

TEST_F(ClearFlags, MissingObjectAndLinkAreSkippedTheirAncestorsAreNot) {
  for (const char *name : {"a/b/missing", "a/b/link"}) {
    for (const char *flag : {"a/b/f", "a/b", "a"}) tree.immutable(flag);
    EXPECT_EQ(clearImuAndApdFlags(active(name)), 0) << name;
    EXPECT_TRUE(flagged("a/b/f")) << name;
    EXPECT_FALSE(flagged("a/b") || flagged("a")) << name;
  }
  EXPECT_NE(clearImuAndApdFlags(active("a/none/missing")), 0);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_NE(clearImuAndApdFlags("/elsewhere"), 0);  // ends although the root is not on the way
}

TEST_F(ClearFlags, AncestorsOfTheSnapshotAreOwedTheirFlags) {
  tree.dir("a/b/new");
  for (const char *flag : {"a/b/new", "a/b/f", "a"}) tree.immutable(flag);
  ASSERT_EQ(clearImuAndApdFlags(active("a/b/f")), 0);
  ASSERT_EQ(clearImuAndApdFlags(active("a/b/new/none")), 0);
  const std::string owed = read(workPath(kDirNew));
  EXPECT_NE(owed.find(active("a") + ":"), std::string::npos) << owed;
  EXPECT_EQ(std::count(owed.begin(), owed.end(), '\n'), 1) << owed;
}

TEST_F(ClearFlags, RetriesAreBoundedAndKeepTheCause) {
  struct {
    int err;
    std::string path;
    int least, most;
    bool clearingFailed;
  } cases[] = {{EROFS, active("a/b/f"), 10, 51, false},
               {EPERM, active("a/b/f"), 10, 51, false},
               {ENOSPC, active("a/b/f"), 1, 1, false},
               {EROFS, "/elsewhere", 1, 1, true}};
  for (const auto &one : cases) {
    int steps = 0;
    bool failed = false;
    const auto step = [&] { return ++steps, errno = one.err, -1; };
    EXPECT_EQ(retryClearing(one.path, "", step, &failed), one.err);
    EXPECT_EQ(errno, one.err);
    EXPECT_GE(steps, one.least);
    EXPECT_LE(steps, one.most);
    EXPECT_EQ(failed, one.clearingFailed);
  }
}

TEST_F(ClearFlags, OwnersRefusalClearsTheObjectAloneAsLongAsItCarriesTheFlag) {
  for (const char *flag : {"a/b/f", "a/b"}) tree.immutable(flag);
  int steps = 0;
  // Another worker sets the flag once more between the clearing and the step.
  const auto step = [&] {
    if (++steps == 2) tree.immutable("a/b/f");
    return flagged("a/b/f") ? (errno = EPERM, -1) : 0;
  };
  EXPECT_EQ(retryClearing(active("a/b/f"), "", step), 0);
  EXPECT_EQ(steps, 3);
  EXPECT_TRUE(flagged("a/b"));
}

}  // namespace
