#include "front/mount_lines.h"

#include <fcntl.h>
#include <string.h>
#include <sys/sysmacros.h>

#include <cstdlib>

#include "base/file_io.h"
#include "base/octal.h"
#include "base/unique_fd.h"
#include "front/trouble.h"
#include "messages/front_texts.h"

namespace front {

namespace {

std::vector<std::string> words(const std::string &line) {
  std::vector<std::string> all;
  for (size_t at = 0; at < line.size();) {
    const size_t end = std::min(line.find(' ', at), line.size());
    if (end > at) all.push_back(line.substr(at, end - at));
    at = end + 1;
  }
  return all;
}

// Parses "id parent major:minor root point options [tags ...] - type source options".
bool parse(const std::string &line, MountLine *mount) {
  const std::vector<std::string> all = words(line);
  size_t dash = 6;
  while (dash < all.size() && all[dash] != "-") ++dash;
  if (dash + 2 >= all.size()) return false;
  mount->id = strtoull(all[0].c_str(), nullptr, 10);
  char *end = nullptr;
  const unsigned long major_number = strtoul(all[2].c_str(), &end, 10);
  if (*end == ':') mount->device = makedev(major_number, strtoul(end + 1, nullptr, 10));
  mount->type = all[dash + 1];
  mount->root = octalUnescaped(all[3]);
  mount->root.erase(0, 1);
  mount->point = octalUnescaped(all[4]);
  mount->source = octalUnescaped(all[dash + 2]);
  return true;
}

}  // namespace

std::vector<MountLine> allMounts() {
  const char *table = "/proc/self/mountinfo";
  const UniqueFd fd(open(table, O_RDONLY | O_CLOEXEC));
  std::string text;
  const Result read = fd ? readToEnd(fd.get(), &text) : failedErrno(0);
  if (!read) throw Trouble(frontText(FrontText::kCannotRead, table, strerror(read.err)));
  std::vector<MountLine> mounts;
  for (size_t at = 0; at < text.size();) {
    const size_t end = std::min(text.find('\n', at), text.size());
    MountLine mount;
    if (parse(text.substr(at, end - at), &mount)) mounts.push_back(mount);
    at = end + 1;
  }
  return mounts;
}

std::vector<MountLine> btrfsMounts() {
  std::vector<MountLine> mounts = allMounts();
  std::erase_if(mounts, [](const MountLine &mount) { return mount.type != "btrfs"; });
  return mounts;
}

std::string placeIn(const MountLine &mount, const std::string &path) {
  std::string below = path;
  if (!mount.root.empty()) {
    if (path != mount.root && !path.starts_with(mount.root + "/")) return "";
    below.erase(0, std::min(path.size(), mount.root.size() + 1));
  }
  if (below.empty()) return mount.point;
  return (mount.point == "/" ? "" : mount.point) + "/" + below;
}

}  // namespace front
