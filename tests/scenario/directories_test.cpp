// Directories deleted and created since the snapshot, with what was moved out of and into them.
#include "scenario/restore_fixture.h"

using namespace scenario;

namespace {

void deepTree(TreeBuilder &t, const std::string &top, int levels) {
  std::string at = top;
  for (int level = 0; level < levels; ++level) {
    t.dirs(at);
    t.file(at + "/file", "level " + std::to_string(level));
    t.big(at + "/bigger", 20000, static_cast<uint64_t>(level));
    t.symlink("file", at + "/link");
    t.fifo(at + "/fifo");
    t.dir(at + "/empty", 0700);
    at += "/down";
  }
}

// A directory with siblings that a walk by name meets before and after it.
void betweenSiblings(TreeBuilder &t) {
  t.dirs("aa/in");
  t.dirs("zz/in");
  t.dirs("mm/sub/deep");
  t.file("mm/file", "m");
  t.file("mm/other", "o");
  t.file("mm/sub/inside", "i");
  t.file("mm/sub/deep/est", "d");
}

const HistoryCase kDeleted[] = {
    {"ThreeLevels", [](TreeBuilder &t) { deepTree(t, "top", 3); },
     [](TreeBuilder &t) { t.removeTree("top"); }},
    {"TenLevels", [](TreeBuilder &t) { deepTree(t, "a/top", 10); },
     [](TreeBuilder &t) { t.removeTree("a/top"); }},
    {"Everything",
     [](TreeBuilder &t) {
       deepTree(t, "one", 2);
       deepTree(t, "two", 3);
       t.file("alone", "x");
     },
     [](TreeBuilder &t) {
       for (const char *name : {"one", "two", "alone"}) t.removeTree(name);
     }},
    {"WithAttributes",
     [](TreeBuilder &t) {
       t.dirs("d/e");
       t.file("d/f", "x", 06755);
       t.chmod("d/e", 03711);
       t.chown("d/e", 1000, 1001);
       t.setXattr("d", testsupport::kDefaultAcl, testsupport::aclForUser(1000, 7));
       t.setXattr("d/f", "user.note", "kept");
       t.setXattr("d/e", "trusted.note", std::string(2000, 'v'));
       t.mtime("d/f", 1ll << 33, 7);
       t.mtime("d/e", -1, 999999999);
       t.mtime("d", 1000000000, 1);
     },
     [](TreeBuilder &t) { t.removeTree("d"); }},
    {"MovedOutToEarlierAndLater", betweenSiblings,
     [](TreeBuilder &t) {
       t.rename("mm/file", "aa/in/taken");
       t.rename("mm/sub/deep", "zz/in/taken");
       t.rename("mm/other", "zz/other");
       t.rename("mm/sub", "aa/sub");
       t.write("zz/other", 0, "changed");
       t.removeTree("mm");
     }},
    {"NameTakenByANewOneWithTheOldContents", betweenSiblings,
     [](TreeBuilder &t) {
       t.rename("mm", "old");
       t.dir("mm", 0700);
       t.rename("old/sub", "mm/sub");
       t.rename("old/file", "mm/renamed");
       t.removeTree("old");
       t.file("mm/other", "a new file at an old name");
     }},
    {"DeletedAfterItsParentMoved", betweenSiblings,
     [](TreeBuilder &t) {
       t.rename("mm", "zz/mm");
       t.removeTree("zz/mm/sub");
       t.remove("zz/mm/file");
     }},
};

const HistoryCase kNew[] = {
    {"NewTree", [](TreeBuilder &t) { t.dir("kept"); },
     [](TreeBuilder &t) {
       deepTree(t, "new", 3);
       deepTree(t, "kept/new", 2);
     }},
    {"SnapshotObjectsMovedIn", betweenSiblings,
     [](TreeBuilder &t) {
       t.dirs("new/newer");
       t.rename("mm/file", "new/file");
       t.rename("mm/sub/deep", "new/newer/deep");
       t.file("new/newer/deep/new", "n");
       t.rename("aa", "new/newer/aa");
     }},
    {"NewInsideMoved", betweenSiblings,
     [](TreeBuilder &t) {
       t.rename("mm", "moved");
       t.dir("moved/new");
       t.rename("moved/sub", "moved/new/sub");
       t.rename("zz", "moved/new/zz");
       t.file("moved/new/zz/in/fresh");
     }},
    {"NewInsideOldInsideNew", betweenSiblings,
     [](TreeBuilder &t) {
       t.dir("new");
       t.rename("mm", "new/mm");
       t.dirs("new/mm/sub/newest/inner");
       t.rename("aa/in", "new/mm/sub/newest/inner/in");
       t.file("new/mm/sub/newest/file", "n");
     }},
    {"SortsBeforeAndAfterAll", betweenSiblings,
     [](TreeBuilder &t) {
       t.dir("!");
       t.rename("mm/file", "!/file");
       t.dir("\x7f");
       t.rename("mm/sub", "\x7f/sub");
     }},
    {"HoldsTheOnlyNameLeft",
     [](TreeBuilder &t) {
       betweenSiblings(t);
       t.link("mm/file", "aa/file");
     },
     [](TreeBuilder &t) {
       t.dir("new");
       t.link("mm/file", "new/only");
       t.remove("mm/file");
       t.remove("aa/file");
     }},
};

TEST_P(RestoreTable, Directories) {
  runCase(GetParam());
}
INSTANTIATE_TEST_SUITE_P(Deleted, RestoreTable, ::testing::ValuesIn(kDeleted), caseName);
INSTANTIATE_TEST_SUITE_P(New, RestoreTable, ::testing::ValuesIn(kNew), caseName);

}  // namespace
