#include "object/flags.h"

#include <cerrno>

#include "base/unique_fd.h"
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
    const UniqueFd fd(kest_open_path(handles.activeFsP, active(name).c_str()));
    EXPECT_TRUE(getInodeFlags(fd.get(), &flags)) << name;
    return flags.immutable;
  }
};

TEST_F(ClearFlags, MissingObjectAndLinkAreSkippedTheirAncestorsAreNot) {
  for (const char *name : {"a/b/missing", "a/b/link"}) {
    for (const char *flag : {"a/b/f", "a/b", "a"}) tree.immutable(flag);
    EXPECT_TRUE(clearImuAndApdFlags(active(name))) << name;
    EXPECT_TRUE(flagged("a/b/f")) << name;
    EXPECT_FALSE(flagged("a/b") || flagged("a")) << name;
  }
  EXPECT_EQ(clearImuAndApdFlags(active("a/none/missing")).err, ENOENT);
  EXPECT_FALSE(clearImuAndApdFlags("/elsewhere"));  // ends although the root is not on the path
}

TEST_F(ClearFlags, AncestorsThatTheSnapshotHoldsAreListed) {
  tree.dir("a/b/new");
  for (const char *flag : {"a/b/new", "a/b/f", "a"}) tree.immutable(flag);
  ASSERT_TRUE(clearImuAndApdFlags(active("a/b/f")));
  ASSERT_TRUE(clearImuAndApdFlags(active("a/b/new/none")));
  const std::string listed = read(workPath(kDirNew));
  EXPECT_NE(listed.find(active("a") + ":"), std::string::npos) << listed;
  EXPECT_EQ(std::count(listed.begin(), listed.end(), '\n'), 1) << listed;
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
    const auto step = [&] { return ++steps, errnoResult(one.err); };
    EXPECT_EQ(retryClearing(one.path, "", step, &failed).err, one.err);
    EXPECT_GE(steps, one.least);
    EXPECT_LE(steps, one.most);
    EXPECT_EQ(failed, one.clearingFailed);
  }
}

TEST_F(ClearFlags, OwnersRefusalClearsTheObjectAloneAsLongAsItCarriesTheFlag) {
  for (const char *flag : {"a/b/f", "a/b"}) tree.immutable(flag);
  int steps = 0;
  // Another worker sets the flag again between the clearing and the step.
  const auto step = [&] {
    if (++steps == 2) tree.immutable("a/b/f");
    return errnoResult(flagged("a/b/f") ? EPERM : 0);
  };
  EXPECT_TRUE(retryClearing(active("a/b/f"), "", step));
  EXPECT_EQ(steps, 3);
  EXPECT_TRUE(flagged("a/b"));
}

}  // namespace
