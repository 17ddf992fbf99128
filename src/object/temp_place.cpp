#include "object/temp_place.h"

#include <unistd.h>
#include <charconv>

#include "object/object_stat.h"
#include "run/settings.h"
#include "run/work_dir.h"

namespace {

// Home may itself wait in a temporary location, and so on.
constexpr int kMostLinks = 1000;

// True and where the link points to, for a link that a restore left. A user's link that was moved aside
// is the moved inode itself.
bool isOwnLink(const std::string &location, uint64_t ino, std::string *target) {
  struct stat st;
  return statPath(location, &st) == 0 && S_ISLNK(st.st_mode) && st.st_uid == geteuid() &&
         st.st_ino != ino && readLinkTarget(location, target) == 0;
}

}  // namespace

bool parseTempPlace(std::string_view path, TempPlace *place) {
  size_t at = path.find("MOVE_", settings.shareDir.size());
  if (at == std::string_view::npos) return false;
  at = path.find('_', at + 5);
  if (at == std::string_view::npos) return false;
  path.remove_prefix(at + 1);
  place->ino = 0;
  std::from_chars(path.data(), path.data() + path.size(), place->ino);
  const size_t slash = path.find('/');
  place->inside = slash == std::string_view::npos ? std::string_view() : path.substr(slash + 1);
  return true;
}

std::string linkFree(const std::string &path) {
  std::string now = path;
  for (int links = 0; links < kMostLinks && inWorkDir(now); ++links) {
    TempPlace place;
    if (!parseTempPlace(now, &place) || place.inside.empty()) break;
    std::string home;
    if (!isOwnLink(now.substr(0, now.size() - place.inside.size() - 1), place.ino, &home)) break;
    now = home.append(1, '/').append(place.inside);
  }
  return now;
}
