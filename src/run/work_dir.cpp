#include "run/work_dir.h"

#include <cerrno>

#include "run/path.h"
#include "run/settings.h"
#include "run/work_access.h"

namespace {
std::string number(uint64_t ino) {
  return std::to_string(ino);
}
std::string bucket(uint64_t ino) {
  return "MOVE_" + number(ino & 0x3FF);
}
std::string set(uint64_t ino, bool deleted) {
  return (deleted ? "DelDir_" : "NewDir_") + number(ino);
}
}  // namespace

std::string workPath(std::string_view name) {
  if (name.starts_with('/')) return std::string(name);
  std::string path = settings.shareDir;
  if (!appendPath(path, name)) path.clear();
  return path;
}

bool inWorkDir(std::string_view path) {
  const std::string &dir = settings.shareDir;
  return !dir.empty() && path.size() > dir.size() && path[dir.size()] == '/' && path.starts_with(dir);
}

int makeWorkDirectory(const std::string &path) {
  if (makeWorkSubdirectory(path, kWorkDirMode) == 0 || errno == EEXIST) return 0;
  return errno;
}

std::string bucketDir(uint64_t ino) {
  return workPath(bucket(ino));
}
std::string tempLocation(uint64_t ino) {
  return workPath(bucket(ino) + "/_" + number(ino));
}
std::string cloneDeleteLocation(uint64_t ino) {
  return workPath(bucket(ino) + "/_" + number(ino) + ".delclone");
}
std::string destinationFile(uint64_t ino) {
  return workPath(bucket(ino) + "/" + number(ino) + "_");
}
std::string newParentFile(uint64_t ino) {
  return workPath(bucket(ino) + "/" + number(ino) + ".clone.newParent");
}

std::string dirSet(uint64_t ino, bool deleted) {
  return workPath(set(ino, deleted));
}
std::string dirSetList(uint64_t ino, bool deleted, int depth) {
  return workPath(set(ino, deleted) + "/" + std::to_string(depth));
}
std::string dirSetMoveList(uint64_t ino, bool deleted, int depth) {
  return workPath(set(ino, deleted) + "/" + std::to_string(depth) + ".move");
}

std::string cloneList(int depth) {
  return workPath("clone." + std::to_string(depth));
}
std::string cloneDeleteList(int depth) {
  return workPath("clone.del." + std::to_string(depth));
}

std::string checkpointFile(int32_t caller_pid, const std::string &host, int32_t pid) {
  return workPath(std::string(kCheckpointDir) + "/" + checkpointPrefix(caller_pid) + host + "." +
                  std::to_string(pid));
}
std::string checkpointPrefix(int32_t caller_pid) {
  return "checkpoint." + std::to_string(caller_pid) + ".";
}
