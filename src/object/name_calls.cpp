#include "object/name_calls.h"

#include <cerrno>

#include "kest.h"
#include "object/flags.h"
#include "object/paths.h"
#include "run/path.h"
#include "run/run_handles.h"

namespace {

// A new file first belongs to root, and to the group of root or of its directory. If the worker dies
// before chown, it stays so. Grant the final mode at once only if it is safe under any owner: no set-ID
// bits, equal rights for group and others, and none that the owner lacks. An ACL can deny rights that
// the mode grants, so a file that gets one starts as 0600, too.
mode_t modeAtBirth(const kest_facts_t &wanted) {
  constexpr mode_t kSpecialBits = 07000, kPermissions = 0777, kOwnerAlone = 0600;
  const mode_t mode = wanted.attr.ia_mode;
  const mode_t owner = (mode >> 6) & 7, group = (mode >> 3) & 7, others = mode & 7;
  const bool safe = (mode & kSpecialBits) == 0 && (wanted.has & KEST_HAS_ACL) == 0 && group == others &&
                    (others & ~owner) == 0;
  return safe ? mode & kPermissions : kOwnerAlone;
}

// The path at which the library finds `path` now. Every attempt resolves it again, because a directory
// can go home while flags are being cleared.
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

Result carriesClone(const std::string &path, bool *carries) {
  const int rc = kest_carries_clone(handles.activeFsP, Now(path));
  *carries = rc > 0;
  return rc < 0 ? failedErrno(0) : Result{};
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

Result moveFilesetAside(const std::string &from, const std::string &to, uint64_t id) {
  std::string parent = from;
  cutPath(parent);
  return retryClearing(parent, "", [&] {
    return called(kest_move_junction(handles.activeFsP, Now(from), Now(to), id));
  });
}

// Nothing exists at `to`, so clearing skips it and begins with its parent.
Result moveFilesetHome(const std::string &from, const std::string &to, uint64_t id) {
  return retryClearing(
      to, "", [&] { return called(kest_move_junction(handles.activeFsP, Now(from), Now(to), id)); });
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

Result createFile(const std::string &path, const kest_facts_t &wanted, OpenObject *file) {
  return retryClearing(path, "", [&] {
    file->file.reset(kest_icreate(handles.activeFsP, Now(path), modeAtBirth(wanted)));
    return *file && kest_ifacts(file->get(), &file->facts) == 0 ? Result{} : failedErrno(0);
  });
}
