// Immutable and append-only objects: in the snapshot, since then, and in the way of other changes.
#include "scenario/restore_fixture.h"

using namespace scenario;

namespace {

void filesAndDirs(TreeBuilder &t) {
  t.dirs("d/sub");
  for (const char *name : {"f1", "f2", "f3", "f4", "d/f1", "d/f2", "d/sub/f1"}) t.big(name, 10000, 1);
  t.dir("e");
}

const HistoryCase kCases[] = {
    {"SetSince", filesAndDirs,
     [](TreeBuilder &t) {
       t.immutable("f1");
       t.appendOnly("f2");
       t.immutable("d");
       t.appendOnly("e");
     }},
    {"ClearedSince",
     [](TreeBuilder &t) {
       filesAndDirs(t);
       t.immutable("f1");
       t.appendOnly("f2");
       t.immutable("e");
       t.appendOnly("d");
     },
     [](TreeBuilder &t) {
       t.immutable("f1", false);
       t.appendOnly("f2", false);
       t.immutable("e", false);
       t.appendOnly("d", false);
     }},
    {"OnChangedFiles", filesAndDirs,
     [](TreeBuilder &t) {
       t.write("f1", 5000, "changed");
       t.immutable("f1");
       t.append("f2", "more");
       t.appendOnly("f2");
       t.appendOnly("f3");
       t.append("f3", "more");
       t.truncate("f4", 10);
       t.chown("f4", 7, 7);
       t.immutable("f4");
     }},
    {"ImmutableInBothButChangedBetween",
     [](TreeBuilder &t) {
       filesAndDirs(t);
       t.immutable("f1");
       t.immutable("d/sub");
       t.immutable("d");
     },
     [](TreeBuilder &t) {
       t.immutable("f1", false);
       t.write("f1", 0, "changed");
       t.immutable("f1");
       t.immutable("d", false);
       t.immutable("d/sub", false);
       t.remove("d/sub/f1");
       t.file("d/sub/new");
       t.remove("d/f1");
       t.immutable("d/sub");
       t.immutable("d");
     }},
    {"OnDeleted",
     [](TreeBuilder &t) {
       filesAndDirs(t);
       t.immutable("d/f1");
       t.appendOnly("d/f2");
       t.immutable("d/sub");
       t.immutable("f1");
     },
     [](TreeBuilder &t) {
       t.immutable("d/f1", false);
       t.appendOnly("d/f2", false);
       t.immutable("d/sub", false);
       t.immutable("f1", false);
       t.removeTree("d");
       t.remove("f1");
     }},
    {"OnNewObjects", filesAndDirs,
     [](TreeBuilder &t) {
       t.file("new", "x");
       t.immutable("new");
       t.dirs("newdir/inner");
       t.file("newdir/inner/file", "x");
       t.immutable("newdir/inner/file");
       t.appendOnly("newdir/inner");
       t.immutable("newdir");
     }},
    {"OnRenamed",
     [](TreeBuilder &t) {
       filesAndDirs(t);
       t.immutable("f1");
     },
     [](TreeBuilder &t) {
       t.immutable("f1", false);
       t.rename("f1", "e/renamed");
       t.immutable("e/renamed");
       t.rename("d", "e/d");
       t.immutable("e/d");
       t.immutable("e");
     }},
    {"AboveChanges", filesAndDirs,
     [](TreeBuilder &t) {
       t.write("d/f1", 0, "changed");
       t.remove("d/f2");
       t.file("d/sub/new");
       t.chmod("d/sub/f1", 0600);
       t.immutable("d/sub");
       t.immutable("d");
     }},
    {"OnHardLinked",
     [](TreeBuilder &t) {
       filesAndDirs(t);
       t.link("f1", "d/link1");
       t.immutable("f1");
       t.link("f2", "d/link2");
     },
     [](TreeBuilder &t) {
       t.immutable("f1", false);
       t.remove("d/link1");
       t.link("f1", "e/link1");
       t.immutable("f1");
       t.remove("d/link2");
       t.immutable("f2");
     }},
    {"UnchangedImmutableAmongChanges",
     [](TreeBuilder &t) {
       filesAndDirs(t);
       t.immutable("f1");
       t.immutable("d");
     },
     [](TreeBuilder &t) { t.write("f2", 0, "changed"); }},
};

TEST_P(RestoreTable, Flags) {
  runCase(GetParam());
}
INSTANTIATE_TEST_SUITE_P(Flags, RestoreTable, ::testing::ValuesIn(kCases), caseName);

}  // namespace
