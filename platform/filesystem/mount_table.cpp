#include "filesystem/mount_table.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <utility>

#include "base/octal.h"

namespace kest {

bool parseMount(std::string_view line, Mount *mount) {
  // Only blanks separate the words: the kernel does not escape all other white space in names.
  const auto next = [&line] {
    const std::string word(line.substr(0, line.find(' ')));
    line.remove_prefix(std::min(line.size(), word.size() + 1));
    return word;
  };
  const auto number = [](const std::string &word, int *value) {
    return sscanf(word.c_str(), "%d", value) == 1;
  };
  const std::string id = next(), parent = next(), device = next(), root = next(), point = next();
  next();  // mount options
  if (!number(id, &mount->id) || !number(parent, &mount->parent_id) || root.empty() || point.empty() ||
      sscanf(device.c_str(), "%u:%u", &mount->major_no, &mount->minor_no) != 2)
    return false;
  for (std::string word = next(); word != "-"; word = next())
    if (line.empty()) return false;
  mount->type = next();
  mount->source = octalUnescaped(next());
  mount->super_options = octalUnescaped(next());
  mount->root = octalUnescaped(root);
  if (mount->root.starts_with('/')) mount->root.erase(0, 1);
  mount->point = octalUnescaped(point);
  return true;
}

int readMounts(std::vector<Mount> *mounts) {
  mounts->clear();
  std::unique_ptr<FILE, int (*)(FILE *)> file(fopen("/proc/self/mountinfo", "re"), fclose);
  if (file == nullptr) return -errno;
  char *line = nullptr;
  size_t size = 0;
  bool understood = true;
  while (understood && getline(&line, &size, file.get()) > 0) {
    Mount mount;
    understood = parseMount(line, &mount);
    if (understood) mounts->push_back(std::move(mount));
  }
  free(line);
  return ferror(file.get()) || !understood ? -EIO : 0;
}

}  // namespace kest
