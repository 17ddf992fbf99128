// Lists open directories entry by entry.
#include <cerrno>

#include <sys/stat.h>

#include "libkest/c_call.h"
#include "libkest/open_file.h"
#include "libkest/scan.h"

namespace kest {
namespace {

// Runs next(directory, entry), which sets *entry, and returns its result in the form of the C
// interface.
template <typename Next>
int nextEntry(kest_ifile_t *dir, const kest_direntx64_t **entry, Next next) {
  return cCall([&] {
    if (entry == nullptr) return -EINVAL;
    *entry = nullptr;
    OpenFile *open = openFile(dir);
    if (open == nullptr || !S_ISDIR(dir->if_mode)) return -ENOTDIR;
    return next(open);
  });
}

}  // namespace
}  // namespace kest

using namespace kest;

extern "C" int kest_ireaddir64(kest_ifile_t *dir, const kest_direntx64_t **entry) {
  return nextEntry(dir, entry, [&](OpenFile *file) {
    if (!file->listed) {
      int rc = file->inode->listEntries(&file->entries);
      if (rc < 0) return rc;
      file->listed = true;
    }
    *entry = file->entries.next();
    return 0;
  });
}

extern "C" int kest_ireaddirx64(kest_ifile_t *dir, kest_iscan_t *scan, const kest_direntx64_t **entry) {
  return nextEntry(dir, entry, [&](OpenFile *file) {
    if (scan == nullptr || scan->difference == nullptr) return -EINVAL;
    if (!file->compared) {
      Difference *difference;
      int rc = differenceOf(scan, &difference);
      if (rc == 0) rc = difference->listChanged(*file->inode, &file->changed);
      if (rc < 0) return rc;
      file->compared = true;
    }
    *entry = file->changed.next();
    return 0;
  });
}

extern "C" int kest_ireaddirc64(kest_ifile_t *dir, kest_iscan_t *scan, const kest_direntx64_t **entry) {
  return nextEntry(dir, entry, [&](OpenFile *file) {
    if (scan == nullptr || scan->difference == nullptr) return -EINVAL;
    if (file->leads == nullptr) {
      Difference *difference;
      int rc = differenceOf(scan, &difference);
      if (rc < 0) return rc;
      file->leads = difference->leadingEntries(*file->inode);
    }
    return file->leads->next(entry);
  });
}
