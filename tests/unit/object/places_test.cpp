#include "object/places.h"

#include "unit/support/real_fileset.h"

namespace {

class SnapPath : public RealFileset {
 protected:
  // Returns the inode number of a path's object in the snapshot; 0: there is none; -1: unknown.
  int64_t inSnapshot(const std::string &path) {
    SnapPlace place;
    if (getSnapPath(path, &place)) return static_cast<int64_t>(place.ino);
    return place.absent ? 0 : -1;
  }
};

TEST_F(SnapPath, OfRenamedAndWaitingObjects) {
  tree.dirs("old/a");
  const int64_t dir = tree.inode("old"), below = tree.inode("old/a");
  takeSnapshot();
  tree.rename("old", "new");
  EXPECT_EQ(inSnapshot(active("new")), 0);
  EXPECT_EQ(inSnapshot(tempLocation(dir)), -1) << "nothing says where it belongs";
  ASSERT_TRUE(makeWorkDirectory(bucketDir(dir)));
  ASSERT_TRUE(fetchFile(active("old"), dir));
  EXPECT_EQ(inSnapshot(tempLocation(dir)), dir);
  EXPECT_EQ(inSnapshot(tempLocation(dir) + "/a"), below);
  EXPECT_EQ(inSnapshot(tempLocation(dir) + "/b"), 0);
}

}  // namespace
