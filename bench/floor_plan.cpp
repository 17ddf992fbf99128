#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <unordered_map>

#include "floor_list.h"
#include "tree_files.h"
#include "walked_tree.h"

namespace bench {
namespace {

// Order of the calls: first remove names that are in the way; make directories before their contents;
// empty directories before removing them; set the times of directories last. A depth is added where it
// matters.
enum Stage : uint32_t {
  kStageUnlink = 0,
  kStageAside = 1,
  kStageMakeDir = 10'000,
  kStageHome = 20'000,
  kStageRemoveDir = 40'000,  // minus the depth: deepest first
  kStageFiles = 50'000,
  kStageLinks = 60'000,
  kStageDirAttributes = 70'000
};

bool same(const statx_timestamp &one, const statx_timestamp &other) {
  return one.tv_sec == other.tv_sec && one.tv_nsec == other.tv_nsec;
}

std::string readAll(const std::string &path, uint64_t size) {
  std::string bytes(size, '\0');
  const int fd = open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0 || pread(fd, bytes.data(), size, 0) != static_cast<ssize_t>(size)) fail("read " + path);
  close(fd);
  return bytes;
}

class Plan {
 public:
  Plan(const std::string &snapshot, const std::string &active)
      : snapshot_(walkTree(snapshot)),
        active_(walkTree(active)),
        dirOfActive_(active_.objects.size(), kNone),
        dirOfMade_(snapshot_.objects.size(), kNone),
        toActive_(snapshot_.objects.size(), kNone),
        toSnapshot_(active_.objects.size(), kNone) {
    addText(snapshot);
    addText(active);
  }

  FloorList take() {
    pairObjects();
    matchNames();
    for (uint32_t name = 1; name < active_.names.size(); name++) planOldName(name);
    for (uint32_t object = 0; object < snapshot_.objects.size(); object++) planObject(object);
    for (uint32_t object = 0; object < snapshot_.objects.size(); object++)
      if (S_ISDIR(snapshot_.objects[object].mode)) planDirAttributes(object);
    std::stable_sort(list_.ops.begin(), list_.ops.end(),
                     [](const FloorOp &one, const FloorOp &other) { return one.stage < other.stage; });
    return std::move(list_);
  }

 private:
  // Equal numbers are the same object, because btrfs never reuses an inode number. The root pairs with
  // the root.
  void pairObjects() {
    toActive_[0] = toSnapshot_[0] = 0;
    for (uint32_t object = 1; object < snapshot_.objects.size(); object++) {
      const WalkedObject &old = snapshot_.objects[object];
      const auto found = active_.byInode.find(old.inode);
      if (found == active_.byInode.end()) continue;
      const WalkedObject &now = active_.objects[found->second];
      if ((old.mode & S_IFMT) != (now.mode & S_IFMT) || !same(old.birth, now.birth)) continue;
      toActive_[object] = found->second;
      toSnapshot_[found->second] = object;
    }
  }

  // homeOf_[name in the active tree] is the name in the snapshot to which it belongs; sourceOf_ is the
  // reverse.
  void matchNames() {
    homeOf_.assign(active_.names.size(), kNone);
    sourceOf_.assign(snapshot_.names.size(), kNone);
    for (uint32_t object = 0; object < snapshot_.objects.size(); object++) {
      if (toActive_[object] == kNone) continue;
      for (const bool mayMove : {false, true}) matchNamesOf(object, mayMove);
    }
  }

  void matchNamesOf(uint32_t object, bool mayMove) {
    const uint32_t first = active_.objects[toActive_[object]].firstName;
    for (uint32_t want = snapshot_.objects[object].firstName; want != kNone;
         want = snapshot_.names[want].next) {
      for (uint32_t have = first; have != kNone && sourceOf_[want] == kNone;
           have = active_.names[have].next) {
        if (homeOf_[have] != kNone || !(mayMove || samePlace(want, have))) continue;
        homeOf_[have] = want;
        sourceOf_[want] = have;
      }
    }
  }

  bool samePlace(uint32_t want, uint32_t have) const {
    const WalkedName &old = snapshot_.names[want], &now = active_.names[have];
    return toActive_[old.parent] == now.parent && old.name == now.name;
  }

  // A name that the snapshot does not have there: remove it or move it home.
  void planOldName(uint32_t have) {
    const uint32_t want = homeOf_[have];
    if (want != kNone && samePlace(want, have)) return;
    const WalkedName &name = active_.names[have];
    const uint32_t dir = touched(activeDir(name.parent));
    uint32_t text = addText(name.name);
    const bool isDir = S_ISDIR(active_.objects[name.object].mode);
    if (want == kNone && !isDir) {
      add(FloorCall::kUnlink, kStageUnlink, dir, text);
      return;
    }
    if (isWanted(name)) {
      FloorOp &aside = add(FloorCall::kRename, kStageAside, dir, text);
      text = addText(".bench_floor." + std::to_string(have));
      aside.otherDir = dir;
      aside.otherName = text;
    }
    if (want == kNone) {
      FloorOp &op = add(FloorCall::kRemoveDir, kStageRemoveDir - active_.depth(name.object), dir, text);
      op.otherDir = activeDir(name.object);
    } else {
      FloorOp &op = add(FloorCall::kRename, kStageHome, dir, text);
      op.otherDir = touched(targetDir(snapshot_.names[want].parent));
      op.otherName = addText(snapshot_.names[want].name);
    }
  }

  // Returns true if the snapshot has another object under this name.
  bool isWanted(const WalkedName &name) {
    const uint32_t old = toSnapshot_[name.parent];
    if (old == kNone) return false;
    if (wantedNames_.empty())
      for (uint32_t want = 1; want < snapshot_.names.size(); want++)
        if (sourceOf_[want] == kNone || !samePlace(want, sourceOf_[want]))
          wantedNames_.emplace(key(snapshot_.names[want].parent, snapshot_.names[want].name), want);
    return wantedNames_.contains(key(old, name.name));
  }

  static std::string key(uint32_t parent, const std::string &name) {
    return std::to_string(parent) + "/" + name;
  }

  void planObject(uint32_t object) {
    const WalkedObject &old = snapshot_.objects[object];
    if (toActive_[object] == kNone)
      planMissing(object);
    else if (S_ISDIR(old.mode))
      return;  // times come last
    else if (!same(old.ctime, active_.objects[toActive_[object]].ctime))
      planChanged(object);
    planLinks(object);
  }

  void planMissing(uint32_t object) {
    const WalkedObject &old = snapshot_.objects[object];
    const WalkedName &name = snapshot_.names[old.firstName];
    const uint32_t dir = touched(targetDir(name.parent));
    const uint32_t text = addText(name.name);
    if (S_ISDIR(old.mode)) {
      FloorOp &op = add(FloorCall::kMakeDir, kStageMakeDir + snapshot_.depth(object), dir, text);
      op.mode = old.mode;
      op.otherDir = targetDir(object);
      return;
    }
    FloorOp &op = add(FloorCall::kMakeFile, kStageFiles, dir, text);
    op.mode = old.mode;
    if (S_ISLNK(old.mode)) {
      op.call = FloorCall::kMakeSymlink;
      std::string target(old.size, '\0');
      if (readlink(snapshotPath(object).c_str(), target.data(), target.size()) < 0)
        fail("readlink " + snapshotPath(object));
      op.otherName = addText(target);
    } else if (!S_ISREG(old.mode)) {
      op.call = FloorCall::kMakeNode;
      op.number = old.device;
    } else if (old.size > 0) {
      op.otherDir = sourceDir(name.parent);
      op.otherName = text;
    }
    newAttributes(object, &op);
  }

  // When files are made and changed, the active object has the names that stayed or moved.
  void planChanged(uint32_t object) {
    const WalkedObject &old = snapshot_.objects[object];
    uint32_t want = old.firstName;
    while (sourceOf_[want] == kNone) want = snapshot_.names[want].next;
    const WalkedName &name = snapshot_.names[want];
    FloorOp op{FloorCall::kChangeFile, kStageFiles};
    if (S_ISREG(old.mode)) changedData(object, &op);
    if (op.ranges > 0) {
      op.otherDir = sourceDir(name.parent);
      op.otherName = addText(name.name);
    }
    changedAttributes(object, op.ranges > 0 || (op.what & kCut), &op);
    if (op.ranges == 0 && op.what == 0 && op.xattrs == 0) return;
    op.dir = targetDir(name.parent);
    op.name = addText(name.name);
    list_.ops.push_back(op);
  }

  void changedData(uint32_t object, FloorOp *op) {
    const uint64_t want = snapshot_.objects[object].size,
                   have = active_.objects[toActive_[object]].size;
    const std::string wantPath = snapshotPath(object), havePath = activePath(toActive_[object]);
    std::vector<uint64_t> old = blockMap(wantPath, want), now = blockMap(havePath, have);
    const bool isInline = std::count(old.begin(), old.end(), kUnknownBlock) > 0;
    if (isInline && want == have && readAll(wantPath, want) == readAll(havePath, have)) return;
    // Cut at a block boundary, so that no block is copied only to clear its end. A clone brings back
    // the rest.
    if (have > want) {
      op->what |= kCut;
      op->number = want / kBlock * kBlock;
    }
    const uint64_t whole = std::min(want, have) / kBlock;
    op->firstRange = static_cast<uint32_t>(list_.ranges.size());
    for (uint64_t block = 0; block < old.size();) {
      const auto differs = [&](uint64_t at) {
        return at >= now.size() || old[at] != now[at] || old[at] == kUnknownBlock ||
               (want != have && at >= whole);
      };
      const uint64_t start = block;
      while (block < old.size() && differs(block)) block++;
      if (block > start)
        list_.ranges.push_back({start * kBlock, std::min(want, block * kBlock) - start * kBlock});
      else
        block++;
    }
    op->ranges = static_cast<uint32_t>(list_.ranges.size()) - op->firstRange;
  }

  void planLinks(uint32_t object) {
    const WalkedObject &old = snapshot_.objects[object];
    if (S_ISDIR(old.mode)) return;
    uint32_t from = old.firstName;  // an object that was made again, or an existing name
    if (toActive_[object] != kNone)
      while (sourceOf_[from] == kNone) from = snapshot_.names[from].next;
    for (uint32_t want = old.firstName; want != kNone; want = snapshot_.names[want].next) {
      if (want == from || sourceOf_[want] != kNone) continue;
      FloorOp &op = add(FloorCall::kLink, kStageLinks, targetDir(snapshot_.names[from].parent),
                        addText(snapshot_.names[from].name));
      op.otherDir = touched(targetDir(snapshot_.names[want].parent));
      op.otherName = addText(snapshot_.names[want].name);
    }
  }

  void planDirAttributes(uint32_t object) {
    FloorOp op{FloorCall::kDirAttributes, kStageDirAttributes};
    const uint32_t now = toActive_[object];
    if (now == kNone) {
      newAttributes(object, &op);
    } else {
      const bool isTouched = dirOfActive_[now] != kNone && isTouched_[dirOfActive_[now]];
      if (!isTouched && same(snapshot_.objects[object].ctime, active_.objects[now].ctime)) return;
      changedAttributes(object, isTouched, &op);
    }
    if (op.what == 0 && op.xattrs == 0) return;
    op.dir = targetDir(object);
    list_.ops.push_back(op);
  }

  void newAttributes(uint32_t object, FloorOp *op) {
    const WalkedObject &old = snapshot_.objects[object];
    const bool special = old.mode & (S_ISUID | S_ISGID);
    setAttributes(old, op);
    if (old.uid != 0 || old.gid != 0) op->what |= kOwner;
    if (special && (S_ISDIR(old.mode) || (op->what & kOwner))) op->what |= kMode;
    op->what |= kTimes;
    if (!S_ISLNK(old.mode)) addXattrs(readXattrs(snapshotPath(object)), {}, op);
  }

  void changedAttributes(uint32_t object, bool isChanged, FloorOp *op) {
    const WalkedObject &old = snapshot_.objects[object], &now = active_.objects[toActive_[object]];
    setAttributes(old, op);
    if (old.uid != now.uid || old.gid != now.gid) op->what |= kOwner;
    const bool special = old.mode & (S_ISUID | S_ISGID);
    if (old.mode != now.mode || (special && (op->what & kOwner))) op->what |= kMode;
    if (isChanged || !same(old.mtime, now.mtime)) op->what |= kTimes;
    if (!S_ISLNK(old.mode))
      addXattrs(readXattrs(snapshotPath(object)), readXattrs(activePath(toActive_[object])), op);
  }

  static void setAttributes(const WalkedObject &old, FloorOp *op) {
    op->mode = old.mode;
    op->uid = old.uid;
    op->gid = old.gid;
    op->seconds = old.mtime.tv_sec;
    op->nanoseconds = old.mtime.tv_nsec;
  }

  void addXattrs(const std::map<std::string, std::string> &want,
                 std::map<std::string, std::string> have, FloorOp *op) {
    op->firstXattr = static_cast<uint32_t>(list_.xattrs.size());
    for (const auto &[name, value] : want) {
      const auto found = have.find(name);
      if (found == have.end() || found->second != value)
        list_.xattrs.push_back({addText(name), addText(value), static_cast<uint32_t>(value.size())});
      if (found != have.end()) have.erase(found);
    }
    for (const auto &[name, value] : have) list_.xattrs.push_back({addText(name), kNone, 0});
    op->xattrs = static_cast<uint32_t>(list_.xattrs.size()) - op->firstXattr;
  }

  FloorOp &add(FloorCall call, uint32_t stage, uint32_t dir, uint32_t name) {
    FloorOp op{call, stage};
    op.dir = dir;
    op.name = name;
    return list_.ops.emplace_back(op);
  }

  uint32_t addText(const std::string &text) {
    const size_t at = list_.text.size();
    list_.text.append(text).push_back('\0');
    return static_cast<uint32_t>(at);
  }

  uint32_t newDir(uint32_t activePathText) {
    list_.dirs.push_back({activePathText, kNone});
    isTouched_.push_back(false);
    return static_cast<uint32_t>(list_.dirs.size() - 1);
  }

  uint32_t activeDir(uint32_t object) {
    uint32_t &dir = dirOfActive_[object];
    if (dir == kNone) dir = newDir(addText(active_.path(object)));
    return dir;
  }

  // Returns the present or future place of the snapshot's directory in the active tree.
  uint32_t targetDir(uint32_t object) {
    if (toActive_[object] != kNone) return activeDir(toActive_[object]);
    uint32_t &dir = dirOfMade_[object];
    if (dir == kNone) dir = newDir(kNone);
    return dir;
  }

  uint32_t sourceDir(uint32_t object) {
    const uint32_t dir = targetDir(object);
    if (list_.dirs[dir].snapshotPath == kNone)
      list_.dirs[dir].snapshotPath = addText(snapshot_.path(object));
    return dir;
  }

  uint32_t touched(uint32_t dir) {
    isTouched_[dir] = true;
    return dir;
  }

  std::string snapshotPath(uint32_t object) const {
    return snapshot_.root + "/" + snapshot_.path(object);
  }
  std::string activePath(uint32_t object) const { return active_.root + "/" + active_.path(object); }

  WalkedTree snapshot_, active_;
  std::vector<uint32_t> dirOfActive_, dirOfMade_;  // indices into list_.dirs
  std::vector<uint32_t> toActive_, toSnapshot_;    // index of the same object in the other tree
  std::vector<uint32_t> homeOf_, sourceOf_;        // the same or the new name in the other tree
  std::vector<bool> isTouched_;                    // by index into list_.dirs: it gains or loses names
  std::unordered_map<std::string, uint32_t> wantedNames_;
  FloorList list_;
};

}  // namespace

FloorList planFloor(const std::string &snapshot, const std::string &active) {
  return Plan(snapshot, active).take();
}

}  // namespace bench
