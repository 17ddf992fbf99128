#include "plan/walk_failure.h"

#include <cstring>

#include "messages/messages.h"
#include "plan/former_places.h"

namespace {

std::string failed_path;
bool told = false;

}  // namespace

Result failedAt(const std::string &path, const Result &result) {
  if (!result && failed_path.empty()) failed_path = formerPath(path);
  return result;
}

void walkFailureTold() {
  told = true;
}

void tellWalkFailure(const std::string &root, const Result &result) {
  if (told) return;
  userMessage(Message::kObjectFailed, failed_path.empty() ? root : failed_path, strerror(result.err));
  told = true;
}
