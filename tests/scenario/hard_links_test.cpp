// Files with several names: the groups come back, and the time does not grow with the square.
#include "scenario/restore_fixture.h"

using namespace scenario;

namespace {

void twoNames(TreeBuilder &t) {
  t.dirs("d/sub");
  t.dirs("e");
  t.big("a", 10000, 1);
  t.link("a", "b");
  t.big("c", 10000, 2);
  t.link("c", "d/c");
  t.link("c", "d/sub/c");
  t.big("alone", 10000, 3);
}

const HistoryCase kCases[] = {
    {"OneOfTwoRemoved", twoNames, [](TreeBuilder &t) { t.remove("b"); }},
    {"OneAdded", twoNames, [](TreeBuilder &t) { t.link("a", "e/third"); }},
    {"OneMoved", twoNames, [](TreeBuilder &t) { t.rename("b", "e/b"); }},
    {"AllMoved", twoNames,
     [](TreeBuilder &t) {
       t.rename("a", "e/a");
       t.rename("b", "d/b");
     }},
    {"NamesInADeletedDirectory", twoNames, [](TreeBuilder &t) { t.removeTree("d"); }},
    {"NamesInANewDirectory", twoNames,
     [](TreeBuilder &t) {
       t.dir("new");
       t.link("a", "new/a");
       t.rename("c", "new/c");
     }},
    {"NamesInAMovedDirectory", twoNames,
     [](TreeBuilder &t) {
       t.rename("d", "e/d");
       t.remove("e/d/c");
       t.link("a", "e/d/sub/a");
     }},
    {"AllRemoved", twoNames,
     [](TreeBuilder &t) {
       for (const char *name : {"a", "b", "c", "d/c", "d/sub/c"}) t.remove(name);
     }},
    {"AllRemovedWithTheirDirectories", twoNames,
     [](TreeBuilder &t) {
       for (const char *name : {"a", "b", "c", "d"}) t.removeTree(name);
     }},
    {"DataChangedThroughOne", twoNames,
     [](TreeBuilder &t) {
       t.write("d/c", 5000, "changed");
       t.truncate("a", 10);
       t.chmod("b", 0600);
     }},
    {"SecondNameForASingleOne", twoNames,
     [](TreeBuilder &t) {
       t.link("alone", "e/again");
       t.remove("alone");
     }},
    {"BothReplacedBySeparateFiles", twoNames,
     [](TreeBuilder &t) {
       for (const char *name : {"a", "b"}) {
         t.remove(name);
         t.big(name, 10000, 1);
       }
     }},
    {"OneReplacedByACopy", twoNames,
     [](TreeBuilder &t) {
       t.remove("b");
       t.big("b", 10000, 1);
     }},
    {"GroupsMixedUp", twoNames,
     [](TreeBuilder &t) {
       t.exchange("b", "c");
       t.remove("d/c");
       t.link("a", "d/c");
     }},
    {"SeparateFilesJoined",
     [](TreeBuilder &t) {
       t.file("one", "same");
       t.file("two", "same");
     },
     [](TreeBuilder &t) {
       t.remove("two");
       t.link("one", "two");
     }},
    {"OtherKinds",
     [](TreeBuilder &t) {
       t.symlink("target", "link");
       t.link("link", "link2");
       t.fifo("fifo");
       t.link("fifo", "fifo2");
     },
     [](TreeBuilder &t) {
       t.remove("link");
       t.rename("fifo2", "fifo3");
       t.remove("fifo");
     }},
};

TEST_P(RestoreTable, HardLinks) {
  runCase(GetParam());
}
INSTANTIATE_TEST_SUITE_P(HardLinks, RestoreTable, ::testing::ValuesIn(kCases), caseName);

using ManyLinks = RestoreFixture;

TEST_F(ManyLinks, TwoThousandNamesOfOneInode) {
  tree().dir("d");
  tree().file("d/0", "shared");
  for (int i = 1; i < 2000; ++i) tree().link("d/0", "d/" + std::to_string(i));
  takeSnapshot();
  for (int i = 0; i < 2000; i += 2) tree().remove("d/" + std::to_string(i));
  tree().write("d/1", 0, "SHARED");
  expectRestored();
}

TEST_F(ManyLinks, ManyInodesOfTwoNames) {
  for (int i = 0; i < 300; ++i) {
    const std::string name = std::to_string(i);
    tree().file(name, "x");
    tree().link(name, name + "b");
  }
  takeSnapshot();
  for (int i = 0; i < 300; ++i) tree().remove(std::to_string(i) + "b");
  expectRestored();
}

}  // namespace
