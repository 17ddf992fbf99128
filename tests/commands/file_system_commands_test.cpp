// The small commands on a real file system: one fileset in two mounts, the top level not mounted.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>

namespace fs = std::filesystem;

namespace {

struct Result {
  int status = -1;
  std::string out;  // both streams
};

Result run(const std::string &line) {
  Result result;
  FILE *pipe = popen(("{ " + line + "; } 2>&1").c_str(), "r");
  char part[4096];
  while (size_t got = fread(part, 1, sizeof(part), pipe)) result.out.append(part, got);
  int status = pclose(pipe);
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return result;
}

Result command(const std::string &line) {
  return run("/usr/qtx/kest/bin/" + line);
}

void expectFails(const std::string &line, const std::string &says) {
  Result result = command(line);
  EXPECT_EQ(result.status, 1) << line;
  EXPECT_NE(result.out.find(says), std::string::npos) << line << "\n" << result.out;
}

std::string inodeOf(const fs::path &path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0 ? std::to_string(st.st_ino) : "";
}

// The fileset "my home" is mounted on /mnt/home and /mnt/home2; the top level on /mnt/top until
// hideTop().
class Commands : public ::testing::Test {
 protected:
  void SetUp() override {
    good("cd /mnt && truncate -s 300M img && mkfs.btrfs -q img && mkdir -p top home home2");
    good("cd /mnt && mount -o loop img top && btrfs sub create 'top/my home' && mkdir top/snaps");
    for (const std::string mount : {"home", "home2"})
      good("mount -o 'subvol=my home' " + device_ + " /mnt/" + mount);
  }
  void TearDown() override { good("cd /mnt && umount home home2 && { umount -q top; rm img; }"); }
  static void good(const std::string &line) {
    Result result = run(line);
    ASSERT_EQ(result.status, 0) << result.out;
  }
  static void hideTop() { good("umount /mnt/top"); }
  static void subvolume(const std::string &arguments) { good("cd /mnt/top && btrfs sub " + arguments); }

  const std::string device_ = "$(losetup -nO NAME -j /mnt/img)";
};

TEST_F(Commands, CommitMakesTheTreesShowEverything) {
  for (const std::string &named : {std::string("/mnt/home"), device_}) {
    for (const std::string word : {"suspend", "resume"}) {
      std::ofstream("/mnt/home/" + word) << named;
      EXPECT_EQ(command("ktfsctl " + named + " " + word).status, 0);
      EXPECT_NE(run("btrfs inspect-internal dump-tree -t 256 " + device_).out.find("name: " + word),
                std::string::npos);
      fs::remove("/mnt/home/" + word);
      good("sync");
    }
  }
  expectFails("ktfsctl /proc suspend", "ktfsctl: /proc is no mounted file system of a known kind\n");
  expectFails("ktfsctl /mnt/home freeze", "ktfsctl: ");
}

TEST_F(Commands, FilesetListing) {
  subvolume("create 'a:b%c'");
  hideTop();
  const std::pair<const char *, const char *> names[] = {{"'my home'", "my home:-\n"},
                                                         {"'/my home/'", "my home:-\n"},
                                                         {"a:b%c", "a%3Ab%25c:-\n"},
                                                         {"/", "/:-\n"}};
  for (const auto &[name, listed] : names) {
    const std::string line = std::string("ktlsfileset /mnt/home ") + name;
    EXPECT_EQ(command(line + " -Y | sed 1d | cut -d: -f5,19").out, listed);
  }
  expectFails("ktlsfileset /mnt/home home -Y", "ktlsfileset: ");
}

// Parsed as scripts do: the words of the lines after the one with "Directory".
TEST_F(Commands, SnapshotListing) {
  subvolume("snapshot -r 'my home' 'snaps/a b\n\\c'");
  subvolume("snapshot 'my home' snaps/writable");
  subvolume("create unrelated");
  good("mkdir /mnt/top/snaps/1 /mnt/top/snaps/2");
  for (std::string path : {"snaps/1/snapshot", "snaps/2/snapshot", "snapshot"})
    subvolume("snapshot -r 'my home' " + path);
  hideTop();
  EXPECT_EQ(command("ktlssnapshot /mnt/home -j 'my home' | sed '1,/Directory/d' | "
                    "awk '{ print $2, $1, $3, $9 }' | sort")
                .out,
            "257 a\\040b\\012\\134c Valid my\\040home\n258 writable Writable my\\040home\n"
            "260 snaps/1/snapshot Valid my\\040home\n261 snaps/2/snapshot Valid my\\040home\n"
            "262 /snapshot Valid my\\040home\n");
  expectFails("ktlssnapshot /mnt/home -j nothing", "ktlssnapshot: ");
}

TEST_F(Commands, EveryPathOfAnInode) {
  fs::path home = "/mnt/home";
  fs::create_directories(home / "a/b");
  std::ofstream(home / "a/file") << "x";
  std::set<std::string> paths = {"/a/file", "/a/b/x y", "/a/b/n\\nt\\tb\\\\"};
  fs::create_hard_link(home / "a/file", home / "a/b/x y");
  fs::create_hard_link(home / "a/file", home / "a/b/n\nt\tb\\");
  // More links than one item can hold, so that overflow items are read, too.
  for (int i = 0; i < 2000; i++) {
    std::string name = "link with a longer name " + std::to_string(i);
    fs::create_hard_link(home / "a/file", home / "a" / name);
    paths.insert("/a/" + name);
  }
  std::string ino = inodeOf(home / "a/file");
  subvolume("snapshot -r 'my home' snaps/s");
  fs::remove(home / "a/b/x y");  // must not be found, whether committed or not

  auto lookUp = [&](const std::string &root) {
    std::istringstream in(command("kxfindinode -i " + ino + " -- " + root).out);
    std::set<std::string> found;
    unsigned long long number = 0, generation = 0;
    for (std::string path; in >> number >> generation && std::getline(in, path);) {
      EXPECT_EQ(std::to_string(number), ino);
      EXPECT_TRUE(path.starts_with(" " + root)) << path;
      EXPECT_TRUE(found.insert(path.substr(1 + root.size())).second) << path;
    }
    return found;
  };
  EXPECT_EQ(lookUp("/mnt/top/snaps/s"), paths);
  paths.erase("/a/b/x y");
  EXPECT_EQ(lookUp("/mnt/home2"), paths);
  EXPECT_EQ(lookUp("/mnt/home/a/b"), (std::set<std::string>{"/n\\nt\\tb\\\\"}));

  std::string dir = inodeOf(home / "a/b");
  EXPECT_TRUE(command("kxfindinode -i " + dir + " -- /mnt/home/").out.ends_with(" /mnt/home/a/b\n"));
  for (std::string missing : {"999999", "0", "18446744073709551615"})
    expectFails("kxfindinode -i " + missing + " -- /mnt/home", "kxfindinode: ");
}

TEST_F(Commands, UnlinkedFilesetsAreKept) {
  for (std::string name : {"plain", "read only"}) {
    subvolume("create 'my home/" + name + "'");
    std::ofstream("/mnt/home/" + name + "/keep") << "data of " + name;
  }
  fs::create_directory("/mnt/home/directory");
  fs::create_symlink(".", "/mnt/home/link");
  good(
      "btrfs property set '/mnt/home/read only' ro true && "
      "mkdir -p /mnt/top/.unlinked/256-plain /mnt/top/.unlinked/257-plain");
  hideTop();
  const std::string unlinkAt = "ktunlinkfileset /mnt/home -J ";
  for (std::string wrong : {"/mnt/home/directory", "/mnt/home", "/mnt/home/", "/mnt/home/none", "/mnt",
                            "/mnt/home/plain/..", "/", "/mnt/home/link/plain"})
    expectFails(unlinkAt + wrong, wrong);
  expectFails("ktunlinkfileset /mnt -J /mnt/home/plain", "ktunlinkfileset: ");
  ASSERT_TRUE(fs::exists("/mnt/home/plain/keep"));

  EXPECT_EQ(command(unlinkAt + "/mnt/home/plain/").out, ".unlinked/257-plain.1\n");
  EXPECT_EQ(command(unlinkAt + "'/mnt/home2/read only'").out, ".unlinked/258-read only\n");
  EXPECT_FALSE(fs::exists("/mnt/home/plain"));
  good("mount " + device_ + " /mnt/top");
  EXPECT_EQ(run("cd /mnt/top/.unlinked && cat 257-plain.1/keep '258-read only/keep'").out,
            "data of plaindata of read only");
  EXPECT_EQ(run("btrfs property get '/mnt/top/.unlinked/258-read only' ro").out, "ro=true\n");
}

TEST_F(Commands, ClonesByHand) {
  std::ofstream("/mnt/home/parent") << std::string(100000, 'p');
  EXPECT_EQ(command("ktclone snap /mnt/home/parent").out, "");
  subvolume("snapshot -r 'my home' snaps/s");
  EXPECT_EQ(command("ktclone copy /mnt/home/parent /mnt/home/clone").out, "");
  EXPECT_EQ(command("ktclone copy /mnt/top/snaps/s/parent '/mnt/home2/from snapshot'").out, "");
  for (const std::string name : {"clone", "'from snapshot'"}) {
    EXPECT_EQ(run("cmp /mnt/home/parent /mnt/home/" + name).out, "");
    const std::string usage = "cd /mnt/home && sync && btrfs filesystem du --raw -s " + name;
    EXPECT_EQ(run(usage + " | awk 'NR == 2 { print ($1 >= 100000), $2 }'").out, "1 0\n");
  }
  expectFails("ktclone snap /mnt/home/parent",
              "ktclone: /mnt/home/parent: is a clone parent already, or cannot be changed\n");
  expectFails("ktclone copy /mnt/home/clone /mnt/home/x",
              "ktclone: /mnt/home/x: /mnt/home/clone is no clone parent, or cannot share its blocks\n");
  expectFails("ktclone copy /mnt/home/parent /mnt/home/clone",
              "ktclone: /mnt/home/clone: File exists\n");
  expectFails("ktclone snap /mnt/home", "ktclone: /mnt/home: no regular file\n");
  for (std::string wrong : {"snap a b", "copy a", "cut a b"})
    expectFails("ktclone " + wrong, "Usage: ktclone");
  EXPECT_FALSE(fs::exists("/mnt/home/x"));
}

TEST(CommandLines, HelpAndMistakes) {
  for (std::string name : {"ktapplypolicy", "fsetcompare", "fset"}) {
    EXPECT_NE(command(name + " --help 2>/dev/null").out.find("sage: " + name), std::string::npos);
    EXPECT_EQ(command(name + " --version 2>/dev/null").out.rfind(name + " 0.", 0), 0u);
  }
  for (std::string name :
       {"ktfsctl", "ktlsfileset", "ktlssnapshot", "ktunlinkfileset", "kxfindinode", "ktclone"}) {
    Result help = command(name + " --help 2>/dev/null");
    EXPECT_EQ(help.status, 0);
    EXPECT_EQ(help.out.substr(0, 7 + name.size()), "Usage: " + name);
    EXPECT_EQ(command(name + " --version").out.rfind(name + " 0.", 0), 0u);
    for (std::string wrong : {" -Z", " --zero", "", " a b c d"})
      expectFails(name + wrong, "Usage: " + name);
  }
}

}  // namespace
