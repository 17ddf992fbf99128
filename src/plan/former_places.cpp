#include "plan/former_places.h"

#include <unordered_map>

#include "run/work_dir.h"

namespace {

std::unordered_map<uint64_t, std::string> former_places;  // of directories, none in the work directory

}  // namespace

void noteFormerPlace(uint64_t ino, const std::string &path) {
  former_places[ino] = formerPath(path);
}

std::string formerPath(const std::string &path) {
  TempPlace place;
  if (!inWorkDir(path) || !parseTempPlace(nameInWorkDir(path), &place)) return path;
  const auto found = former_places.find(place.ino);
  if (found == former_places.end()) return path;
  return place.inside.empty() ? found->second : found->second + "/" + std::string(place.inside);
}
