#include "object/name_calls.h"

#include <cerrno>

#include "kest.h"
#include "object/flags.h"
#include "object/paths.h"
#include "run/path.h"
#include "run/run_handles.h"

namespace {

// Until its owner is set, a new file belongs to root and to the group of root, or of its directory. So
// it gets at once only what is safe with any owner, for good if the worker dies in between: a
// set-user-ID bit would make it a root program; and who is neither its owner nor in its group by then
// may do with it what everybody may. An access control list, which comes later, can deny somebody what
// the mode allows.
mode_t modeAtBirth(const kest_facts_t &wanted) {
  constexpr mode_t kSpecialBits = 07000, kPermissions = 0777, kOwnerAlone = 0600;
  const mode_t mode = wanted.attr.ia_mode;
  const mode_t owner = (mode >> 6) & 7, group = (mode >> 3) & 7, others = mode & 7;
  const bool safe = (mode & kSpecialBits) == 0 && (wanted.has & KEST_HAS_ACL) == 0 && group == others &&
                    (others & ~owner) == 0;
  return safe ? mode & kPermissions : kOwnerAlone;
}

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

Result moveFilesetAside(const std::string &from, const std::string &to, uint64_t id) {
  std::string parent = from;
  cutPath(parent);
  return retryClearing(parent, "", [&] {
    return called(kest_move_junction(handles.activeFsP, Now(from), Now(to), id));
  });
}

// There is nothing at `to` whose flags could be cleared: the clearing begins above it.
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
