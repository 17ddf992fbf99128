#include "plan/walk_messages.h"

#include <cstring>
#include <unordered_map>

#include "messages/messages.h"
#include "run/work_dir.h"

namespace {

std::unordered_map<uint64_t, std::string> former_places;  // of directories, none in the work directory
std::string failed_path;
bool told = false;

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

Result failedAt(const std::string &path, const Result &result) {
  if (!result && failed_path.empty()) failed_path = formerPath(path);
  return result;
}

void forgetFailure() {
  failed_path.clear();
}

void walkFailureTold() {
  told = true;
}

void tellWalkFailure(const std::string &root, const Result &result) {
  if (told) return;
  userMessage(Message::kObjectFailed, failed_path.empty() ? root : failed_path, strerror(result.err));
  told = true;
}
