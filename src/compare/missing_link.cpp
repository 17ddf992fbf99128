#include "compare/missing_link.h"

#include "oplist/clone_lists.h"
#include "oplist/link_list.h"
#include "run/run_handles.h"

int listMissingLink(const std::string &path, uint64_t ino, bool *alsoDeleted) {
  *alsoDeleted = false;
  if (int rc = listLink(path, ino)) return rc;
  Inode snap = openInode(handles.oldFsP, ino);
  if (!snap) return -1;
  *alsoDeleted = isClone(snap.get(), nullptr, nullptr) && firstCloneListing(ino);
  return 0;
}
