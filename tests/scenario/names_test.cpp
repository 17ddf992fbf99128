// Renames: what was moved goes home as the same object, whatever stands there now.
#include "scenario/restore_fixture.h"

using namespace scenario;

namespace {

void files(TreeBuilder &t) {
  t.dirs("d");
  t.dirs("e");
  for (const char *name : {"a", "b", "c", "d/a"}) t.file(name, std::string("contents of ") + name);
}

void nested(TreeBuilder &t) {
  for (const char *name : {"p/q/r", "s/t", "u"}) t.dirs(name);
  for (const char *name : {"p/f", "p/q/f", "p/q/r/f", "p/q/r/g", "s/f", "s/t/f", "u/f"})
    t.file(name, std::string("contents of ") + name);
}

const HistoryCase kFiles[] = {
    {"InPlace", files, [](TreeBuilder &t) { t.rename("a", "z"); }},
    {"IntoAnotherDirectory", files, [](TreeBuilder &t) { t.rename("a", "e/a"); }},
    {"OverAnother", files, [](TreeBuilder &t) { t.rename("a", "b"); }},
    {"OverAnotherElsewhere", files, [](TreeBuilder &t) { t.rename("a", "d/a"); }},
    {"Swapped", files, [](TreeBuilder &t) { t.exchange("a", "b"); }},
    {"SwappedAcross", files, [](TreeBuilder &t) { t.exchange("a", "d/a"); }},
    {"Ring", files,
     [](TreeBuilder &t) {
       t.rename("a", "x");
       t.rename("b", "a");
       t.rename("c", "b");
       t.rename("x", "c");
     }},
    {"RenamedAndANewOneInItsPlace", files,
     [](TreeBuilder &t) {
       t.rename("a", "moved");
       t.file("a", "new at the old name");
     }},
    {"DeletedAndAnotherInItsPlace", files,
     [](TreeBuilder &t) {
       t.remove("b");
       t.rename("a", "b");
     }},
    {"ChainOfThree", files,
     [](TreeBuilder &t) {
       t.remove("c");
       t.rename("b", "c");
       t.rename("a", "b");
       t.rename("d/a", "a");
     }},
    {"OtherKindsRenamed",
     [](TreeBuilder &t) {
       files(t);
       t.symlink("a", "link");
       t.fifo("fifo");
       t.socket("socket");
     },
     [](TreeBuilder &t) {
       t.rename("link", "d/link");
       t.rename("fifo", "link");
       t.rename("socket", "e/s");
       t.file("socket", "x");
     }},
};

const HistoryCase kDirectories[] = {
    {"Renamed", nested, [](TreeBuilder &t) { t.rename("p", "z"); }},
    {"Swapped", nested, [](TreeBuilder &t) { t.exchange("p", "s"); }},
    {"SwappedAcrossLevels", nested, [](TreeBuilder &t) { t.exchange("p/q", "u"); }},
    {"ParentAndChildExchanged", nested,
     [](TreeBuilder &t) {
       t.rename("p/q", "x");
       t.rename("p", "x/q");
       t.rename("x", "p");
     }},
    {"ParentBelowFormerChild", nested,
     [](TreeBuilder &t) {
       t.rename("p/q/r", "r");
       t.rename("p", "r/p");
     }},
    {"ChainReversed", nested,
     [](TreeBuilder &t) {
       t.rename("p/q/r", "r");
       t.rename("p/q", "r/q");
       t.rename("p", "r/q/p");
     }},
    {"MovedAndWreckedInside", nested,
     [](TreeBuilder &t) {
       t.rename("p", "s/p");
       t.write("s/p/f", 0, "CHANGED");
       t.remove("s/p/q/f");
       t.file("s/p/q/new");
       t.rename("s/p/q/r/f", "elsewhere");
     }},
    {"MovedIntoMovedIntoMoved", nested,
     [](TreeBuilder &t) {
       t.rename("u", "s/t/u");
       t.rename("s/t", "p/t");
       t.remove("p/t/u/f");
       t.write("p/t/f", 0, "CHANGED");
       t.rename("p", "outermost");
     }},
    {"NewDirectoryAtTheOldName", nested,
     [](TreeBuilder &t) {
       t.rename("p", "moved");
       t.dirs("p/q/r");
       t.file("p/f", "new");
       t.file("p/q/r/f", "new");
     }},
    {"NewFileAtTheOldName", nested,
     [](TreeBuilder &t) {
       t.rename("p", "moved");
       t.file("p", "new");
       t.rename("moved/q", "u/q");
       t.symlink("moved", "moved/q");
     }},
    {"MovedDirectoryAtAnotherOnesOldName", nested,
     [](TreeBuilder &t) {
       t.rename("p", "x");
       t.rename("s", "p");
       t.rename("u", "s");
       t.removeTree("x/q");
     }},
    {"ParentDeletedAfterTheMove", nested,
     [](TreeBuilder &t) {
       t.rename("p/q", "u/q");
       t.removeTree("p");
       t.rename("s/t", "t");
       t.removeTree("s");
       t.rename("t", "s");
     }},
};

TEST_P(RestoreTable, Names) {
  runCase(GetParam());
}
INSTANTIATE_TEST_SUITE_P(Files, RestoreTable, ::testing::ValuesIn(kFiles), caseName);
INSTANTIATE_TEST_SUITE_P(Directories, RestoreTable, ::testing::ValuesIn(kDirectories), caseName);

using ManyNames = RestoreFixture;
TEST_F(ManyNames, CyclicShiftOfAHundredEntries) {
  tree().dir("d");
  auto name = [](int i) { return "d/entry" + std::to_string(i); };
  for (int i = 0; i < 100; ++i) {
    if (i % 3 == 0)
      tree().dir(name(i));
    else
      tree().file(name(i), std::to_string(i));
    if (i % 3 == 0) tree().file(name(i) + "/inside", std::to_string(i));
  }
  takeSnapshot();
  tree().rename(name(0), "d/aside");
  for (int i = 1; i < 100; ++i) tree().rename(name(i), name(i - 1));
  tree().rename("d/aside", name(99));
  expectRestored();
}

}  // namespace
