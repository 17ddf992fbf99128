#include "run/path.h"

#include "run/settings.h"

bool appendPath(std::string &dir, std::string_view name) {
  if (dir.size() + name.size() + 3 >= kPathMax) {
    if (!settings.path2long) settings.longPath = dir + "/" + std::string(name);
    settings.path2long = true;
    return false;
  }
  dir.append(1, '/').append(name);
  return true;
}

void cutPath(std::string &path) {
  if (path.size() < 2) return;
  if (path.back() == '/') {
    path.pop_back();
    return;
  }
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos) return;
  path.resize(slash == 0 ? 1 : slash);
}

bool liesIn(std::string_view path, std::string_view dir) {
  if (!path.starts_with(dir)) return false;
  return path.size() == dir.size() || dir.ends_with('/') || path[dir.size()] == '/';
}
