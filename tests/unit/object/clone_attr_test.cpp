#include "object/clone_attr.h"

#include <cerrno>

#include "unit/support/fake_kest.h"

namespace {

class CloneAttribute : public FakeFileset {
 protected:
  void SetUp() override {
    FakeFileset::SetUp();
    path_ = active("f");
    makeFile(path_);
  }
  void setClone(uint8_t flags) {
    fakeKest.attributes["kest.CLONE"] = {0, 0, 0, 1, 0, 0, 0x10, 2, 9, 9, 9, 9, flags, 9, 1, 2};
  }
  std::string path_;
  CloneAttr attr_;
  CloneSnapAttr snap_;
};

TEST_F(CloneAttribute, ReadsBothAttributes) {
  EXPECT_EQ(getCloneXattr(path_, &attr_, nullptr), 0);
  EXPECT_EQ(traces(), "");  // ordinary files are the common case
  setClone(kCloneSnapFlag);
  fakeKest.attributes["kest.CLONESNAP"] = {9, 9, 9, 9, 0, 0, 1, 4};
  ASSERT_EQ(getCloneXattr(path_, &attr_, &snap_), 1);
  EXPECT_EQ(attr_.parentIno(), 0x100001002u);
  EXPECT_EQ(attr_.depth(), 0x102);
  EXPECT_FALSE(attr_.isParent());
  EXPECT_TRUE(attr_.parentInSnapshot());
  EXPECT_EQ(snap_.snapId(), 0x104u);
}

TEST_F(CloneAttribute, ShortValuesAreNoClones) {
  fakeKest.attributes["kest.CLONE"] = std::vector<uint8_t>(15);
  EXPECT_EQ(getCloneXattr(path_, &attr_, nullptr), 0);
  EXPECT_NE(traces().find("getCloneXattr: clone EA too short, path " + path_ + ", len 15\n"),
            std::string::npos);
  setClone(kCloneSnapFlag);
  EXPECT_EQ(getCloneXattr(path_, &attr_, &snap_), 0);  // the second attribute is missing
  EXPECT_EQ(getCloneXattr(path_, &attr_, nullptr), 1);
}

TEST_F(CloneAttribute, UnreadableSnapAttributeIsACloneStill) {
  setClone(kCloneSnapFlag);
  fakeKest.fault = [](const std::string &call, const std::string &name) {
    return call == "fcntl" && name == "kest.CLONESNAP" ? EIO : 0;
  };
  EXPECT_EQ(getCloneXattr(path_, &attr_, &snap_), 1);
  fakeKest.fault = [](const std::string &call, const std::string &) {
    return call == "fcntl" ? EIO : 0;
  };
  EXPECT_EQ(getCloneXattr(path_, &attr_, &snap_), 0);
  EXPECT_NE(traces().find("code 2, err -1, errno 5\n"), std::string::npos);
}

TEST_F(CloneAttribute, OtherTypesAreNeverAsked) {
  setClone(kCloneParent);
  makeDir(active("d"));
  EXPECT_EQ(getCloneXattr(active("d"), &attr_, nullptr), 0);
  EXPECT_EQ(traces(), "");
}

TEST_F(CloneAttribute, LongValueGrowsTheBuffer) {
  std::vector<uint8_t> value(5000, 7), read_value;
  fakeKest.attributes["kest.CLONE"] = value;
  ASSERT_EQ(getFileAttribute(0, "CLONE", &read_value), 1);
  EXPECT_EQ(read_value, value);
  EXPECT_EQ(getFileAttribute(0, "OTHER", &read_value), 0);
}

}  // namespace
