// Users interfere with a running restore. One of them replaces his directories and files by symbolic
// links, by each other, by FIFOs and by files of other users. Another one owns the root of the fileset
// and replaces the work directory.
//
// ATTACKS=N in the environment: N attacked restores of each kind instead of a few.
#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <random>

#include "faults/faults_fixture.h"
#include "support/survival.h"

using namespace faults;
using testsupport::fingerprint;
using testsupport::TreeBuilder;
using testsupport::TreePrint;

namespace {

constexpr uid_t kAlice = 1001, kBob = 1002;  // alice is the attacker
constexpr int kDirs = 6;

int rounds(int in_suite) {
  const char *wanted = getenv("ATTACKS");
  return wanted ? atoi(wanted) : in_suite;
}

// Describes a tree outside the fileset completely, including ctimes.
std::string allOf(const std::string &root) {
  const RunResult listed = testsupport::runProgram(
      {"-c", "cd " + root +
                 " && find . -printf '%p %i %M %U:%G %n %s %T@ %C@ %l\\n' | sort && "
                 "find . -type f -print0 | sort -z | xargs -0 cat"},
      {.program = "/bin/sh"});
  EXPECT_EQ(listed.exitStatus, 0) << listed.describe();
  return listed.out;
}

// Returns all objects that alice does not own, by inode number. She can rename and link them where she
// has the right to, but their contents and attributes must not change.
TreePrint othersThan(uid_t uid, const TreePrint &tree) {
  TreePrint found;
  for (const auto &[path, one] : tree.objects) {
    if (one.uid == uid) continue;
    testsupport::ObjectPrint &kept = found.objects["inode " + std::to_string(one.inode)] = one;
    kept.links = 0;
    kept.group.clear();
    if (S_ISDIR(one.mode)) kept.mtime = {};
  }
  return found;
}

// Makes the same names in every directory, also outside, so that an operation that goes astray hits
// something.
void fill(TreeBuilder &t, const std::string &dir) {
  t.dirs(dir + "/s/t");
  t.dirs(dir + "/n/m");
  for (const char *name : {"data", "mode", "gone", "empty", "fresh", "s/file", "s/t/file", "n/file"}) {
    t.file(dir + "/" + name, name);
    t.setXattr(dir + "/" + name, "user.of", dir);
  }
  t.big(dir + "/s/big", 300000, 1);
  t.file(dir + "/linked", "linked");
  t.symlink("data", dir + "/symlink");
}

void own(TreeBuilder &t, const std::string &dir, uid_t uid) {
  testsupport::runCommand("chown -hR " + std::to_string(uid) + ":" + std::to_string(uid) + " '" +
                          t.root() + "/" + dir + "'");
}

std::string aliceDir(int number) {
  return "alice/d" + std::to_string(number);
}

void build(TreeBuilder &t) {
  t.dirs("alice");
  for (int i = 0; i < kDirs; ++i) {
    fill(t, aliceDir(i));
    t.link(aliceDir(i) + "/linked", aliceDir(i) + "/s/linked");
    for (const char *name : {"fresh", "n/file"}) t.remove(aliceDir(i) + "/" + name);
    t.removeTree(aliceDir(i) + "/n");
  }
  fill(t, "pub/alice");
  own(t, "pub", kAlice);
  for (const char *dir : {"bob", "pub/bob"}) {
    fill(t, dir);
    own(t, dir, kBob);
  }
  t.file("bob/writable", "everybody may link it", 0666);  // the kernel allows that for such files
  t.chown("bob/writable", kBob, kBob);
  t.file("alice/secret", "root's in alice's directory", 0600);
  t.chmod("pub", 0777);
  t.chown("pub", 0, 0);
}

void change(TreeBuilder &t, unsigned round) {
  for (int i = 0; i < kDirs; ++i) {
    const std::string dir = aliceDir(i);
    t.pattern(dir + "/s/big", 70000, 150000, round + 2);
    t.append(dir + "/data", "changed");
    t.chmod(dir + "/mode", 0600);
    t.setXattr(dir + "/mode", "user.of", "changed");
    t.remove(dir + "/gone");
    t.remove(dir + "/empty");
    t.remove(dir + "/symlink");
    t.remove(dir + "/linked");
    t.file(dir + "/fresh", "new");
    t.dirs(dir + "/n/m");
    t.file(dir + "/n/file", "new");
    if (i % 2) t.removeTree(dir + "/s");
    if (i % 2 == 0) t.exchange(dir + "/s", aliceDir(i + 1) + "/mode");
  }
  t.remove("pub/alice/gone");
  t.append("pub/alice/data", "changed");
  t.chown("pub/alice/data", kAlice, kAlice);
  for (const char *path : {"fresh", "n/file"}) t.mtime("pub/alice/" + std::string(path), round);
}

struct Shared {
  std::atomic<uint64_t> swaps;
  std::atomic<bool> stop;
};

// Processes that perform one attack as an unprivileged user until this object is destroyed.
class Attackers {
 public:
  using Step = std::function<void(std::minstd_rand &, std::atomic<uint64_t> &)>;
  Attackers(const std::string &root, uid_t uid, unsigned seed, const std::vector<Step> &steps)
      : shared_(static_cast<Shared *>(
            mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0))) {
    for (const Step &step : steps) {
      const pid_t pid = fork();
      if (pid == 0) {
        if (chdir(root.c_str()) != 0 || setgroups(0, nullptr) != 0 || setresgid(uid, uid, uid) != 0 ||
            setresuid(uid, uid, uid) != 0)
          _exit(1);
        umask(0);
        std::minstd_rand random(seed + static_cast<unsigned>(pids_.size()));
        while (!shared_->stop && getppid() == 1) step(random, shared_->swaps);
        _exit(0);
      }
      pids_.push_back(pid);
    }
  }
  ~Attackers() {
    stop();
    munmap(shared_, sizeof(Shared));
  }
  uint64_t stop() {
    shared_->stop = true;
    for (const pid_t pid : pids_) {
      int status = 0;
      EXPECT_EQ(waitpid(pid, &status, 0), pid);
      EXPECT_EQ(status, 0) << "an attacker could not begin";
    }
    pids_.clear();
    return shared_->swaps;
  }

 private:
  Shared *shared_;
  std::vector<pid_t> pids_;
};

bool exchange(const std::string &one, const std::string &other) {
  return renameat2(AT_FDCWD, one.c_str(), AT_FDCWD, other.c_str(), RENAME_EXCHANGE) == 0;
}

// Exchanges `one` and `other` for a moment. Longer pauses let the restore get further.
void swapFor(const std::string &one, const std::string &other, std::minstd_rand &random,
             std::atomic<uint64_t> &swaps) {
  if (!exchange(one, other)) return;
  ++swaps;
  usleep(static_cast<useconds_t>(random() % 300));
  exchange(one, other);
  static const unsigned kPauses[] = {50, 1000, 5000, 20000};
  usleep(static_cast<useconds_t>(random() % kPauses[random() % 4]));
}

class Attacks : public Faults {
 protected:
  void SetUp() override {
    Faults::SetUp();
    TreeBuilder t("/mnt");
    for (const std::string &dir : {std::string("outside"), std::string("scenario/outside")}) {
      fill(t, dir);
      t.link(dir + "/linked", dir + "/s/linked");
      t.chmod(dir, 0711);
    }
  }
  void TearDown() override {
    for (const std::string &dir : outside()) testsupport::runCommand("rm -rf " + dir);
    Faults::TearDown();
  }
  // One directory on another file system, and one on this file system in another subvolume.
  static std::vector<std::string> outside() { return {"/mnt/outside", "/mnt/scenario/outside"}; }
  static std::string outsideNow() { return allOf(outside()[0]) + allOf(outside()[1]); }

  std::vector<std::string> targets() const {
    return {outside()[0], outside()[1], root() + "/bob", "../bob", "/", "..", root() + "/pub/bob"};
  }

  // Restores under attack, then once more without.
  void expectNothingLost(const std::vector<Attackers::Step> &steps, unsigned seed) {
    const std::string outside_before = outsideNow();
    const auto others_before = othersThan(kAlice, fingerprint(fs().path(snapshotName())));
    RunResult attacked;
    {
      Attackers attackers(root(), kAlice, seed, steps);
      attacked = restore("snap", {"-B", "3"});
      swaps_ += attackers.stop();
    }
    SCOPED_TRACE("seed " + std::to_string(seed) + "\n" + attacked.describe(1500));
    statuses_[attacked.exitStatus]++;
    EXPECT_FALSE(attacked.timedOut);
    EXPECT_EQ(attacked.processesLeft, 0);
    EXPECT_TRUE(attacked.exitStatus == 0 || attacked.exitStatus == 1);
    EXPECT_EQ(outside_before, outsideNow());
    const TreePrint others_after = othersThan(kAlice, fingerprint(root()));
    std::vector<std::string> lines = compare(others_before, others_after);
    std::erase_if(lines, [](const std::string &line) { return line.starts_with("left over"); });
    EXPECT_EQ(testsupport::joined(lines), "");
    const RunResult peace = restore();
    EXPECT_EQ(peace.exitStatus, 0) << peace.describe();
    EXPECT_EQ(testsupport::joined(compare(fingerprint(fs().path(snapshotName())), fingerprint(root()))),
              "")
        << peace.describe();
    EXPECT_EQ(outside_before, outsideNow());
  }

  void report(const char *what, int runs) {
    std::string text;
    for (const auto &[status, times] : statuses_)
      text += ", exit " + std::to_string(status) + ": " + std::to_string(times);
    printf("%s: %d restores%s; %llu swaps\n", what, runs, text.c_str(),
           static_cast<unsigned long long>(swaps_));
  }

  uint64_t swaps_ = 0;
  std::map<int, int> statuses_;
};

TEST_F(Attacks, SwappedDirectoriesAndFiles) {
  build(tree());
  const std::vector<std::string> links = targets();
  for (size_t i = 0; i < links.size(); ++i) tree().symlink(links[i], "alice/l" + std::to_string(i));
  tree().fifo("alice/fifo", 0666);
  own(tree(), "alice", kAlice);
  tree().chown("alice/secret", 0, 0);
  takeSnapshot();
  const int runs = rounds(4);
  for (int round = 0; round < runs && !HasFailure(); ++round) {
    change(tree(), static_cast<unsigned>(round));
    const auto directories = [&](std::minstd_rand &random, std::atomic<uint64_t> &swaps) {
      const char *below[] = {"", "", "/s", "/n"};
      const std::string dir = aliceDir(static_cast<int>(random() % kDirs)) + below[random() % 4];
      switch (random() % 4) {
        case 0:
          return swapFor(dir, aliceDir(static_cast<int>(random() % kDirs)), random, swaps);
        case 1:
          return swapFor("pub/alice", "pub/bob", random, swaps);
        default:
          return swapFor(dir, "alice/l" + std::to_string(random() % links.size()), random, swaps);
      }
    };
    const auto files = [&](std::minstd_rand &random, std::atomic<uint64_t> &swaps) {
      const char *names[] = {"/data",  "/mode",   "/gone",    "/empty",
                             "/fresh", "/linked", "/symlink", "/s/big"};
      const std::string file = aliceDir(static_cast<int>(random() % kDirs)) + names[random() % 8];
      switch (random() % 4) {
        case 0:
          if (link("bob/writable", "alice/taken") == 0) swapFor(file, "alice/taken", random, swaps);
          unlink("alice/taken");
          return;
        case 1:
          return swapFor(file, "alice/fifo", random, swaps);
        case 2:
          return swapFor(file, "alice/secret", random, swaps);
        default:
          return swapFor(file, "alice/l" + std::to_string(random() % links.size()), random, swaps);
      }
    };
    expectNothingLost({directories, files}, static_cast<unsigned>(round + 1));
  }
  report("directories and files", runs);
  EXPECT_GT(swaps_, 10u * static_cast<unsigned>(runs));
}

// Prepares directories to replace the work directory: symbolic links to the outside, files of alice's,
// and the left-over of an earlier run that belongs to root alone.
void prepareLookAlikes(TreeBuilder &t) {
  const std::string policy = "RULE EXTERNAL LIST 'all' EXEC '/mnt/evil' OPTS ''\n";
  const std::string list = "1:0:  100:0:0:0:0:0:1!x:0!;3!7,0,0\n";
  for (const char *dir : {"links", "files", "old"}) t.dir(dir, strcmp(dir, "old") == 0 ? 0700 : 0777);
  for (const char *name : {"policy", "opList", "opList.move", "opList.copy", "dir.new", "regMoveList",
                           "link.ino", "ErrorLog", "fatal.error", "snapList"}) {
    t.symlink("/mnt/outside/data", "links/" + std::string(name));
    for (const char *dir : {"files/", "old/"})
      t.file(dir + std::string(name), strcmp(name, "policy") == 0 ? policy : list, 0600);
  }
  t.remove("links/policy");
  t.symlink("/mnt/evil.policy", "links/policy");
  t.symlink("/mnt/outside", "links/checkpoint");
  for (int i = 0; i < 1024; ++i) t.symlink("/mnt/outside", "links/MOVE_" + std::to_string(i));
  own(t, "links", kAlice);
  own(t, "files", kAlice);
  TreeBuilder mnt("/mnt");
  mnt.file("evil.policy", policy);
  mnt.file("evil", "#!/bin/sh\ntouch /mnt/outside/evil.$$\n", 0755);
}

TEST_F(Attacks, ExchangedWorkDirectory) {
  build(tree());
  own(tree(), "alice", kAlice);
  prepareLookAlikes(tree());
  testsupport::runCommand("chown 1001:1001 " + root());
  takeSnapshot();
  const int runs = rounds(4);
  for (int round = 0; round < runs && !HasFailure(); ++round) {
    change(tree(), static_cast<unsigned>(round));
    const auto step = [](std::minstd_rand &random, std::atomic<uint64_t> &swaps) {
      std::string found;
      DIR *dir = opendir(".");
      while (const dirent *entry = readdir(dir))
        if (strncmp(entry->d_name, "RestoreTemp", 11) == 0) found = entry->d_name;
      closedir(dir);
      const char *look_alikes[] = {"links", "files", "old"};
      if (!found.empty()) swapFor(found, look_alikes[random() % 3], random, swaps);
    };
    expectNothingLost({step}, static_cast<unsigned>(round + 1));
  }
  for (const char *name : {"/mnt/evil", "/mnt/evil.policy"}) unlink(name);
  report("work directory", runs);
  EXPECT_GT(swaps_, static_cast<unsigned>(runs));
}

// Files of root in alice's directory are deleted together with files of hers. As soon as one of root's
// is back, she renames it to the name of one of hers that is not back yet. It must not become hers.
TEST_F(Attacks, RenamedOverWhatIsDue) {
  constexpr int kPairs = 60;
  const std::string secret(9000, 's');
  tree().dirs("alice");
  for (int i = 0; i < kPairs; ++i) {
    const std::string number = std::to_string(i);
    tree().file("alice/secret" + number, secret, 0600);
    tree().mtime("alice/secret" + number, 1000000000);
    tree().file("alice/x" + number, "hers");
    tree().chown("alice/x" + number, kAlice, kAlice);
  }
  tree().chown("alice", kAlice, kAlice);
  takeSnapshot();
  const auto rename_all = [](std::minstd_rand &, std::atomic<uint64_t> &swaps) {
    for (int i = 0; i < kPairs; ++i) {
      const std::string from = "alice/secret" + std::to_string(i), to = "alice/x" + std::to_string(i);
      struct stat st;
      if (lstat(from.c_str(), &st) == 0 && st.st_mtime == 1000000000 &&
          rename(from.c_str(), to.c_str()) == 0)
        ++swaps;
    }
  };
  for (const std::vector<std::string> &options : {std::vector<std::string>{}, {"-x"}}) {
    for (int round = 0; round < rounds(2) && !HasFailure(); ++round) {
      for (int i = 0; i < kPairs; ++i)
        for (const char *name : {"alice/secret", "alice/x"})
          unlink((root() + "/" + name + std::to_string(i)).c_str());
      Attackers attackers(root(), kAlice, 1, {rename_all});
      statuses_[restore("snap", options).exitStatus]++;
      swaps_ += attackers.stop();
      for (const auto &[path, one] : fingerprint(root()).objects) {
        const bool hers = one.uid == kAlice && S_ISREG(one.mode);
        EXPECT_FALSE(hers && one.size > 4) << path << " has root's data";
      }
      EXPECT_EQ(restore("snap", options).exitStatus, 0);
    }
  }
  report("renamed over what is due", 2 * rounds(2));
}

}  // namespace
