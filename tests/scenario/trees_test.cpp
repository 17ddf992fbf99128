// Names, types, links and flags: objects that were moved, removed, made or replaced come back as they
// were, as the same object if it still exists.
#include <sys/stat.h>

#include <cstring>

#include "scenario/restore_fixture.h"

using namespace scenario;

namespace {

void sample(TreeBuilder &t) {
  for (const char *dir : {"aa/in", "d/sub", "e", "p/q/r", "s/t", "zz/in"}) t.dirs(dir);
  for (const char *file :
       {"a", "b", "c", "d/f", "d/sub/f", "p/f", "p/q/f", "p/q/r/f", "p/q/r/g", "s/f", "s/t/f", "zz/f"})
    t.big(file, 10000, strlen(file));
  t.link("a", "a2");
  t.link("c", "d/c");
  t.link("c", "d/sub/c");
  t.symlink("target", "link");
  t.link("link", "link2");
  t.fifo("fifo");
  t.link("fifo", "fifo2");
  t.socket("socket");
}

void flagged(TreeBuilder &t) {
  sample(t);
  t.immutable("b");
  t.appendOnly("d/f");
  t.immutable("p/q");
  t.appendOnly("s/t");
}

void populatedDir(TreeBuilder &t, const std::string &path) {
  t.dirs(path + "/inner");
  t.file(path + "/one", "1");
  t.file(path + "/inner/two", "2");
  t.symlink("one", path + "/link");
}

const HistoryCase kNames[] = {
    {"Swapped", sample, [](TreeBuilder &t) { t.exchange("b", "d/f"); }},
    {"Ring", sample,
     [](TreeBuilder &t) {
       t.rename("b", "x");
       t.rename("d/f", "b");
       t.rename("s/f", "d/f");
       t.rename("x", "s/f");
     }},
    {"SwappedAcrossLevels", sample, [](TreeBuilder &t) { t.exchange("p/q", "s"); }},
    {"Everything",
     [](TreeBuilder &t) {
       for (std::string dir : {"one", "one/down", "two", "two/down", "two/down/deeper"}) {
         t.dir(dir, 03711);
         t.file(dir + "/empty file", "", 06755);
         t.big(dir + "/file", 20000, dir.size());
         t.symlink("file", dir + "/link");
         t.fifo(dir + "/fifo");
         t.dir(dir + "/empty", 0700);
         t.setXattr(dir, testsupport::kDefaultAcl, testsupport::aclForUser(1000, 7));
         t.chown(dir + "/empty file", 1000, 1001);
       }
       for (const char *dir : {"one/down", "one"}) t.mtime(dir, -1, 999999999);
     },
     [](TreeBuilder &t) {
       for (const char *name : {"one", "two"}) t.removeTree(name);
     }},
    {"NewInsideOldInsideNew", sample,
     [](TreeBuilder &t) {
       t.dir("new");
       t.rename("p", "new/p");
       t.dirs("new/p/q/newest/inner");
       t.rename("aa/in", "new/p/q/newest/inner/in");
       t.file("new/p/q/newest/file", "n");
     }},
};

const HistoryCase kKinds[] = {
    {"EveryKindByAnother",
     [](TreeBuilder &t) {
       for (const char *name : {"file to dir", "file to link", "file to FIFO"}) t.file(name, "text");
       for (const char *name : {"dir to file", "dir to link"}) populatedDir(t, name);
       t.symlink("/tmp", "link to dir");
       t.fifo("FIFO to file");
       t.socket("socket to dir");
       t.device("other minor", S_IFCHR, 1, 3);
       t.device("block", S_IFBLK, 7, 300);
       t.device("large minor", S_IFCHR, 4, 70000);
     },
     [](TreeBuilder &t) {
       for (const std::string &name : t.names("")) t.removeTree(name);
       for (const char *name : {"file to dir", "link to dir", "socket to dir"}) populatedDir(t, name);
       t.symlink("/etc/passwd", "file to link");
       t.symlink("/mnt/outside", "dir to link");
       t.fifo("file to FIFO");
       for (const char *name : {"dir to file", "FIFO to file"}) t.file(name, "now a file");
       t.device("other minor", S_IFCHR, 1, 5);
       t.device("block", S_IFCHR, 7, 300);
       t.device("large minor", S_IFCHR, 4, 5);
     }},
    // A changed file of the snapshot waits below the directory, and its path in the snapshot leads
    // through a link.
    {"SymlinksThatLeadNowhereToDirectoriesWithOldFiles",
     [](TreeBuilder &t) {
       t.symlink(std::string(3000, 'n'), "long");
       t.symlink("loop", "loop");
       t.file("a", "text");
       t.file("b", "text");
     },
     [](TreeBuilder &t) {
       for (const char *name : {"long", "loop"}) {
         t.remove(name);
         t.dir(name);
       }
       t.write("a", 0, "TEXT");
       t.write("b", 0, "TEXT");
       t.rename("a", "long/a");
       t.rename("b", "loop/b");
     }},
    {"SymlinkTargets",
     [](TreeBuilder &t) {
       for (const std::string &target :
            {std::string(1000, 't'), std::string(4000, 'u'), std::string("/"),
             std::string("../../outside"), std::string("deleted")})
         t.symlink(target, "to " + std::to_string(target.size()));
     },
     [](TreeBuilder &t) {
       for (const std::string &name : t.names("")) {
         t.remove(name);
         if (name != "to 7") t.symlink("short", name);
       }
     }},
};

const HistoryCase kHardLinks[] = {
    {"OneOfTwoRemoved", sample, [](TreeBuilder &t) { t.remove("a2"); }},
    {"AllRemoved", sample,
     [](TreeBuilder &t) {
       for (const char *name : {"a", "a2", "c", "d/c", "d/sub/c", "link", "link2"}) t.remove(name);
     }},
    {"AllRemovedWithTheirDirectories", sample,
     [](TreeBuilder &t) {
       for (const char *name : {"a", "a2", "c", "d"}) t.removeTree(name);
     }},
    {"OtherKinds", sample,
     [](TreeBuilder &t) {
       t.remove("link");
       t.rename("fifo2", "fifo3");
       t.remove("fifo");
     }},
};

const HistoryCase kFlags[] = {
    {"SetSince", sample,
     [](TreeBuilder &t) {
       for (const char *name : {"b", "p/q", "d/c"}) t.immutable(name);
       for (const char *name : {"s/f", "d"}) t.appendOnly(name);
     },
     testsupport::kInodeFlags},
    {"ClearedSince", flagged,
     [](TreeBuilder &t) {
       for (const char *name : {"b", "p/q"}) t.immutable(name, false);
       for (const char *name : {"d/f", "s/t"}) t.appendOnly(name, false);
     },
     testsupport::kInodeFlags},
    {"OnChangedFiles", sample,
     [](TreeBuilder &t) {
       t.write("b", 5000, "changed");
       t.immutable("b");
       t.append("s/f", "more");
       t.appendOnly("s/f");
       t.appendOnly("d/f");
       t.append("d/f", "more");
       t.truncate("p/f", 10);
       t.chown("p/f", 7, 7);
       t.immutable("p/f");
     },
     testsupport::kInodeFlags},
    {"AboveChanges", sample,
     [](TreeBuilder &t) {
       t.write("d/f", 0, "changed");
       t.remove("d/c");
       t.file("d/sub/new");
       t.chmod("d/sub/f", 0600);
       t.immutable("d/sub");
       t.immutable("d");
     },
     testsupport::kInodeFlags},
};

TEST_P(RestoreTable, Trees) {
  runCase(GetParam());
}
INSTANTIATE_TEST_SUITE_P(Names, RestoreTable, casesOf(kNames), caseName);
INSTANTIATE_TEST_SUITE_P(Kinds, RestoreTable, casesOf(kKinds), caseName);
INSTANTIATE_TEST_SUITE_P(HardLinks, RestoreTable, casesOf(kHardLinks), caseName);
INSTANTIATE_TEST_SUITE_P(Flags, RestoreTable, casesOf(kFlags), caseName);

using ManyLinks = RestoreFixture;
TEST_F(ManyLinks, ManyInodesOfTwoNamesAndOneOfManyNames) {
  tree().dir("d");
  tree().file("d/one", "shared");
  for (int i = 0; i < 2000; ++i) tree().link("d/one", "d/" + std::to_string(i));
  for (int i = 0; i < 300; ++i) {
    tree().file(std::to_string(i), "x");
    tree().link(std::to_string(i), std::to_string(i) + "b");
  }
  takeSnapshot();
  for (int i = 0; i < 2000; i += 2) tree().remove("d/" + std::to_string(i));
  tree().write("d/1", 0, "SHARED");
  for (int i = 0; i < 300; ++i) tree().remove(std::to_string(i) + "b");
  expectRestored();
}

}  // namespace
