// Objects replaced by others of another kind, or made again under the same name.
#include <sys/stat.h>

#include "scenario/restore_fixture.h"

using namespace scenario;

namespace {

void populatedDir(TreeBuilder &t, const std::string &path) {
  t.dirs(path + "/inner");
  t.file(path + "/one", "1");
  t.file(path + "/inner/two", "2");
  t.symlink("one", path + "/link");
}

const HistoryCase kCases[] = {
    {"FileToDirectory", [](TreeBuilder &t) { t.file("x", "text"); },
     [](TreeBuilder &t) {
       t.remove("x");
       populatedDir(t, "x");
     }},
    {"DirectoryToFile", [](TreeBuilder &t) { populatedDir(t, "x"); },
     [](TreeBuilder &t) {
       t.removeTree("x");
       t.file("x", "now a file");
     }},
    {"FileToSymlink", [](TreeBuilder &t) { t.file("x", "text"); },
     [](TreeBuilder &t) {
       t.remove("x");
       t.symlink("/etc/passwd", "x");
     }},
    {"SymlinkToDirectory", [](TreeBuilder &t) { t.symlink("/tmp", "x"); },
     [](TreeBuilder &t) {
       t.remove("x");
       populatedDir(t, "x");
     }},
    // A changed file of the snapshot waits below the directory: its path in the snapshot leads through
    // a link.
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
    {"DirectoryToSymlinkThatLeadsOut", [](TreeBuilder &t) { populatedDir(t, "x"); },
     [](TreeBuilder &t) {
       t.removeTree("x");
       t.symlink("/mnt/outside", "x");
     }},
    {"FifoToFileToFifo",
     [](TreeBuilder &t) {
       t.fifo("was fifo");
       t.file("was file", "text");
       t.socket("was socket");
     },
     [](TreeBuilder &t) {
       for (const char *name : {"was fifo", "was file", "was socket"}) t.remove(name);
       t.file("was fifo", "data");
       t.fifo("was file");
       t.dir("was socket");
     }},
    {"DevicesWithOtherNumbers",
     [](TreeBuilder &t) {
       t.device("c", S_IFCHR, 1, 3);
       t.device("b", S_IFBLK, 7, 300);
       t.device("big minor", S_IFCHR, 4, 70000);
       t.device("kept", S_IFCHR, 260, 1);
     },
     [](TreeBuilder &t) {
       for (const char *name : {"c", "b", "big minor"}) t.remove(name);
       t.device("c", S_IFCHR, 1, 5);
       t.device("b", S_IFCHR, 7, 300);
       t.device("big minor", S_IFCHR, 4, 5);
     }},
    {"SameNamesNewInodes",
     [](TreeBuilder &t) {
       populatedDir(t, "x");
       t.file("x/inner/changed", "old");
     },
     [](TreeBuilder &t) {
       t.removeTree("x");
       populatedDir(t, "x");
       t.file("x/inner/changed", "new");
       t.file("x/inner/extra", "more");
     }},
    {"SymlinkTargets",
     [](TreeBuilder &t) {
       t.symlink(std::string(1000, 't'), "long");
       t.symlink(std::string(4000, 'u'), "very long");
       t.symlink("nowhere", "dangling");
       t.symlink("/", "root");
       t.symlink("../../outside", "out");
       t.symlink("deleted too", "deleted");
     },
     [](TreeBuilder &t) {
       for (const char *name : {"long", "very long", "dangling", "root", "out", "deleted"})
         t.remove(name);
       for (const char *name : {"long", "very long", "dangling", "root", "out"})
         t.symlink("short", name);
     }},
    {"ReplacedInsideOfReplaced", [](TreeBuilder &t) { populatedDir(t, "a/b"); },
     [](TreeBuilder &t) {
       t.removeTree("a");
       t.file("a", "file");
       t.dir("c");
       t.rename("a", "c/a");
       t.dir("a");
       t.file("a/b", "file where a directory was");
     }},
};

TEST_P(RestoreTable, Kinds) {
  runCase(GetParam());
}
INSTANTIATE_TEST_SUITE_P(Replacement, RestoreTable, ::testing::ValuesIn(kCases), caseName);

}  // namespace
