#include "fsetcompare/entry_pairs.h"

#include <dirent.h>
#include <sys/stat.h>

#include <functional>
#include <string_view>

#include "run/run_handles.h"

namespace {

// Gives the next entry, or null at the end. rc of a failure is the errno.
using Next = std::function<Result(const kest_direntx64_t **entry)>;

// Reads entries until `next` gives none.
Result addAll(const Next &next, bool from_snapshot, EntryPairs *pairs) {
  for (;;) {
    const kest_direntx64_t *entry = nullptr;
    if (Result r = next(&entry); !r || !entry) return r;
    const std::string_view name = entry->d_name;
    if (name == "." || name == "..") continue;
    const bool snapshot = from_snapshot || (entry->d_type & KEST_DT_SNAP) != 0;
    const bool junction = (entry->d_flags & (KEST_DF_JUNCTION | KEST_DF_JUNCTION2)) != 0;
    EntryPair &pair = (*pairs)[std::string(name)];
    // A nested subvolume shows as an empty directory in the snapshot; it is no entry of its own there.
    if (snapshot && junction) {
      pair.nested = entry->d_ino;
      continue;
    }
    (snapshot ? pair.snapshot : pair.active) =
        Entry{entry->d_ino, static_cast<uint32_t>(DTTOIF(entry->d_type & ~KEST_DT_SNAP)), junction};
  }
}

}  // namespace

Result addListing(kest_fssnap_handle_t *tree, uint64_t ino, EntryPairs *pairs) {
  Inode dir;
  if (Result r = openInode(tree, ino, &dir); !r) return r;
  const auto next = [&](const kest_direntx64_t **entry) {
    return called(kest_ireaddir64(dir.get(), entry));
  };
  return addAll(next, tree == handles.oldFsP, pairs);
}

Result addChangedEntries(uint64_t ino, EntryPairs *pairs) {
  Inode dir;
  if (Result r = openInode(handles.activeFsP, ino, &dir); !r) return r;
  const auto next = [&](const kest_direntx64_t **entry) {
    return called(kest_ireaddirx64(dir.get(), handles.iscanP, entry));
  };
  return addAll(next, false, pairs);
}

Result addCommonEntries(uint64_t ino, EntryPairs *pairs) {
  Inode dir;
  if (Result r = openInode(handles.activeFsP, ino, &dir); !r) return r;
  const auto next = [&](const kest_direntx64_t **entry) {
    return called(kest_ireaddirc64(dir.get(), handles.iscanP, entry));
  };
  EntryPairs leading;
  const Result result = addAll(next, false, &leading);
  for (auto &[name, pair] : leading) {
    if (!pair.active->junction) pair.snapshot = pair.active;
    pairs->emplace(name, pair);
  }
  return result;
}
