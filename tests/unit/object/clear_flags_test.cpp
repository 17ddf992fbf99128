#include "object/clear_flags.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "object/control_request.h"
#include "run/run_handles.h"
#include "run/settings.h"
#include "run/work_dir.h"
#include "unit/support/fake_kest.h"

namespace {

class ClearFlags : public FakeFileset {
 protected:
  void SetUp() override {
    FakeFileset::SetUp();
    for (const char *name : {"a", "a/b"}) {
      makeDir(active(name));
      makeDir(snap(name));
      fakeKest.inoOf[snap(name)] = inoOf(active(name));  // the same directory
    }
    makeFile(active("a/b/f"));
  }
  std::string dirNew() const { return read(workPath(kDirNew)); }
  // The head of the record for inode `ino`.
  static std::string record(uint64_t ino) {
    char text[40];
    snprintf(text, sizeof text, "%llx:0:0:0:0:0:", static_cast<unsigned long long>(ino));
    return text;
  }
};

TEST_F(ClearFlags, RequestsHaveTheirLayout) {
  const int fd = kest_open_path(handles.activeFsP, active("a/b/f").c_str());
  InodeFlags flags;
  fakeKest.immutable = {active("a/b/f")};
  ASSERT_EQ(getInodeFlags(fd, &flags), 0);
  EXPECT_TRUE(flags.immutable);
  EXPECT_FALSE(flags.appendOnly);
  ASSERT_EQ(clearInodeFlags(fd), 0);
  ASSERT_EQ(setImmutableFlag(fd, true), 0);
  ASSERT_EQ(setAppendOnlyFlag(fd, false), 0);
  close(fd);
  const std::vector<std::vector<int32_t>> expected = {
      {64, 1, 0, 0, 24, 5001, 0, 0, 0, 0, 24, 5005, 0, 0, 0, 0},
      {64, 1, 0, 0, 24, 5000, 0, 0, 0, 0, 24, 5004, 0, 0, 0, 0},
      {40, 1, 0, 0, 24, 5000, 1, -1, 0, 0},
      {40, 1, 0, 0, 24, 5004, 0, 0, 0, 0},
  };
  ASSERT_EQ(fakeKest.requests.size(), expected.size());
  for (size_t i = 0; i < expected.size(); ++i) {
    ASSERT_EQ(fakeKest.requests[i].size(), expected[i].size() * 4);
    EXPECT_EQ(memcmp(fakeKest.requests[i].data(), expected[i].data(), expected[i].size() * 4), 0) << i;
  }
}

TEST_F(ClearFlags, WalksUpToTheRootAndListsAncestorsOfTheSnapshot) {
  fakeKest.immutable = {active("a/b/f"), active("a/b"), active("a"), handles.rootPath};
  ASSERT_EQ(clearImuAndApdFlags(active("a/b/f")), 0);
  EXPECT_EQ(fakeKest.calls,
            (std::vector<std::string>{"unflag " + active("a/b/f"), "unflag " + active("a/b"),
                                      "unflag " + active("a")}));
  EXPECT_EQ(fakeKest.immutable.count(handles.rootPath), 1u);
  const std::string text = dirNew();
  EXPECT_NE(text.find(record(inoOf(active("a/b")))), std::string::npos);
  EXPECT_NE(text.find(record(inoOf(active("a")))), std::string::npos);
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 2);
}

TEST_F(ClearFlags, WritesNothingWhereNothingIsSet) {
  ASSERT_EQ(clearImuAndApdFlags(active("a/b/f")), 0);
  EXPECT_EQ(clearImuAndApdFlags(handles.rootPath), 0);
  EXPECT_TRUE(fakeKest.calls.empty());
  EXPECT_EQ(dirNew(), "");
}

TEST_F(ClearFlags, MissingObjectAndLinkAreSkippedTheirAncestorsAreNot) {
  ASSERT_EQ(symlink("f", active("a/b/link").c_str()), 0);
  for (const char *name : {"a/b/missing", "a/b/link"}) {
    fakeKest.immutable = {active("a/b"), active("a/b/f")};
    EXPECT_EQ(clearImuAndApdFlags(active(name)), 0) << name;
    EXPECT_EQ(fakeKest.immutable, std::set<std::string>{active("a/b/f")}) << name;
  }
  EXPECT_NE(clearImuAndApdFlags(active("a/none/missing")), 0);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_NE(clearImuAndApdFlags("/elsewhere"), 0);  // ends although the root is not on the way
}

TEST_F(ClearFlags, DirectoryMadeAgainIsOwedItsFlagOnlyOnceDirectoriesStand) {
  fakeKest.inoOf[snap("a/b")] = 4000;
  fakeKest.immutable = {active("a/b")};
  settings.phase = kPhaseData;
  ASSERT_EQ(clearImuAndApdFlags(active("a/b/f")), 0);
  EXPECT_EQ(dirNew(), "");
  fakeKest.immutable = {active("a/b")};
  settings.phase = kPhaseLinks;
  ASSERT_EQ(clearImuAndApdFlags(active("a/b/f")), 0);
  EXPECT_NE(dirNew().find(record(4000)), std::string::npos);
}

TEST_F(ClearFlags, TemporaryLocationEndsTheWalkAtItsBucket) {
  const std::string location = workPath(tempLocation(3001));
  makeDir(location);
  makeFile(location + "/f");
  fakeKest.immutable = {location, workPath(bucketDir(3001)), settings.shareDir};
  ASSERT_EQ(clearImuAndApdFlags(location + "/f"), 0);
  EXPECT_EQ(fakeKest.calls, std::vector<std::string>{"unflag " + location});
}

TEST_F(ClearFlags, RetriesAreBoundedAndKeepTheCause) {
  for (const int err : {EROFS, EPERM}) {
    int steps = 0;
    EXPECT_EQ(retryClearing(active("a/b/f"), "", [&] { return ++steps, errno = err, -1; }), err);
    EXPECT_EQ(errno, err);
    EXPECT_GT(steps, 10);
    EXPECT_LE(steps, 51);
  }
  int steps = 0;
  EXPECT_EQ(retryClearing(active("a/b/f"), "", [&] { return ++steps, errno = ENOSPC, -1; }), ENOSPC);
  EXPECT_EQ(steps, 1);
  bool clearing_failed = false;
  fakeKest.fault = [](const std::string &call, const std::string &) {
    return call == "fcntl" ? EIO : 0;
  };
  const auto refused = [&] { return errno = EROFS, -1; };
  EXPECT_EQ(retryClearing(active("a/b/f"), "", refused, &clearing_failed), EROFS);
  EXPECT_TRUE(clearing_failed);
}

TEST_F(ClearFlags, OwnersRefusalClearsTheObjectAloneAsLongAsItCarriesTheFlag) {
  fakeKest.immutable = {active("a/b/f"), active("a/b")};
  int steps = 0;
  // Another worker sets the flag once more between the clearing and the step.
  const auto step = [&] {
    if (++steps == 2) fakeKest.immutable.insert(active("a/b/f"));
    return fakeKest.immutable.count(active("a/b/f")) ? (errno = EPERM, -1) : 0;
  };
  EXPECT_EQ(retryClearing(active("a/b/f"), "", step), 0);
  EXPECT_EQ(steps, 3);
  EXPECT_EQ(fakeKest.immutable, std::set<std::string>{active("a/b")});
}

}  // namespace
