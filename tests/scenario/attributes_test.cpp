// Only attributes differ: the data stays and must not be touched.
#include <linux/fs.h>
#include <sys/stat.h>

#include "scenario/restore_fixture.h"

using namespace scenario;
using testsupport::aclForUser;
using testsupport::kDefaultAcl;

namespace {

const char *const kAll[] = {"file", "dir", "link", "fifo", "socket", "device"};

// Makes one object of each kind in a folder.
void oneOfEach(TreeBuilder &t, const std::string &folder) {
  t.dir(folder);
  t.file(folder + "/file", "data");
  t.dir(folder + "/dir");
  t.symlink("file", folder + "/link");
  t.fifo(folder + "/fifo");
  t.socket(folder + "/socket");
  t.device(folder + "/device", S_IFCHR, 1, 3);
  for (const char *name : kAll) t.mtime(folder + "/" + name, 1500000000, 123456789);
}

const std::string kCapability("\1\0\0\2\0\4\0\0\0\0\0\0\0\0\0\0\0\0\0\0", 20);

// Makes a file and a directory for each flag that users can set, with or without it. Their names begin
// with `kind`.
void withEachFlag(TreeBuilder &t, const std::string &kind, bool make, bool on) {
  for (const int flag : {FS_NOATIME_FL, FS_NODUMP_FL, FS_SYNC_FL, FS_DIRSYNC_FL, FS_COMPR_FL,
                         FS_NOCOMP_FL, FS_NOCOW_FL, FS_IMMUTABLE_FL, FS_APPEND_FL}) {
    const std::string name = kind + std::to_string(flag);
    if (make) t.file(name, "data");
    if (make) t.dir(name + ".dir");
    if (flag != FS_DIRSYNC_FL) t.flag(name, flag, on);
    t.flag(name + ".dir", flag, on);
  }
}

const HistoryCase kCases[] = {
    {"EveryFlagOfChattr",
     [](TreeBuilder &t) {
       withEachFlag(t, "cleared", true, true);
       withEachFlag(t, "set", true, false);
       withEachFlag(t, "deleted", true, true);
       t.dir("property");
       t.setXattr("property", "btrfs.compression", "lzo");
       t.flag("property", FS_IMMUTABLE_FL);
       t.dir("algorithm");
       t.setXattr("algorithm", "btrfs.compression", "lzo");
       t.dir("both");
       t.file("late");
       t.flag("late", FS_NOCOW_FL | FS_NOCOMP_FL);
       t.append("late", "data");
     },
     [](TreeBuilder &t) {
       withEachFlag(t, "cleared", false, false);
       withEachFlag(t, "set", false, true);
       withEachFlag(t, "deleted", false, false);
       for (const std::string &name : t.names(""))
         if (name.starts_with("deleted")) t.remove(name);
       t.flag("property", FS_IMMUTABLE_FL, false);
       t.flag("property", FS_DIRSYNC_FL);   // this resets the algorithm to the kernel's default
       t.flag("algorithm", FS_DIRSYNC_FL);  // here, too
       t.flag("both", FS_NOCOW_FL | FS_NOCOMP_FL | FS_IMMUTABLE_FL);
       t.flag("late", FS_NOCOW_FL | FS_NOCOMP_FL, false);
     },
     testsupport::kInodeFlags},
    {"EachAloneOnEveryKind",
     [](TreeBuilder &t) {
       for (const char *folder : {"mode", "owner", "group", "time", "changed", "removed", "added"})
         oneOfEach(t, folder);
       for (std::string name : kAll) {
         t.setXattr("changed/" + name, "trusted.changed", "before");
         t.setXattr("removed/" + name, "trusted.removed", "before");
       }
     },
     [](TreeBuilder &t) {
       for (std::string name : kAll) {
         if (name != "link") t.chmod("mode/" + name, 01760);
         t.chown("owner/" + name, 1234, 0);
         t.chown("group/" + name, 0, 4321);
         t.mtime("time/" + name, 1600000000, 987654321);
         t.setXattr("changed/" + name, "trusted.changed", "after");
         t.removeXattr("removed/" + name, "trusted.removed");
         t.setXattr("added/" + name, "trusted.added", "after");
       }
     }},
    {"TimesFarAway",
     [](TreeBuilder &t) {
       for (int64_t seconds : {-1000000000ll, 0ll, (1ll << 31) + 1, 1ll << 33}) {
         t.file(std::to_string(seconds), "x");
         t.mtime(std::to_string(seconds), seconds, 999999999);
       }
     },
     [](TreeBuilder &t) {
       for (const std::string &name : t.names("")) t.mtime(name, 1, 1);
     }},
    {"DefaultAccessListIsNotInheritedByTheRestored",
     [](TreeBuilder &t) {
       t.dir("d");
       t.file("d/deleted", "x", 0600);
       t.dir("d/deleted dir", 0700);
       t.setXattr("d", kDefaultAcl, aclForUser(1000, 7));
     },
     [](TreeBuilder &t) {
       t.remove("d/deleted");
       t.remove("d/deleted dir");
     }},
    {"LargeAndEmptyValues",
     [](TreeBuilder &t) {
       for (const char *name : {"many", "large", "empty"}) t.file(name, "x");
       for (int i = 0; i < 12; ++i)
         t.setXattr("many", "user.v" + std::to_string(i), std::string(3000, 'v'));
       t.setXattr("large", "user.large", std::string(12000, 'l'));
       t.setXattr("empty", "user." + std::string(200, 'n'), "");
     },
     [](TreeBuilder &t) {
       for (int i = 0; i < 12; i += 2) t.removeXattr("many", "user.v" + std::to_string(i));
       t.setXattr("large", "user.large", "small");
       t.removeXattr("empty", "user." + std::string(200, 'n'));
     }},
    {"CapabilitiesAndSetUserId",
     [](TreeBuilder &t) {
       for (const char *name : {"capable", "capable data", "suid", "suid data", "capable deleted"})
         t.file(name, "program", 0755);
       for (const char *name : {"suid", "suid data"}) t.chmod(name, 06755);
       for (const char *name : {"capable", "capable data", "capable deleted"}) {
         t.chown(name, 1000, 1000);
         t.setXattr(name, "security.capability", kCapability);
       }
       t.chmod("suid", 06711);
     },
     [](TreeBuilder &t) {
       for (const char *name : {"capable", "suid"}) t.chown(name, 2000, 2000);
       for (const char *name : {"capable data", "suid data"}) t.write(name, 0, "other");
       t.remove("capable deleted");
     }},
    {"DirectoriesKeepTheirTimes",
     [](TreeBuilder &t) {
       for (const char *dir : {"deleted from", "created in", "moved out of", "into", "linked in"}) {
         t.dir(dir);
         t.file(std::string(dir) + "/file", "x");
         t.mtime(dir, 1400000000, 5);
       }
       t.mtime("", 1300000000, 6);
     },
     [](TreeBuilder &t) {
       t.remove("deleted from/file");
       t.file("created in/new", "x");
       t.rename("moved out of/file", "into/taken");
       t.link("linked in/file", "linked in/again");
     }},
    {"AttributesOfTheRootItself",
     [](TreeBuilder &t) {
       t.file("f", "x");
       t.chmod("", 0751);
       t.chown("", 5, 6);
       t.setXattr("", "user.root", "before");
       t.setXattr("", kDefaultAcl, aclForUser(1000, 7));
       t.mtime("", 1200000000, 42);
     },
     [](TreeBuilder &t) {
       t.chmod("", 0700);
       t.chown("", 0, 0);
       t.setXattr("", "user.root", "after");
       t.removeXattr("", kDefaultAcl);
       t.mtime("", 1, 1);
     }},
};

TEST_P(RestoreTable, Attributes) {
  runCase(GetParam());
}
INSTANTIATE_TEST_SUITE_P(Attributes, RestoreTable, casesOf(kCases), caseName);

// A mark that the kernel derives from data is no difference and is not restored.
using Incompressible = RestoreFixture;
TEST_F(Incompressible, MarkOfTheKernelIsNoDifference) {
  // The kernel tries to compress if few of the sampled bytes differ, 16 of 256.
  std::string data = testsupport::patternBytes(1, 0, 256 * 1024);
  for (size_t i = 0; i < data.size(); ++i)
    if (i % 256 < 16) data[i] &= 31;
  tree().file("f", data);
  tree().mtime("f", 1500000000);
  takeSnapshot();
  remount("compress=zstd");
  tree().write("f", 0, data);
  tree().mtime("f", 1500000000);
  fs().commit();
  const TreePrint want = testsupport::fingerprint(fs().path(snapshotName()));
  const TreePrint have = testsupport::fingerprint(root());
  remount();
  ASSERT_NE(have.objects.at("f").flags & FS_NOCOMP_FL, 0u);
  EXPECT_EQ(testsupport::joined(compare(want, have)), "");
  RunOptions comparing;
  comparing.program = "/usr/qtx/kest/bin/fsetcompare";
  for (const std::vector<std::string> &how : {std::vector<std::string>{}, {"--full"}})
    EXPECT_EQ(testsupport::runRestore(fs().mountPoint(), fileset(), snapshotName(), how, comparing).out,
              "differences\t0\n");
}

}  // namespace
