#include "detect/ceph_plugin.h"

#include <dlfcn.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/vfs.h>
#include <cerrno>
#include <vector>

#include "base/mount_type.h"
#include "cephfs/plugin.h"
#include "filesystem/error_text.h"
#include "filesystem/mount_table.h"

namespace kest {

namespace {

constexpr long kCephMagic = 0x00c36400, kFuseMagic = 0x65735546;
constexpr char kLibrary[] = "libkest-cephfs.so";

// Returns the folder, with a slash, of the file that contains this code: the library or a command.
std::string folderOfThis() {
  Dl_info self;
  if (dladdr(reinterpret_cast<void *>(&isOnCephFs), &self) == 0 || self.dli_fname == nullptr) return "";
  const std::string file = self.dli_fname;
  const size_t slash = file.rfind('/');
  return slash == file.npos ? "" : file.substr(0, slash + 1);
}

CephPluginOpen load() {
  const std::string folder = folderOfThis();
  std::vector<std::string> places;
  if (!folder.empty()) places = {folder + kLibrary, folder + "../lib/" + kLibrary};
  places.push_back(kLibrary);
  std::string why;
  for (const std::string &place : places) {
    // It is never unloaded, because its threads run until the process ends.
    void *library = dlopen(place.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
    if (library != nullptr) {
      void *entry = dlsym(library, kCephPluginEntry);
      if (entry != nullptr) return reinterpret_cast<CephPluginOpen>(entry);
    }
    const char *reason = dlerror();
    if (why.empty() || place == kLibrary) why = reason != nullptr ? reason : "";
  }
  setErrorText("the library for CephFS (package fsetrestore-cephfs) cannot be loaded: " + why);
  return nullptr;
}

}  // namespace

bool isOnCephFs(const std::string &path) {
  struct statfs fs;
  struct stat st;
  if (statfs(path.c_str(), &fs) != 0) return false;
  if (fs.f_type == kCephMagic) return true;
  if (fs.f_type != kFuseMagic || stat(path.c_str(), &st) != 0) return false;
  std::vector<Mount> mounts;
  if (readMounts(&mounts) < 0) return false;
  for (const Mount &one : mounts)
    if (makedev(one.major_no, one.minor_no) == st.st_dev && isCephFsType(one.type)) return true;
  return false;
}

int openWithCephPlugin(const std::string &device, std::unique_ptr<FileSystem> *fs) {
  static const CephPluginOpen open = load();
  if (open == nullptr) {
    if (errorText().empty())
      setErrorText("the library for CephFS (package fsetrestore-cephfs) cannot be loaded");
    return -ENODEV;
  }
  return open(device, setErrorText, fs);
}

}  // namespace kest
