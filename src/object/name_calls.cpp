#include "object/name_calls.h"

#include <cerrno>

#include "kest.h"
#include "object/flags.h"
#include "object/paths.h"
#include "run/run_handles.h"

namespace {

// Where the library is to find `path` now. Resolved anew for every attempt: while flags are cleared,
// another directory may go home.
class Now {
 public:
  explicit Now(const std::string &path) : path_(resolveOwnLinks(path)) {}
  operator const char *() const { return path_.c_str(); }

 private:
  std::string path_;
};

}  // namespace

Result unlinkName(const std::string &path, uint64_t ino, bool *clearing_failed) {
  return retryClearing(
      path, "", [&] { return called(kest_unlink(handles.activeFsP, Now(path), ino)); },
      clearing_failed);
}

Result removeEmptyDir(const std::string &path, uint64_t ino) {
  return retryClearing(path, "", [&] { return called(kest_rmdir(handles.activeFsP, Now(path), ino)); });
}

Result renameAside(const std::string &from, const std::string &to, uint64_t ino) {
  return retryClearing(from, "", [&] {
    return called(kest_rename_noreplace(handles.activeFsP, Now(from), Now(to), ino));
  });
}

Result renameBack(const std::string &from, const std::string &to) {
  return retryClearing(from, to, [&] {
    return called(kest_rename_noreplace(handles.activeFsP, Now(from), Now(to), 0));
  });
}

Result linkName(const std::string &from, const std::string &to, uint64_t ino) {
  return retryClearing(to, from,
                       [&] { return called(kest_link(handles.activeFsP, Now(from), Now(to), ino)); });
}

Result truncatePath(const std::string &path, int64_t size, uint64_t ino, bool *clearing_failed) {
  return retryClearing(
      path, "", [&] { return called(kest_truncate(handles.activeFsP, Now(path), size, ino)); },
      clearing_failed);
}

Result makeDir(const std::string &path, mode_t mode) {
  return retryClearing(path, "",
                       [&] { return called(kest_mkdir(handles.activeFsP, Now(path), mode & 07777)); });
}

Result makeSymlink(const std::string &target, const std::string &path) {
  return retryClearing(
      path, "", [&] { return called(kest_symlink(handles.activeFsP, target.c_str(), Now(path))); });
}

Result leaveOwnLink(const std::string &target, const std::string &location) {
  return called(kest_symlink(handles.activeFsP, target.c_str(), location.c_str()));
}

Result makeNode(const std::string &path, mode_t mode, dev_t device) {
  return retryClearing(path, "",
                       [&] { return called(kest_mknod(handles.activeFsP, Now(path), mode, device)); });
}

// The library makes the file with mode 0600. The mode that it is to have must wait until its owner is
// set: until then the file belongs to root, and a set-user-ID bit would make it a root program, for
// good if the worker dies in between.
Result createFile(const std::string &path, OpenObject *file) {
  return retryClearing(path, "", [&] {
    file->file.reset(kest_icreate(handles.activeFsP, Now(path)));
    return *file && kest_ifacts(file->get(), &file->facts) == 0 ? Result{} : failedErrno(0);
  });
}
