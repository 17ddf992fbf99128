#include "btrfs/fileset_lookup.h"

#include <cerrno>
#include <map>

#include "filesystem/error_text.h"

namespace kest {

namespace {

constexpr size_t kFewNames = 12;

std::string trimSlashes(std::string text) {
  while (!text.empty() && text.front() == '/') text.erase(0, 1);
  while (!text.empty() && text.back() == '/') text.pop_back();
  return text;
}

std::string lastComponent(const std::string &path) {
  return path.substr(path.rfind('/') + 1);
}

std::string display(const std::string &top_path) {
  return top_path.empty() ? "/" : top_path;
}

// Returns "; there are a, b, c" if there are few enough names to help the user.
std::string listNames(const SubvolumeTable &table, const std::vector<const Subvolume *> &these) {
  if (these.empty() || these.size() > kFewNames) return "";
  std::string text;
  for (const Subvolume *one : these) {
    std::string path;
    if (table.pathOf(one->id, &path) < 0) continue;
    text += (text.empty() ? "; there are " : ", ") + display(path);
  }
  return text;
}

// Finds all subvolumes that are related to the fileset. 0 or -errno.
int findRelatives(const SubvolumeTable &table, const Subvolume &fileset,
                  std::vector<const Subvolume *> *relatives) {
  for (const Subvolume &one : table.all()) {
    if (one.deleted || one.id == fileset.id) continue;
    const int kin = table.related(fileset.id, one.id, nullptr);
    if (kin < 0) return kin;
    if (kin > 0) relatives->push_back(&one);
  }
  return 0;
}

}  // namespace

const Subvolume *findByPath(const SubvolumeTable &table, const std::string &text) {
  const std::string path = trimSlashes(text);
  if (path.empty()) return table.find(kTopLevel);
  std::string name = lastComponent(path), found;
  for (const Subvolume &one : table.all())
    if (!one.deleted && one.name == name && table.pathOf(one.id, &found) == 0 && found == path)
      return &one;
  return nullptr;
}

int findFileset(const SubvolumeTable &table, const std::string &name, const std::string &device,
                const Subvolume **fileset) {
  *fileset = name.empty() ? nullptr : findByPath(table, name);
  if (*fileset != nullptr) return 0;
  std::vector<const Subvolume *> filesets;
  for (const Subvolume &one : table.all())
    if (!one.deleted && one.parent_uuid == Uuid{}) filesets.push_back(&one);
  return failWith(
      ENOENT, "no fileset " + name + " in the file system of " + device + listNames(table, filesets));
}

int findSnapshot(const SubvolumeTable &table, const std::string &name, const Subvolume &fileset,
                 const std::string &fileset_name, const Subvolume **snapshot) {
  std::string path = trimSlashes(name), found;
  // A name with a slash is a whole path, any other name the last component of one.
  bool by_path = name.find('/') != std::string::npos;
  std::vector<const Subvolume *> matches, snapshots;
  bool unrelated = false;
  for (const Subvolume &one : table.all()) {
    if (one.deleted || one.id == fileset.id) continue;
    if (path.empty() || one.name != lastComponent(path)) continue;
    if (by_path && (table.pathOf(one.id, &found) < 0 || found != path)) continue;
    const int kin = table.related(fileset.id, one.id, nullptr);
    if (kin < 0) return kin;
    if (kin > 0)
      matches.push_back(&one);
    else
      unrelated = true;
  }
  if (matches.size() > 1) {
    for (const Subvolume *one : matches) {
      if (table.pathOf(one->id, &found) == 0 && found == path) {
        *snapshot = one;
        return 0;
      }
    }
    return failWith(EINVAL, "more than one snapshot of fileset " + fileset_name + " is named " + name +
                                ", use its path below the top of the file system" +
                                listNames(table, matches));
  }
  if (matches.size() == 1) {
    *snapshot = matches.front();
    return 0;
  }
  if (unrelated || path == trimSlashes(fileset_name))
    return failWith(EINVAL, name + " is not a snapshot of fileset " + fileset_name);
  if (int rc = findRelatives(table, fileset, &snapshots); rc < 0) return rc;
  return failWith(ENOENT,
                  "fileset " + fileset_name + " has no snapshot " + name + listNames(table, snapshots));
}

int listSnapshots(const SubvolumeTable &table, const Subvolume &fileset,
                  std::vector<NamedSnapshot> *snapshots) {
  std::map<std::string, int> uses;
  std::vector<const Subvolume *> relatives;
  if (int rc = findRelatives(table, fileset, &relatives); rc < 0) return rc;
  for (const Subvolume *one : relatives) {
    if (one->id == kTopLevel || one->parent_id == 0) continue;
    snapshots->push_back({one, one->name});
    uses[one->name]++;
  }
  for (NamedSnapshot &one : *snapshots) {
    if (uses[one.name] < 2) continue;
    int rc = table.pathOf(one.subvolume->id, &one.name);
    if (rc < 0) return rc;
    // A path without a slash would be taken for a last component.
    if (one.name.find('/') == std::string::npos) one.name.insert(0, "/");
  }
  return 0;
}

}  // namespace kest
