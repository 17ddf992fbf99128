#include "filesystem/running_programs.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <cctype>
#include <memory>
#include <string>

namespace kest {

std::unordered_set<uint64_t> runningPrograms(dev_t device) {
  std::unordered_set<uint64_t> programs;
  const std::unique_ptr<DIR, int (*)(DIR *)> processes(opendir("/proc"), closedir);
  while (const dirent *entry = processes ? readdir(processes.get()) : nullptr) {
    if (isdigit(static_cast<unsigned char>(entry->d_name[0])) == 0) continue;
    struct stat st;
    const std::string program = std::string(entry->d_name) + "/exe";
    if (fstatat(dirfd(processes.get()), program.c_str(), &st, 0) == 0 && st.st_dev == device)
      programs.insert(st.st_ino);
  }
  return programs;
}

}  // namespace kest
