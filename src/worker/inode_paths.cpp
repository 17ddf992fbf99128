#include "worker/inode_paths.h"

#include <cerrno>
#include <charconv>

#include "record/batch_line.h"
#include "run/shell_command.h"

namespace {

bool takeNumber(std::string_view &line, uint64_t *value) {
  const auto [end, error] = std::from_chars(line.data(), line.data() + line.size(), *value);
  if (error != std::errc() || end == line.data() + line.size() || *end != ' ') return false;
  line.remove_prefix(static_cast<size_t>(end - line.data()) + 1);
  return true;
}

}  // namespace

bool parseInodePaths(std::string_view output, uint64_t ino, std::vector<std::string> *paths) {
  paths->clear();
  while (!output.empty()) {
    const size_t end = output.find('\n');
    if (end == std::string_view::npos) return false;
    std::string_view line = output.substr(0, end);
    output.remove_prefix(end + 1);
    uint64_t number = 0, generation = 0;
    if (!takeNumber(line, &number) || !takeNumber(line, &generation) || number != ino || line.empty())
      return false;
    paths->push_back(decodeBatchPath(line));
  }
  return true;
}

int findInodePaths(uint64_t ino, const std::string &root, std::vector<std::string> *paths,
                   bool *started) {
  const std::string command = "/usr/qtx/kest/bin/kxfindinode -i " + std::to_string(ino) + " -- " +
                              shellWord(root) + " 2>/dev/null";
  std::string output;
  int status = 0;
  const int rc = runCommandOutput(command, &output, &status);
  *started = rc == 0 && status == 0;
  if (*started && parseInodePaths(output, ino, paths) && !paths->empty()) return 0;
  if (rc == 0) errno = EIO;
  return -1;
}
