#include "front/users.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <memory>

#include "base/file_io.h"
#include "base/unique_fd.h"

namespace front {

namespace {

struct DirCloser {
  void operator()(DIR *dir) const { closedir(dir); }
};

// Calls visit(name) for every entry until it returns true; returns whether it did.
template <typename Visit>
bool anyEntry(const std::string &path, Visit visit) {
  const std::unique_ptr<DIR, DirCloser> dir(opendir(path.c_str()));
  if (!dir) return false;
  while (const dirent *entry = readdir(dir.get()))
    if (entry->d_name[0] != '.' && visit(std::string(entry->d_name))) return true;
  return false;
}

// AT_STATX_DONT_SYNC: never wait for a server that is away. What lies on another machine is not on this
// file system.
bool liesOn(const std::string &path, dev_t device, const std::string &below) {
  struct statx status;
  if (statx(AT_FDCWD, path.c_str(), AT_NO_AUTOMOUNT | AT_STATX_DONT_SYNC, STATX_TYPE, &status) != 0)
    return false;
  if (makedev(status.stx_dev_major, status.stx_dev_minor) != device) return false;
  if (below.empty()) return true;
  std::error_code error;
  const std::string target = std::filesystem::read_symlink(path, error);
  return target == below || target.starts_with(below + "/");
}

bool uses(const std::string &process, dev_t device, const std::string &below) {
  for (const char *link : {"/cwd", "/root", "/exe"})
    if (liesOn(process + link, device, below)) return true;
  for (const char *folder : {"/fd", "/map_files"})
    if (anyEntry(process + folder, [&](const std::string &name) {
          return liesOn(process + folder + "/" + name, device, below);
        }))
      return true;
  return false;
}

std::string nameOf(const std::string &process) {
  const UniqueFd fd(open((process + "/comm").c_str(), O_RDONLY | O_CLOEXEC));
  std::string name;
  if (!fd || !readToEnd(fd.get(), &name)) return "?";
  if (name.ends_with('\n')) name.pop_back();
  return name;
}

}  // namespace

std::vector<User> findUsers(dev_t device, const std::string &below) {
  std::vector<User> users;
  anyEntry("/proc", [&](const std::string &name) {
    const pid_t pid = static_cast<pid_t>(strtol(name.c_str(), nullptr, 10));
    const std::string process = "/proc/" + name;
    if (pid > 0 && pid != getpid() && uses(process, device, below))
      users.push_back({pid, nameOf(process)});
    return false;
  });
  return users;
}

}  // namespace front
