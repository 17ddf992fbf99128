#include "object/open_object.h"

#include <sys/stat.h>

#include "object/paths.h"

namespace {

Result readFacts(OpenObject *object) {
  if (!object->file) return failedErrno(0);
  if (kest_ifacts(object->get(), &object->facts) == 0) return {};
  const Result r = failedErrno(0);
  object->file.reset();
  return r;
}

}  // namespace

Result openSnapshotObject(uint64_t ino, const std::string &path, OpenObject *object) {
  const Result opened = openSnapshotInode(ino, path, &object->file);
  return opened ? readFacts(object) : opened;
}

Result openAt(const std::string &path, OpenObject *object) {
  const std::string now = resolveOwnLinks(path);
  object->file.reset(kest_iopen_path(handles.activeFsP, now.c_str()));
  return readFacts(object);
}

Result openSameFile(const OpenObject &snap, OpenObject *object) {
  object->file.reset(kest_iopen_same(handles.activeFsP, snap.get()));
  return readFacts(object);
}

namespace {

// The fields that decide identity, as far as the facts contain them.
struct stat identityOf(const OpenObject &object) {
  struct stat st {};
  st.st_ino = object.get()->if_inode;
  st.st_uid = static_cast<uid_t>(object.facts.attr.ia_uid);
  st.st_nlink = static_cast<nlink_t>(object.facts.attr.ia_nlink);
  return st;
}

}  // namespace

bool isInodeOrReplacement(const OpenObject &active, const OpenObject &snap) {
  return isInodeOrReplacement(identityOf(active), snap.get()->if_inode, snap.facts.attr);
}

bool isReplacement(const OpenObject &active, const OpenObject &snap) {
  return isInodeOrReplacement(identityOf(active), 0, snap.facts.attr);
}
