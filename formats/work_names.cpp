#include "formats/work_names.h"

#include <charconv>

namespace {

constexpr std::string_view kWorkDirStart = "RestoreTemp";
constexpr std::string_view kDeletedSetStart = "DelDir_", kNewSetStart = "NewDir_";
constexpr std::string_view kBucketStart = "MOVE_";
constexpr char kAsideStart = '_';
constexpr std::string_view kNewParentEnd = ".clone.newParent";
constexpr std::string_view kMoveListEnd = ".move";
constexpr std::string_view kCloneListStart = "clone.";
constexpr std::string_view kCloneDeleteListStart = "clone.del.";
constexpr uint64_t kBucketMask = 0x3FF;

std::string number(uint64_t ino) {
  return std::to_string(ino);
}

std::string inBucket(uint64_t ino, const std::string &name) {
  return bucketName(ino) + "/" + name;
}

// Parses a number without sign at the start of `name` and removes it.
template <typename Number>
std::optional<Number> takeNumber(std::string_view &name) {
  Number value = 0;
  const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), value);
  if (error != std::errc() || name.starts_with('-')) return std::nullopt;
  name.remove_prefix(static_cast<size_t>(end - name.data()));
  return value;
}

// Returns the number of "<start><number>".
std::optional<int> numberAfter(std::string_view start, std::string_view name) {
  if (!name.starts_with(start)) return std::nullopt;
  name.remove_prefix(start.size());
  const std::optional<int> number = takeNumber<int>(name);
  return name.empty() ? number : std::nullopt;
}

}  // namespace

std::string workDirName(int number) {
  return std::string(kWorkDirStart) + std::to_string(number);
}

std::string rewrittenList(std::string_view list) {
  return std::string(list) + ".tmp";
}
std::string originalList(std::string_view list) {
  return std::string(list) + ".orig";
}

std::optional<int> parseWorkDirName(std::string_view name) {
  return numberAfter(kWorkDirStart, name);
}

std::string directoryIdentity(const struct stat &st) {
  return std::to_string(st.st_dev) + ":" + std::to_string(st.st_ino);
}

std::string nodeFileName(std::string_view file, int node) {
  return node == 0 ? std::string(file) : std::string(file) + "@" + std::to_string(node);
}

bool isNodeFile(std::string_view name, std::string_view file) {
  return name.size() > file.size() + 1 && name.starts_with(file) && name[file.size()] == '@';
}

std::string scanRoundName(int round) {
  return std::string(kScanDir) + "/" + std::to_string(round);
}

std::string scanPartName(const std::string &round_file, uint64_t group) {
  return round_file + "." + number(group);
}

std::string unfinishedPartName(const std::string &part, const std::string &host, int32_t pid) {
  return part + "@" + host + "." + std::to_string(pid);
}

std::string bucketName(uint64_t ino) {
  return std::string(kBucketStart) + number(ino & kBucketMask);
}
std::string tempLocationName(uint64_t ino) {
  return inBucket(ino, kAsideStart + number(ino));
}
std::string cloneDeleteLocationName(uint64_t ino) {
  return tempLocationName(ino) + ".delclone";
}
std::string destinationName(uint64_t ino) {
  return inBucket(ino, number(ino) + "_");
}
std::string newParentName(uint64_t ino) {
  return inBucket(ino, number(ino).append(kNewParentEnd));
}
std::string filesetLocationName(uint64_t id) {
  return tempLocationName(id) + ".fileset";
}
std::string filesetDestinationName(uint64_t id) {
  return destinationName(id) + ".fileset";
}

bool isBucketName(std::string_view name) {
  return name.starts_with(kBucketStart);
}

bool isAsideName(std::string_view name) {
  return name.starts_with(kAsideStart);
}

std::optional<uint64_t> parseAsideName(std::string_view name) {
  if (!isAsideName(name)) return std::nullopt;
  name.remove_prefix(1);
  return takeNumber<uint64_t>(name);
}

std::optional<uint64_t> parseNewParentName(std::string_view name) {
  const std::optional<uint64_t> ino = takeNumber<uint64_t>(name);
  return name == kNewParentEnd ? ino : std::nullopt;
}

bool parseTempPlace(std::string_view path, TempPlace *place) {
  const size_t bucket_end = path.find('/');
  if (!isBucketName(path) || bucket_end == std::string_view::npos) return false;
  path.remove_prefix(bucket_end + 1);
  const std::string_view object = path.substr(0, path.find('/'));
  const std::optional<uint64_t> ino = parseAsideName(object);
  if (!ino) return false;
  path.remove_prefix(object.size());
  if (!path.empty()) path.remove_prefix(1);
  *place = {*ino, path};
  return true;
}

std::string dirSetName(uint64_t ino, bool deleted) {
  return std::string(deleted ? kDeletedSetStart : kNewSetStart) + number(ino);
}
std::string dirSetPolicyName(const std::string &set) {
  return set + "/" + kPolicy;
}
bool isDirSetName(std::string_view name) {
  return name.starts_with(kDeletedSetStart) || name.starts_with(kNewSetStart);
}
std::string dirSetListName(uint64_t ino, bool deleted, int depth) {
  return dirSetName(ino, deleted) + "/" + std::to_string(depth);
}
std::string dirSetMoveListName(uint64_t ino, bool deleted, int depth) {
  return dirSetListName(ino, deleted, depth).append(kMoveListEnd);
}

std::optional<int> parseDirSetList(std::string_view name) {
  const std::optional<int> depth = takeNumber<int>(name);
  return name.empty() || name == kMoveListEnd ? depth : std::nullopt;
}

std::string cloneListName(int depth) {
  return std::string(kCloneListStart) + std::to_string(depth);
}
std::string cloneDeleteListName(int depth) {
  return std::string(kCloneDeleteListStart) + std::to_string(depth);
}
std::optional<int> parseCloneList(std::string_view name) {
  return numberAfter(kCloneListStart, name);
}
std::optional<int> parseCloneDeleteList(std::string_view name) {
  return numberAfter(kCloneDeleteListStart, name);
}

std::string checkpointName(int32_t caller_pid, const std::string &host, int32_t pid) {
  return std::string(kCheckpointDir) + "/" + checkpointPrefix(caller_pid) + host + "." +
         std::to_string(pid);
}
std::string checkpointPrefix(int32_t caller_pid) {
  return "checkpoint." + std::to_string(caller_pid) + ".";
}

std::string batchName(int32_t engine_pid, uint64_t number, int attempt) {
  const std::string name = "ktapplypolicy." + std::to_string(engine_pid) + "." + std::to_string(number);
  return attempt == 0 ? name : name + "." + std::to_string(attempt);
}
