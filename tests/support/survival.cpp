#include "support/survival.h"

#include <linux/fs.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <set>
#include <tuple>

namespace testsupport {
namespace {

bool sameTime(const timespec &a, const timespec &b) {
  return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

// An inode number can be reused; then the creation time differs.
bool sameObject(const ObjectPrint &a, const ObjectPrint &b) {
  return a.inode == b.inode && sameTime(a.birth, b.birth) && (a.mode & S_IFMT) == (b.mode & S_IFMT);
}

using Place = std::tuple<ino_t, ino_t, std::string>;  // folder, inode number, name

Place placeOf(const std::string &path, const ObjectPrint &object) {
  return {object.parent, object.inode, path.substr(path.rfind('/') + 1)};
}

// 0: an ordinary file.
unsigned cloneKind(const ObjectPrint &object) {
  return object.clone ? 1 + object.clone->parent + 2 * object.clone->depth : 0;
}

uint64_t parentOf(const ObjectPrint &object) {
  return object.clone && object.clone->depth ? object.clone->parentInode : 0;
}

class Survivors {
 public:
  explicit Survivors(const TreePrint &before) {
    for (const auto &[path, object] : before.objects) {
      byInode_.emplace(object.inode, &object);
      places_.insert(placeOf(path, object));
    }
  }

  // The same file, but nothing can restore its clone state: it became a parent, or lost its attributes.
  bool isRemade(const ObjectPrint &object) const {
    auto found = byInode_.find(object.inode);
    return found != byInode_.end() && sameObject(object, *found->second) &&
           cloneKind(object) != cloneKind(*found->second);
  }

  bool mustSurvive(const TreePrint &snapshot, const std::string &path,
                   const ObjectPrint &object) const {
    auto found = byInode_.find(object.inode);
    if (found == byInode_.end() || !sameObject(object, *found->second) || isRemade(object))
      return false;
    if (S_ISDIR(object.mode) || (object.links == 1 && found->second->links == 1)) return true;
    if (object.group.empty()) return places_.count(placeOf(path, object)) != 0;
    const auto stayed = [&](const std::string &name) {
      return places_.count(placeOf(name, snapshot.objects.at(name))) != 0;
    };
    return std::any_of(object.group.begin(), object.group.end(), stayed);
  }

 private:
  std::map<ino_t, const ObjectPrint *> byInode_;
  std::set<Place> places_;
};

}  // namespace

std::vector<std::string> exchangedOrChanged(const TreePrint &before, const TreePrint &after) {
  std::vector<std::string> lines;
  for (const auto &[path, then] : before.objects) {
    const auto now = after.objects.find(path);
    if (path.empty() || now == after.objects.end()) continue;
    if (!sameObject(then, now->second))
      lines.push_back("exchanged: " + shown(path) + ", inode " + std::to_string(then.inode) +
                      ", now it is " + std::to_string(now->second.inode));
    else if (!sameTime(then.ctime, now->second.ctime))
      lines.push_back("changed again: " + shown(path));
  }
  return lines;
}

std::vector<std::string> remadeOrTouched(const TreePrint &snapshot, const TreePrint &before,
                                         const TreePrint &after, bool timesToo) {
  std::vector<std::string> lines;
  Survivors survivors(before);
  std::set<ino_t> parted;  // folders in which a file is made again under its own name
  for (const auto &[path, object] : snapshot.objects)
    if (survivors.isRemade(object)) parted.insert(object.parent);
  for (const auto &[path, object] : snapshot.objects) {
    auto now = after.objects.find(path);
    if (now == after.objects.end() || object.nested || path.empty()) continue;
    if (survivors.mustSurvive(snapshot, path, object) && !sameObject(object, now->second)) {
      lines.push_back("remade: " + shown(path) + ", inode " + std::to_string(object.inode) +
                      " was there, now it is " + std::to_string(now->second.inode));
      continue;
    }
    auto then = before.objects.find(path);
    if (!timesToo || then == before.objects.end() || !sameObject(object, then->second)) continue;
    // Its attribute received the new number of its parent.
    if (parentOf(then->second) != parentOf(now->second) || parted.count(object.inode)) continue;
    if ((object.flags & (FS_IMMUTABLE_FL | FS_APPEND_FL)) ||
        !sameTime(object.ctime, then->second.ctime))
      continue;
    if (!sameTime(object.ctime, now->second.ctime))
      lines.push_back("touched: " + shown(path) + " had not changed since the snapshot");
  }
  return lines;
}

// The coarse clock lags behind the fine one, so it can repeat a time that the fine clock has already
// given.
void awaitClockTick() {
  timespec start, now;
  clock_gettime(CLOCK_REALTIME, &start);
  do {
    usleep(500);
    clock_gettime(CLOCK_REALTIME_COARSE, &now);
  } while (std::tie(now.tv_sec, now.tv_nsec) <= std::tie(start.tv_sec, start.tv_nsec));
}

}  // namespace testsupport
