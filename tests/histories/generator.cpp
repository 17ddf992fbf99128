#include "histories/generator.h"

#include <linux/fs.h>
#include <sys/stat.h>
#include <sys/xattr.h>

#include <algorithm>
#include <functional>

namespace histories {

using testsupport::TreeBuilder;

// Relative frequency of each kind of change.
struct Generator::Weights {
  unsigned create, remove, removeTree, replaceKind, rename, exchange, parentChild, ring, link, takeIn,
      data, attribute, time, flag, replaceFile, clone;
  const char
      *kinds;  // of new objects: d directory, f file, l symbolic link, p FIFO, s socket, c device
};

const std::vector<std::pair<std::string, Generator::Weights>> &Generator::table() {
  static const std::vector<std::pair<std::string, Weights>> kTable = {
      //        cre rem tree rpl ren exc p-c rin lnk tak dat att tim flg rpf cln
      {"data", {4, 3, 0, 0, 0, 0, 0, 0, 0, 0, 70, 3, 5, 0, 15, 0, "dfffffff"}},
      {"attrs", {3, 2, 0, 0, 0, 0, 0, 0, 0, 0, 4, 70, 10, 12, 2, 0, "ddffffllps"}},
      {"trees", {30, 12, 18, 16, 0, 0, 0, 0, 0, 0, 10, 8, 3, 0, 6, 0, "dddfffflpsc"}},
      {"names", {12, 6, 5, 3, 32, 8, 4, 5, 0, 5, 8, 5, 2, 0, 2, 0, "dddfffflp"}},
      {"links", {10, 8, 4, 3, 18, 4, 1, 3, 30, 4, 8, 4, 2, 0, 3, 0, "dddfffflpsc"}},
      {"flags", {10, 6, 4, 3, 12, 3, 2, 2, 4, 3, 12, 8, 3, 26, 2, 0, "dddffffffl"}},
      {"all", {12, 7, 6, 4, 22, 6, 3, 4, 7, 4, 12, 10, 3, 6, 3, 0, "dddfffflpsc"}},
      {"clones", {10, 9, 5, 2, 14, 5, 2, 2, 7, 3, 12, 5, 2, 4, 3, 45, "ddffffffl"}},
  };
  return kTable;
}

std::vector<std::string> Generator::profiles() {
  std::vector<std::string> names;
  for (const auto &[name, weights] : table()) names.push_back(name);
  return names;
}

namespace {

const std::vector<std::string> kHostileNames = {
    " lead",      "trail ", "new\nline", "tab\tx", "back\\slash", "quo\"te", "apo'strophe",
    "$(touch x)", "`id`",   ";semi",     "ba!ng",  "co:lon",      "%s%n",    "-dash",
    "\xff\xfe",   "_17",    "17_",       "MOVE_3", "star*?",      "#hash"};

const std::vector<std::string> kXattrNames = {"user.one", "user.two", "trusted.three", "security.four",
                                              "user.na\nme"};
const std::vector<uint64_t> kXattrSizes = {0, 1, 30, 300, 3000};
const std::vector<uint64_t> kModes = {0600, 0644, 0755, 0000, 0777, 04755, 02755, 01777, 06711, 0444};
const std::vector<uint64_t> kSizes = {0, 0, 1, 17, 900, 2048, 4095, 4096, 4097, 9000, 20000, 65536};
const std::vector<int64_t> kTimes = {0,         -1,         -86400ll * 3650, 1ll << 31, (1ll << 32) + 5,
                                     1ll << 33, 1000000000, 1700000000};

std::string join(const std::string &dir, const std::string &name) {
  return dir.empty() ? name : dir + "/" + name;
}

std::string parentOf(const std::string &path) {
  size_t slash = path.rfind('/');
  return slash == std::string::npos ? "" : path.substr(0, slash);
}

std::string lastOf(const std::string &path) {
  return path.substr(path.rfind('/') + 1);
}

}  // namespace

Generator::Generator(const std::string &profile, uint64_t seed)
    : weights_(std::find_if(table().begin(), table().end(),
                            [&](const auto &entry) { return entry.first == profile; })
                   ->second),
      random_(seed) {
  deep_ = random_.chance(30);
  hostile_ = random_.chance(20);
  const std::vector<unsigned> flagged = {0, 6, 6, 30};
  flagPercent_ = weights_.flag ? random_.pick(flagged) : 0;
}

void Generator::perform(const Operation &operation) {
  // An operation that the kernel refused half-way is still part of the history.
  bool halves = operation.verb == "remove-tree" || operation.verb == "reflink";
  if (histories::apply(*tree_, operation) || halves) done_.push_back(operation);
}

void Generator::look() {
  paths_.clear();
  dirs_.assign(1, "");
  files_.clear();
  others_.clear();
  parents_.clear();
  std::function<void(const std::string &)> walk = [&](const std::string &dir) {
    for (const std::string &name : tree_->names(dir)) {
      std::string path = join(dir, name);
      struct stat st;
      if (lstat((tree_->root() + "/" + path).c_str(), &st) != 0) continue;
      paths_.push_back(path);
      if (S_ISREG(st.st_mode)) files_.push_back(path);
      char clone[16];
      if (weights_.clone && S_ISREG(st.st_mode) &&
          lgetxattr((tree_->root() + "/" + path).c_str(), "trusted.kest.CLONE", clone, sizeof clone) ==
              sizeof clone &&
          clone[12] & 0x80)
        parents_.push_back(path);
      if (!S_ISDIR(st.st_mode)) {
        others_.push_back(path);
        continue;
      }
      dirs_.push_back(path);
      walk(path);
    }
  };
  walk("");
  // The walk yields "a", "a/b", "a-b", but look-ups need byte order.
  for (auto *list : {&paths_, &dirs_, &files_, &others_, &parents_})
    std::sort(list->begin(), list->end());
}

std::string Generator::freshName() {
  std::string name = "n" + std::to_string(++counter_);
  return hostile_ && random_.chance(25) ? random_.pick(kHostileNames) + name : name;
}

std::string Generator::freshPath() {
  std::string dir = random_.pick(dirs_);
  auto depth = [](const std::string &path) { return std::count(path.begin(), path.end(), '/'); };
  if (deep_) {
    for (int i = 0; i < 2; ++i) {
      std::string other = random_.pick(dirs_);
      if (depth(other) > depth(dir)) dir = other;
    }
  }
  // The scenario tests cover long paths.
  if (dir.size() > 1000) dir = "";
  return join(dir, freshName());
}

std::string Generator::anyPath() {
  uint64_t r = random_.below(100);
  if (r < 45 || snapshotPaths_.empty()) return freshPath();
  return r < 80 || paths_.empty() ? random_.pick(snapshotPaths_) : random_.pick(paths_);
}

uint64_t Generator::fileSize() {
  return random_.chance(4) ? random_.between(100000, 700000) : random_.pick(kSizes);
}

char Generator::anyKind() {
  std::string kinds = weights_.kinds;
  return kinds[random_.below(kinds.size())];
}

void Generator::createFile(const std::string &path) {
  if (random_.chance(8) && !files_.empty()) return perform("reflink", random_.pick(files_), path);
  const uint64_t size = fileSize();
  perform({"file", path, "", random_.next(), size});
  if (size > 0 || !random_.chance(15)) return;
  perform({random_.chance(50) ? "nocow" : "compress", path, "", 1});
  perform({"write", path, "", 0, random_.pick(kSizes), random_.next()});
}

void Generator::create(const std::string &path, char kind) {
  switch (kind) {
    case 'd':
      return perform({"dir", path, "", random_.chance(70) ? 0755 : random_.pick(kModes)});
    case 'f':
      return createFile(path);
    case 'l': {
      static const std::vector<std::string> kTargets = {"dangling", "n1", "../n2", "/", "/etc/passwd"};
      std::string target =
          random_.chance(10) ? std::string(300 + random_.below(200), 't') : random_.pick(kTargets);
      return perform("symlink", path, target);
    }
    case 'p':
      return perform("fifo", path);
    case 's':
      return perform("socket", path);
    default:
      perform({"device", path, "", random_.below(2), random_.between(1, 300), random_.below(5000)});
  }
}

void Generator::changeData(const std::string &path) {
  struct stat st;
  uint64_t size = 0;
  if (lstat((tree_->root() + "/" + path).c_str(), &st) == 0) size = static_cast<uint64_t>(st.st_size);
  uint64_t offset = random_.below(size + 1);
  if (random_.chance(40)) offset = offset / 4096 * 4096;
  uint64_t length = std::max<uint64_t>(1, random_.pick(kSizes));
  switch (random_.below(10)) {
    case 0:
    case 1:
    case 2:
      return perform({"write", path, "", offset, length, random_.next()});
    case 3:
      return perform({"truncate", path, "", random_.chance(30) ? 0 : offset});
    case 4:
      return perform({"truncate", path, "", size + random_.pick(kSizes) * 3});
    case 5:
      return perform({"punch", path, "", offset / 4096 * 4096, 4096 * random_.between(1, 8)});
    case 6:
      return perform({"write", path, "", size + random_.pick(kSizes), length, random_.next()});
    case 7:
      perform({"preallocate", path, "", offset, length + 4096, random_.below(2)});
      if (random_.chance(50)) perform({"write", path, "", offset, length / 2 + 1, random_.next()});
      break;
    case 8:
      return perform({"zeros", path, "", offset, length});
    default:
      // Commits between two changes of a file, so that old and new data are both on disk.
      perform("commit");
      perform({"write", path, "", offset, length, random_.next()});
  }
}

void Generator::changeAttribute(const std::string &path) {
  bool isDir = std::binary_search(dirs_.begin(), dirs_.end(), path);
  bool isFile = std::binary_search(files_.begin(), files_.end(), path);
  switch (random_.below(9)) {
    case 0:
      return perform({"chmod", path, "", random_.pick(kModes)});
    case 1:
      return perform({"chown", path, "", random_.below(3) * 1000, random_.below(3) * 1000});
    case 2:
      return perform(
          {"set-acl", path, testsupport::kAccessAcl, random_.between(1000, 1002), random_.below(8)});
    case 3:
      if (isDir)
        perform(
            {"set-acl", path, testsupport::kDefaultAcl, random_.between(1000, 1002), random_.below(8)});
      else
        perform("remove-xattr", path, testsupport::kAccessAcl);
      break;
    case 4:
      return perform("remove-xattr", path, isDir ? testsupport::kDefaultAcl : testsupport::kAccessAcl);
    case 5:
      if (isFile) perform("capability", path);
      break;
    case 6:
      return perform("remove-xattr", path, random_.pick(kXattrNames));
    default:
      perform(
          {"set-xattr", path, random_.pick(kXattrNames), random_.next(), random_.pick(kXattrSizes)});
  }
}

void Generator::changeFlag(const std::string &path, unsigned percentOn) {
  static const std::vector<uint64_t> kOthers = {
      FS_NOATIME_FL, FS_NODUMP_FL, FS_SYNC_FL,  FS_DIRSYNC_FL,
      FS_COMPR_FL,   FS_NOCOMP_FL, FS_NOCOW_FL, FS_NOCOW_FL | FS_NOCOMP_FL};
  static const std::vector<std::string> kAlgorithms = {"zlib", "lzo", "zstd", "none"};
  if (random_.chance(40))
    return perform({"flag", path, "", random_.chance(percentOn), random_.pick(kOthers)});
  if (random_.chance(20)) {
    if (random_.chance(30)) return perform("remove-xattr", path, "btrfs.compression");
    return perform({"set-property", path, random_.pick(kAlgorithms)});
  }
  const char *verb = random_.chance(75) ? "immutable" : "append-only";
  perform({verb, path, "", random_.chance(percentOn)});
}

void Generator::setTime(const std::string &path) {
  perform({"mtime", path, "", static_cast<uint64_t>(random_.pick(kTimes)), random_.below(1000000000)});
}

void Generator::exchangeParentAndChild() {
  std::vector<std::string> inner;
  for (const std::string &dir : dirs_)
    if (dir.find('/') != std::string::npos) inner.push_back(dir);
  if (inner.empty()) return;
  std::string child = random_.pick(inner), parent = parentOf(child), aside = freshName();
  perform("rename", child, aside);
  perform("rename", parent, join(aside, random_.chance(50) ? "in" : lastOf(parent)));
  if (random_.chance(70)) perform("rename", aside, parent);
}

void Generator::ring() {
  if (paths_.size() < 3) return;
  std::string a = random_.pick(paths_), b = random_.pick(paths_), c = random_.pick(paths_),
              aside = freshName();
  perform("rename", a, aside);
  perform("rename", b, a);
  perform("rename", c, b);
  perform("rename", aside, c);
}

void Generator::newTreeThatTakesIn() {
  std::string top = freshPath(), inner = top;
  create(top, 'd');
  for (uint64_t depth = random_.below(3); depth > 0; --depth) {
    inner += "/s";
    create(inner, 'd');
  }
  for (uint64_t i = 0, n = random_.between(1, 4); i < n; ++i) {
    look();
    if (paths_.empty()) return;
    std::string taken = join(random_.chance(50) ? top : inner, "v" + std::to_string(i));
    perform("rename", random_.pick(paths_), taken);
    if (random_.chance(60)) {
      create(taken + "/w", 'd');
      create(taken + "/w/" + std::to_string(i), anyKind());
      create(taken + "/z", 'd');
    }
  }
}

void Generator::changeClones() {
  const uint64_t r = random_.below(100);
  if (r < 30 || parents_.empty()) {
    if (!files_.empty()) perform("clone-parent", random_.pick(files_));
    return;
  }
  const std::string parent = random_.pick(parents_);
  if (r < 70) {
    const std::string clone = random_.chance(75) ? freshPath() : anyPath();
    perform("clone", parent, clone);
    if (random_.chance(40)) changeData(clone);
    if (random_.chance(40)) perform("clone-parent", clone);
    return;
  }
  perform("immutable", parent);
  if (r < 82)
    perform("remove", parent);
  else if (r < 90)
    perform("rename", parent, anyPath());
  else if (r < 95)
    perform("link", parent, anyPath());
  else
    changeData(parent);
  if (random_.chance(60)) perform({"immutable", parent, "", 1});
}

void Generator::unlockParents() {
  look();
  for (const std::string &parent : parents_)
    if (random_.chance(50)) perform("immutable", parent);
}

void Generator::replaceKind(const std::string &path) {
  perform("remove-tree", path);
  char kind = anyKind();
  create(path, kind);
  if (kind != 'd') return;
  // Often reuses the names below the directory that was there before.
  for (const std::string &old : snapshotPaths_)
    if (parentOf(old) == path && random_.chance(60)) create(old, anyKind());
}

void Generator::oneChange() {
  look();
  if (paths_.empty()) return create(freshPath(), anyKind());
  const std::string path = random_.pick(paths_);
  const Weights &w = weights_;
  struct Choice {
    unsigned weight;
    std::function<void()> change;
  };
  const Choice choices[] = {
      {w.create, [&] { create(anyPath(), anyKind()); }},
      {w.remove, [&] { perform("remove", path); }},
      {w.removeTree, [&] { perform("remove-tree", path); }},
      {w.replaceKind, [&] { replaceKind(path); }},
      {w.rename, [&] { perform("rename", path, anyPath()); }},
      {w.exchange, [&] { perform("exchange", path, random_.pick(paths_)); }},
      {w.parentChild, [&] { exchangeParentAndChild(); }},
      {w.ring, [&] { ring(); }},
      {w.link,
       [&] {
         if (!others_.empty()) perform({"link", random_.pick(others_), anyPath()});
       }},
      {w.takeIn, [&] { newTreeThatTakesIn(); }},
      {w.data,
       [&] {
         if (!files_.empty()) changeData(random_.pick(files_));
       }},
      {w.attribute, [&] { changeAttribute(path); }},
      {w.time, [&] { setTime(path); }},
      {w.flag, [&] { changeFlag(path, 60); }},
      {w.replaceFile,
       [&] {
         if (files_.empty()) return;
         std::string file = random_.pick(files_);
         perform("remove", file);
         create(file, 'f');
       }},
      {w.clone, [&] { changeClones(); }},
  };
  unsigned total = 0;
  for (const Choice &choice : choices) total += choice.weight;
  uint64_t r = random_.below(total);
  for (const Choice &choice : choices) {
    if (r < choice.weight) return choice.change();
    r -= choice.weight;
  }
}

std::vector<Operation> Generator::buildInitial(TreeBuilder &tree) {
  tree_ = &tree;
  for (uint64_t i = 0, n = random_.between(8, 32); i < n; ++i) {
    look();
    create(freshPath(), anyKind());
    if (weights_.link && random_.chance(25) && !others_.empty())
      perform({"link", random_.pick(others_), freshPath()});
    if (random_.chance(25) && !paths_.empty()) changeAttribute(random_.pick(paths_));
    if (weights_.clone && random_.chance(70)) {
      look();
      changeClones();
    }
    if (weights_.data > 20 && random_.chance(30) && !files_.empty()) changeData(random_.pick(files_));
  }
  look();
  for (const std::string &path : paths_)
    if (random_.chance(50)) setTime(path);
  for (const std::string &path : paths_)
    if (random_.chance(flagPercent_)) changeFlag(path, 100);
  snapshotPaths_ = paths_;
  return std::exchange(done_, {});
}

std::vector<Operation> Generator::change(TreeBuilder &tree) {
  tree_ = &tree;
  if (flagPercent_ > 10)  // with many flags, most changes need a flag cleared first
    for (const std::string &path : snapshotPaths_)
      if (random_.chance(60)) {
        perform("immutable", path);
        perform("append-only", path);
      }
  if (weights_.clone && random_.chance(40)) unlockParents();
  for (uint64_t i = 0, n = random_.between(3, 25); i < n; ++i) oneChange();
  return std::exchange(done_, {});
}

}  // namespace histories
