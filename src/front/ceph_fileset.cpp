#include "front/ceph_fileset.h"

#include <dirent.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/vfs.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <filesystem>
#include <memory>
#include <optional>

#include "base/fd_path.h"
#include "base/mount_type.h"
#include "formats/program_names.h"
#include "formats/shell_words.h"
#include "front/ceph_store.h"
#include "front/mount_lines.h"
#include "front/program.h"
#include "front/text.h"
#include "front/trouble.h"
#include "messages/front_texts.h"

namespace front {

namespace {

constexpr auto kCephMagic = 0x00c36400, kFuseMagic = 0x65735546;
constexpr ino_t kRootInode = 1;  // of every CephFS

struct DirCloser {
  void operator()(DIR *dir) const { closedir(dir); }
};

// Opens a directory of the file system `device`.
UniqueFd openDirectory(const std::string &path, dev_t device) {
  UniqueFd fd(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NONBLOCK | O_CLOEXEC));
  struct stat status;
  if (!fd || fstat(fd.get(), &status) != 0 || status.st_dev != device) return UniqueFd();
  return fd;
}

bool hasSnapshots(int directory) {
  UniqueFd folder(openat(directory, kSnapFolder, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  const std::unique_ptr<DIR, DirCloser> entries(folder ? fdopendir(folder.get()) : nullptr);
  if (!entries) return false;
  folder.release();
  while (const dirent *entry = readdir(entries.get())) {
    const std::string name = entry->d_name;
    if (name != "." && name != ".." && !isSnapshotFromAbove(name)) return true;
  }
  return false;
}

// Returns the path without its last component; "" if nothing is left.
std::string parentOf(const std::string &path) {
  return path.substr(0, path.rfind('/') == std::string::npos ? 0 : path.rfind('/'));
}

// The directory that the user's path means, below a mount.
struct Found {
  MountLine mount;
  std::string below;  // path below the root of that mount's file system; "" for the root
  std::string path;   // path on this machine
  UniqueFd fd;
};

// Finds the fileset from the kernel's path of an object upwards. The path of a deleted object ends with
// " (deleted)", and another directory may have that name; the search then begins with the one above.
Found searchUpwards(const MountLine &mount, std::string path, const struct stat &object) {
  struct stat status;
  if (!S_ISDIR(object.st_mode) || stat(path.c_str(), &status) != 0 || status.st_ino != object.st_ino)
    path = parentOf(path);
  const std::string point = mount.point == "/" ? "" : mount.point;
  if (const size_t snap = (path + "/").find(std::string("/") + kSnapFolder + "/", point.size());
      snap != std::string::npos)
    path.resize(snap);
  std::optional<Found> nearest;
  for (; path.size() > point.size() && path.starts_with(point + "/"); path = parentOf(path)) {
    Found found{mount, path.substr(point.size() + 1), path, openDirectory(path, object.st_dev)};
    if (!found.fd) continue;
    if (hasSnapshots(found.fd.get())) return found;
    if (!nearest) nearest = std::move(found);
  }
  if (!nearest) throw Trouble(frontText(FrontText::kRootOfCephFs, shown(mount.point)));
  return std::move(*nearest);
}

// Returns the field of ktlsfileset's answer, which is a line of names and a line of values.
std::string fieldOf(const std::string &answer, const std::string &wanted) {
  const auto fields = [](std::string line) {
    std::vector<std::string> all;
    line += ':';
    for (size_t at = 0; at < line.size(); at = line.find(':', at) + 1)
      all.push_back(line.substr(at, line.find(':', at) - at));
    return all;
  };
  const size_t end = answer.find('\n');
  if (end == std::string::npos) return "";
  const auto names = fields(answer.substr(0, end));
  const auto values = fields(answer.substr(end + 1, answer.find('\n', end + 1) - end - 1));
  const auto place = static_cast<size_t>(std::find(names.begin(), names.end(), wanted) - names.begin());
  if (place >= values.size()) return "";
  std::string text;
  for (size_t at = 0; at < values[place].size(); ++at) {
    const char *code = values[place].data() + at;
    unsigned byte = 0;
    if (*code == '%' && std::from_chars(code + 1, code + 3, byte, 16).ptr == code + 3) {
      text += static_cast<char>(byte);
      at += 2;
    } else {
      text += *code;
    }
  }
  return text;
}

// Asks ktlsfileset about the directory of this name. Throws Trouble with its reason if there is none.
std::string describe(const MountLine &mount, const std::string &name) {
  std::string answer;
  Program program({std::string(kProgramDir) + "ktlsfileset", mount.point, name, "-Y"},
                  Program::Capture::kBoth);
  for (bool ended = false; !ended;) answer += program.read(-1, &ended);
  if (program.wait() != 0) throw Trouble(shown(answer.substr(0, answer.find('\n'))));
  // The libraries of Ceph can print lines before it.
  return answer.substr(std::min(answer.find("record:"), answer.size()));
}

// Finds a directory that the user named by its path in the file system.
Fileset namedFileset(const Place &place, const MountLine &mount, dev_t device) {
  const std::string answer = describe(mount, place.fileset);
  Fileset fileset;
  fileset.path = fieldOf(answer, "fileset");
  fileset.root_path = fieldOf(answer, "path");
  if (fileset.path == "/") throw Trouble(frontText(FrontText::kRootOfCephFs, shown(mount.point)));
  fileset.root = openDirectory(fileset.root_path, device);
  if (!fileset.root) throw Trouble(frontText(FrontText::kNotVisible, shown(fileset.name())));
  return fileset;
}

}  // namespace

bool isOnCephFs(int fd) {
  struct statfs figures;
  struct stat status;
  if (fstatfs(fd, &figures) != 0) return false;
  if (figures.f_type == kCephMagic) return true;
  if (figures.f_type != kFuseMagic || fstat(fd, &status) != 0) return false;
  const std::vector<MountLine> mounts = allMounts();
  return std::any_of(mounts.begin(), mounts.end(), [&](const MountLine &mount) {
    return isCephFsType(mount.type) && mount.device == status.st_dev;
  });
}

Fileset findCephFileset(const Place &place) {
  const UniqueFd object(open(place.path.c_str(), O_PATH | O_CLOEXEC));
  struct statx more;
  struct stat status;
  if (!object || fstat(object.get(), &status) != 0 ||
      statx(object.get(), "", AT_EMPTY_PATH, STATX_MNT_ID, &more) != 0)
    throw Trouble(frontText(FrontText::kCannotRead, shown(place.path), strerror(errno)));
  std::error_code error;
  const std::string path = std::filesystem::read_symlink(FdPath(object.get()).get(), error);
  if (error) throw Trouble(frontText(FrontText::kCannotRead, shown(place.path), error.message()));
  if (!S_ISDIR(status.st_mode) && !S_ISREG(status.st_mode))
    throw Trouble(frontText(FrontText::kNoDirectory, shown(place.path)));
  std::vector<MountLine> mounts = allMounts();
  std::erase_if(mounts, [&](const MountLine &mount) {
    return !isCephFsType(mount.type) || mount.device != status.st_dev;
  });
  const auto line = std::find_if(mounts.begin(), mounts.end(),
                                 [&](const MountLine &mount) { return mount.id == more.stx_mnt_id; });
  if (line == mounts.end())
    throw Trouble(frontText(FrontText::kCannotRead, shown(place.path), strerror(ENODEV)));
  Fileset fileset;
  if (!place.fileset.empty()) {
    fileset = namedFileset(place, *line, status.st_dev);
  } else {
    Found found = searchUpwards(*line, path, status);
    fileset.path = (line->root.empty() ? "" : line->root + "/") + found.below;
    fileset.root_path = found.path;
    fileset.root = std::move(found.fd);
  }
  fileset.store = &cephStore();
  fileset.device = line->point;
  fileset.named = shellWord(fileset.root_path);
  fileset.own_device = false;
  fileset.device_number = status.st_dev;
  if (fstat(fileset.root.get(), &status) != 0)
    throw Trouble(frontText(FrontText::kCannotRead, shown(fileset.root_path), strerror(errno)));
  fileset.id = status.st_ino;
  // A mount may show a part of the file system only, in which the same path leads elsewhere.
  if (place.fileset.empty() &&
      fieldOf(describe(*line, fileset.path), "id") != std::to_string(fileset.id))
    throw Trouble(frontText(FrontText::kPartOfCephFs, shown(line->point)));
  for (const MountLine &mount : mounts) {
    const std::string whole = placeIn(mount, fileset.path), &seen = whole.empty() ? mount.point : whole;
    struct stat there;
    if (stat(seen.c_str(), &there) != 0 || there.st_dev != status.st_dev) continue;
    if (whole.empty() ? mount.root.starts_with(fileset.path + "/") : there.st_ino == status.st_ino)
      fileset.mounts.push_back(seen);
  }
  return fileset;
}

}  // namespace front
