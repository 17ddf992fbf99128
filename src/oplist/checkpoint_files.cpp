#include "oplist/checkpoint_files.h"

#include <dirent.h>
#include <cerrno>
#include <cstring>
#include <memory>

#include "run/trace_log.h"
#include "run/work_dir.h"

namespace {
struct DirCloser {
  void operator()(DIR *dir) const { closedir(dir); }
};
}  // namespace

int findCheckpointFiles(int32_t pid, std::vector<std::string> *paths) {
  const std::string prefix = checkpointPrefix(pid);
  const std::string dir_path = workPath(kCheckpointDir);
  const std::unique_ptr<DIR, DirCloser> dir(opendir(dir_path.c_str()));
  if (!dir) {
    const int err = errno;
    traceLog("couldn't open checkpoint dir %s\n", dir_path.c_str());
    return err;
  }
  for (errno = 0; const dirent *entry = readdir(dir.get()); errno = 0)
    if (strncmp(entry->d_name, prefix.c_str(), prefix.size()) == 0)
      paths->push_back(dir_path + "/" + entry->d_name);
  return errno;
}
