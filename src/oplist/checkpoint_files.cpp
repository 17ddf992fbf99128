#include "oplist/checkpoint_files.h"

#include <cerrno>
#include <cstring>

#include "run/trace_log.h"
#include "run/work_access.h"
#include "run/work_dir.h"

int findCheckpointFiles(int32_t pid, std::vector<std::string> *paths) {
  const std::string prefix = checkpointPrefix(pid);
  const std::string dir_path = workPath(kCheckpointDir);
  const Dir dir = openWorkList(dir_path);
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
