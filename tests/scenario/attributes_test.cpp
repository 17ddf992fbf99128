// Attributes alone: the data stay as they are and must not be touched.
#include <sys/stat.h>

#include "scenario/restore_fixture.h"

using namespace scenario;
using testsupport::aclForUser;
using testsupport::kAccessAcl;
using testsupport::kDefaultAcl;

namespace {

const char *const kAll[] = {"file", "dir", "link", "fifo", "socket", "device"};

void oneOfEach(TreeBuilder &t) {
  t.file("file", "data");
  t.dir("dir");
  t.symlink("file", "link");
  t.fifo("fifo");
  t.socket("socket");
  t.device("device", S_IFCHR, 1, 3);
  for (const char *name : kAll) {
    t.setXattr(name, "trusted.kept", "kept");
    t.setXattr(name, "trusted.changed", "before");
    t.setXattr(name, "trusted.removed", "before");
    t.mtime(name, 1500000000, 123456789);
  }
}

const std::string kCapability("\1\0\0\2\0\4\0\0\0\0\0\0\0\0\0\0\0\0\0\0", 20);

const HistoryCase kCases[] = {
    {"Mode", oneOfEach,
     [](TreeBuilder &t) {
       for (const char *name : {"file", "dir", "fifo", "socket", "device"}) t.chmod(name, 01760);
     }},
    {"OwnerAndGroup", oneOfEach,
     [](TreeBuilder &t) {
       for (const char *name : kAll) t.chown(name, 1234, 4321);
     }},
    {"ModificationTime", oneOfEach,
     [](TreeBuilder &t) {
       for (const char *name : kAll) t.mtime(name, 1600000000, 987654321);
     }},
    {"TimesFarAway",
     [](TreeBuilder &t) {
       for (const char *name : {"before 1970", "beyond 2038", "beyond 2106", "zero"}) t.file(name, "x");
       t.mtime("before 1970", -1000000000, 999999999);
       t.mtime("beyond 2038", (1ll << 31) + 1, 1);
       t.mtime("beyond 2106", (1ll << 33), 500000000);
       t.mtime("zero", 0, 0);
     },
     [](TreeBuilder &t) {
       for (const char *name : {"before 1970", "beyond 2038", "beyond 2106", "zero"})
         t.mtime(name, 1, 1);
     }},
    {"ExtendedAttributes", oneOfEach,
     [](TreeBuilder &t) {
       for (const char *name : kAll) {
         t.setXattr(name, "trusted.changed", "after");
         t.removeXattr(name, "trusted.removed");
         t.setXattr(name, "trusted.added", "after");
       }
     }},
    {"AllExtendedAttributesGone", oneOfEach,
     [](TreeBuilder &t) {
       for (const char *name : kAll)
         for (const char *key : {"trusted.kept", "trusted.changed", "trusted.removed"})
           t.removeXattr(name, key);
     }},
    {"FirstExtendedAttributeAdded",
     [](TreeBuilder &t) {
       t.file("f", "x");
       t.dir("d");
     },
     [](TreeBuilder &t) {
       t.setXattr("f", "user.new", "x");
       t.setXattr("d", "user.new", "x");
       t.setXattr("f", "security.new", "x");
     }},
    {"AccessLists",
     [](TreeBuilder &t) {
       for (const char *name : {"changed", "removed", "added"}) t.file(name, "x");
       t.dir("d changed");
       t.dir("d removed");
       t.dir("d added");
       for (const char *name : {"changed", "removed", "d changed", "d removed"})
         t.setXattr(name, kAccessAcl, aclForUser(1000, 6));
       for (const char *name : {"d changed", "d removed"})
         t.setXattr(name, kDefaultAcl, aclForUser(1000, 7));
     },
     [](TreeBuilder &t) {
       for (const char *name : {"changed", "d changed"})
         t.setXattr(name, kAccessAcl, aclForUser(1001, 4));
       for (const char *name : {"added", "d added"}) t.setXattr(name, kAccessAcl, aclForUser(1002, 1));
       for (const char *name : {"removed", "d removed"}) t.removeXattr(name, kAccessAcl);
       t.setXattr("d changed", kDefaultAcl, aclForUser(1001, 4));
       t.setXattr("d added", kDefaultAcl, aclForUser(1001, 4));
       t.removeXattr("d removed", kDefaultAcl);
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
       t.file("many", "x");
       for (int i = 0; i < 12; ++i)
         t.setXattr("many", "user.v" + std::to_string(i), std::string(3000, 'v'));
       t.file("large", "x");
       t.setXattr("large", "user.large", std::string(12000, 'l'));
       t.file("empty", "x");
       t.setXattr("empty", "user.empty", "");
       t.setXattr("empty", std::string("user.") + std::string(200, 'n'), "long name");
     },
     [](TreeBuilder &t) {
       for (int i = 0; i < 12; i += 2) t.removeXattr("many", "user.v" + std::to_string(i));
       t.setXattr("large", "user.large", "small");
       t.removeXattr("empty", "user.empty");
       t.removeXattr("empty", std::string("user.") + std::string(200, 'n'));
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
       for (const char *dir :
            {"deleted from", "created in", "moved out of", "moved into", "linked in"}) {
         t.dir(dir);
         t.file(std::string(dir) + "/file", "x");
         t.file(std::string(dir) + "/second", "y");
         t.mtime(dir, 1400000000, 5);
       }
       t.mtime("", 1300000000, 6);
     },
     [](TreeBuilder &t) {
       t.remove("deleted from/file");
       t.file("created in/new", "x");
       t.rename("moved out of/file", "moved into/taken");
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
INSTANTIATE_TEST_SUITE_P(Attributes, RestoreTable, ::testing::ValuesIn(kCases), caseName);

}  // namespace
