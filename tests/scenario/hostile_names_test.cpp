// Names and paths that break careless quoting, printing and measuring.
#include <filesystem>
#include <sstream>

#include "scenario/restore_fixture.h"

using namespace scenario;

namespace {

// Separated by '/', which no name can contain.
constexpr char kNames[] =
    " /two  blanks /new\nline/\n/tab\there/back\\slash/\\n/quo\"te/apo'strophe/$(touch owned-by-name)/"
    "`touch owned-by-name`/; touch owned-by-name/ba!ng/co:lon/%s%n%d/-rf/--/*/?[a]/#/&/|/<>/~/"
    "\xff\xfe not UTF-8/\x01\x1b[0m/..x/.../RestoreTemp/RestoreTemp1/_17/17_/MOVE_3/DelDir_5/NewDir_5/"
    "ErrorLog/checkpoint/opList/fatal.error/LIST/TEST/user.quota/group.quota/fileset.quota";

std::vector<std::string> hostileNames() {
  std::vector<std::string> names{std::string(255, 'n'), std::string(255, '\xe4')};
  std::istringstream all(kNames);
  for (std::string name; std::getline(all, name, '/');) names.push_back(name);
  return names;
}

class HostileNames : public RestoreFixture {
 protected:
  void TearDown() override {
    for (const char *folder : {"/", "/mnt/"})
      EXPECT_FALSE(std::filesystem::remove(std::string(folder) + "owned-by-name"))
          << "a name was run as a command";
    RestoreFixture::TearDown();
  }
  // Makes a file, a directory with a file, and a symbolic link for each name.
  void buildAll() {
    for (const char *dir : {"files", "dirs", "links"}) tree().dir(dir);
    for (const std::string &name : hostileNames()) {
      tree().file("files/" + name, "of " + name);
      tree().dir("dirs/" + name);
      tree().file("dirs/" + name + "/" + name, "x");
      tree().symlink(name, "links/" + name);
      tree().dirs("gone/" + name);
      tree().file("gone/" + name + "/" + name, "x");
    }
  }
};

TEST_F(HostileNames, ChangedDeletedAndCreated) {
  buildAll();
  takeSnapshot();
  int number = 0;
  tree().removeTree("gone");
  for (const std::string &name : hostileNames()) {
    if (++number % 2) {
      tree().write("files/" + name, 0, "changed");
      tree().chmod("dirs/" + name, 0700);
      tree().chown("links/" + name, 3, 3);
    } else {
      tree().remove("files/" + name);
      tree().removeTree("dirs/" + name);
      tree().remove("links/" + name);
    }
    tree().dirs("new/" + name);
    tree().file("new/" + name + "/" + name, "new");
  }
  expectRestored();
}

TEST_F(HostileNames, InTheRootItself) {
  for (const std::string &name : hostileNames()) tree().file(name, "x");
  takeSnapshot();
  for (const std::string &name : hostileNames()) {
    tree().remove(name);
    tree().dir(name);
  }
  expectRestored();
}

TEST_F(HostileNames, Renamed) {
  buildAll();
  takeSnapshot();
  const auto names = hostileNames();
  for (size_t i = 0; i + 1 < names.size(); i += 2) {
    tree().exchange("files/" + names[i], "files/" + names[i + 1]);
    tree().exchange("dirs/" + names[i], "dirs/" + names[i + 1]);
    tree().rename("links/" + names[i], "dirs/" + names[i] + "/moved");
  }
  expectRestored();
}

class LongPaths : public RestoreFixture {
 protected:
  static constexpr size_t kLongest = 4093;  // the longest path that the command can build
  // Makes a chain of directories whose path in the mounted fileset, with a name of ten bytes below it,
  // is `bytes` long.
  std::string chain(size_t bytes, const std::string &step) {
    std::string path;
    size_t budget = bytes - root().size() - 1 - 11;
    while (path.size() + step.size() + 1 <= budget) path += (path.empty() ? "" : "/") + step;
    size_t left = budget - path.size();
    if (left > 1) path += "/" + std::string(left - 1, 'p');
    tree().dirs(path);
    return path;
  }
};

// The paths through the snapshot, with its longer name, and through the work directory are longer than
// 4096 bytes.
TEST_F(LongPaths, JustBelowTheLimit) {
  std::string deep = chain(kLongest, std::string(200, 'd'));
  tree().file(deep + "/changed---", "before");
  tree().file(deep + "/deleted---", "before");
  ASSERT_EQ((root() + "/" + deep + "/changed---").size(), kLongest);
  const char kLonger[] = "a-snapshot-whose-name-is-a-good-deal-longer-than-that-of-the-fileset";
  takeSnapshot(kLonger);
  tree().write(deep + "/changed---", 0, "after");
  tree().remove(deep + "/deleted---");
  tree().file(deep + "/created---", "new");
  expectRestored(kLonger);
}

TEST_F(LongPaths, DeletedTreeOfAThousandLevels) {
  std::string deep = chain(2100, "d");
  tree().file(deep + "/file", "x");
  takeSnapshot();
  tree().removeTree("d");
  expectRestored();
}

TEST_F(LongPaths, BeyondTheLimitIsToldAndNothingIsLost) {
  std::string deep = chain(4096 + 300, std::string(200, 'd'));
  tree().file(deep + "/too long", "before");
  tree().file("short", "before");
  takeSnapshot();
  tree().write(deep + "/too long", 0, "after!");
  tree().write("short", 0, "after!");
  RunResult result = restore();
  EXPECT_EQ(result.exitStatus, 1) << result.describe();
  EXPECT_NE(result.err.find("Cannot restore a file whoes path is larger than 4096.\n"),
            std::string::npos)
      << result.describe();
  EXPECT_NE(result.err.find(" bytes: " + root() + "/ddd"), std::string::npos) << result.err;
  EXPECT_LT(result.err.find("ddd..."), result.err.size()) << "not shortened\n" << result.err;
  std::string now = tree().read(deep + "/too long");
  EXPECT_TRUE(now == "before" || now == "after!") << now;
}

}  // namespace
