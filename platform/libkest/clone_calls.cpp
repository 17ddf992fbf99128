// Clones and clone parents; see the contracts in kest.h.
#include <algorithm>
#include <cerrno>
#include <memory>

#include <sys/stat.h>

#include "filesystem/clone_attribute.h"
#include "libkest/kept_attributes.h"
#include "libkest/open_file.h"
#include "libkest/path_resolution.h"

namespace kest {
namespace {

int makeClone(const Place &place, Inode &parent) {
  return outcome(place.dir->makeClone(place.leaf, parent), {takingDirectory(place)});
}

int setParentNumber(OpenFile *file, uint64_t parent) {
  Inode &inode = *file->inode;
  CloneAttribute attribute;
  if (!S_ISREG(file->if_mode)) return -EINVAL;
  int rc = readCloneAttribute(inode, &attribute);
  if (rc < 0) return rc;
  if (rc == 0 || attribute.depth() == 0) return -EINVAL;
  if (attribute.parent() == parent) return 0;
  attribute.setParent(parent);

  Protection protection;
  rc = inode.readProtection(&protection);
  // A clone parent gets its flag in any case, because another process may have cleared it for a moment.
  if (rc == 0 && attribute.isParent()) protection.immutable = true;
  if (rc != 0) return rc;
  if (!protection.any()) return writeCloneAttribute(inode, attribute);
  LiftedFlags lifted(inode);
  rc = lifted.lift(protection);
  if (rc == 0) rc = writeCloneAttribute(inode, attribute);
  const int set = lifted.setAgain();
  return rc != 0 ? rc : set;
}

}  // namespace
}  // namespace kest

using namespace kest;

extern "C" {

int kest_clone_snap(const char *path, const char *) {
  return onPath(nullptr, path, [](const Place &place) {
    std::unique_ptr<Inode> object;
    struct stat st;
    int rc = place.dir->openObject(place.leaf, &object, &st);
    return rc == 0 ? object->makeCloneParent() : rc;
  });
}

int kest_clone_copy(const char *parent_path, const char *path) {
  return onTwoPaths(nullptr, parent_path, path, [](const Place &parent, const Place &place) {
    std::unique_ptr<Inode> object;
    struct stat st;
    int rc = parent.dir->openObject(parent.leaf, &object, &st);
    return rc == 0 ? makeClone(place, *object) : rc;
  });
}

int kest_iclone_snap(kest_ifile_t *file) {
  return cCall([=] {
    OpenFile *open = openFile(file);
    return open == nullptr ? -EINVAL : open->inode->makeCloneParent();
  });
}

int kest_iclone_copy(kest_ifile_t *parent, kest_fssnap_handle_t *active, const char *path) {
  return onPath(active, path, [=](const Place &place) {
    OpenFile *open = openFile(parent);
    return open == nullptr ? -EINVAL : makeClone(place, *open->inode);
  });
}

int kest_iclone_attr(kest_ifile_t *file, uint8_t clone[16], uint8_t clone_snap[8]) {
  return cCall([&] {
    OpenFile *open = openFile(file);
    if (open == nullptr) return -EINVAL;
    if (!S_ISREG(file->if_mode)) return 0;
    CloneAttribute attribute;
    int rc = readCloneAttribute(*open->inode, &attribute);
    if (rc <= 0) return rc;
    if (clone != nullptr) std::copy(attribute.clone.begin(), attribute.clone.end(), clone);
    if (clone_snap != nullptr)
      std::copy(attribute.clone_snap.begin(), attribute.clone_snap.end(), clone_snap);
    return 1;
  });
}

int kest_iset_clone_parent(kest_ifile_t *file, uint64_t parent) {
  return cCall([&] {
    OpenFile *open = openFile(file);
    return open == nullptr ? -EINVAL : setParentNumber(open, parent);
  });
}

}  // extern "C"
