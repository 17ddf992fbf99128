#include "verify/entry_pairs.h"

#include <dirent.h>
#include <sys/stat.h>

#include <cerrno>
#include <string_view>

#include "run/run_handles.h"

namespace {

// Reads entries by `next(entry)` until it gives none. 0 or an errno.
template <typename Next>
int addAll(Next next, bool from_snapshot, EntryPairs *pairs) {
  for (;;) {
    const kest_direntx64_t *entry = nullptr;
    if (next(&entry) != 0) return errno;
    if (!entry) return 0;
    const std::string_view name = entry->d_name;
    if (name == "." || name == "..") continue;
    const bool snapshot = from_snapshot || (entry->d_type & KEST_DT_SNAP) != 0;
    const bool junction = (entry->d_flags & (KEST_DF_JUNCTION | KEST_DF_JUNCTION2)) != 0;
    if (snapshot && junction) continue;
    EntryPair &pair = (*pairs)[std::string(name)];
    (snapshot ? pair.snapshot : pair.active) =
        Entry{entry->d_ino, static_cast<uint32_t>(DTTOIF(entry->d_type & ~KEST_DT_SNAP)), junction};
  }
}

}  // namespace

int addListing(kest_fssnap_handle_t *tree, uint64_t ino, EntryPairs *pairs) {
  const Inode dir = openInode(tree, ino);
  if (!dir) return errno;
  return addAll([&](const kest_direntx64_t **entry) { return kest_ireaddir64(dir.get(), entry); },
                tree == handles.oldFsP, pairs);
}

int addChangedEntries(uint64_t ino, EntryPairs *pairs) {
  const Inode dir = openInode(handles.activeFsP, ino);
  if (!dir) return errno;
  return addAll(
      [&](const kest_direntx64_t **entry) {
        return kest_ireaddirx64(dir.get(), handles.iscanP, entry);
      },
      false, pairs);
}

int addCommonEntries(uint64_t ino, EntryPairs *pairs) {
  const Inode dir = openInode(handles.activeFsP, ino);
  if (!dir) return errno;
  EntryPairs leading;
  const int rc = addAll(
      [&](const kest_direntx64_t **entry) {
        return kest_ireaddirc64(dir.get(), handles.iscanP, entry);
      },
      false, &leading);
  for (auto &[name, pair] : leading) {
    if (!pair.active->junction) pair.snapshot = pair.active;
    pairs->emplace(name, pair);
  }
  return rc;
}
