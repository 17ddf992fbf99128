#include "platform/kest_reader.h"

#include <algorithm>
#include <stdexcept>

namespace kesttest {

namespace {

[[noreturn]] void fail(const std::string &step) {
  throw std::runtime_error(step + ": " + kest_error_text());
}

void add(std::string *text, const std::string &word) {
  if (!text->empty()) *text += ' ';
  *text += word;
}

std::string ranges(kest_ifile_t *file, kest_iscan_t *scan, int64_t term) {
  std::string text;
  int64_t offset = 0, length;
  int hole;
  while ((length = kest_ireadx(file, scan, nullptr, 0, &offset, term, &hole)) > 0) {
    add(&text, std::to_string(offset) + "+" + std::to_string(length) + (hole ? "(hole)" : ""));
    offset += length;
  }
  if (length < 0) fail("kest_ireadx");
  return text;
}

template <typename Call>
std::string entriesBy(Call call, const char *name, const Handle &active, const Scan &scan,
                      uint64_t ino) {
  Inode dir = openInode(active, ino);
  std::string text;
  const kest_direntx64_t *entry;
  int rc;
  while ((rc = call(dir.get(), scan.get(), &entry)) == 0 && entry != nullptr)
    add(&text, std::string(entry->d_name) + ((entry->d_type & KEST_DT_SNAP) ? "@snap" : "") +
                   ((entry->d_flags & KEST_DF_JUNCTION) ? "=" + std::to_string(entry->d_ino) : ""));
  if (rc < 0) fail(name);
  return text;
}

}  // namespace

Handle openHandle(const std::string &device, const std::string &fileset, const char *snapshot) {
  Handle handle(kest_get_fset_snaphandle_by_name(device.c_str(), fileset.c_str(), snapshot));
  if (handle == nullptr) fail("open " + fileset + " " + (snapshot ? snapshot : ""));
  return handle;
}

Scan openDifference(const Handle &active, const Handle &snapshot, uint64_t *max_ino) {
  kest_snapid_t id;
  kest_get_fssnapid_from_fssnaphandle(snapshot.get(), &id);
  Scan scan(kest_open_inodescan64(active.get(), &id, max_ino));
  if (scan == nullptr) fail("open difference");
  return scan;
}

Scan openFull(const Handle &handle, uint64_t *max_ino) {
  Scan scan(kest_open_inodescan64(handle.get(), nullptr, max_ino));
  if (scan == nullptr) fail("open full scan");
  return scan;
}

Inode openInode(const Handle &handle, uint64_t ino) {
  Inode file(kest_iopen64(handle.get(), ino, 0, nullptr, nullptr));
  if (file == nullptr) fail("open inode " + std::to_string(ino));
  return file;
}

std::string inodesOf(const Scan &scan) {
  std::string text;
  const kest_iattr64_t *attr;
  int rc;
  while ((rc = kest_next_inode64(scan.get(), UINT64_MAX, &attr)) == 0 && attr != nullptr)
    add(&text, (attr->ia_nlink == 0 ? "-" : "") + std::to_string(attr->ia_inode));
  if (rc < 0) fail("kest_next_inode64");
  return text;
}

std::string changedEntries(const Handle &active, const Scan &scan, uint64_t ino) {
  return entriesBy(kest_ireaddirx64, "kest_ireaddirx64", active, scan, ino);
}

std::string leadingEntries(const Handle &active, const Scan &scan, uint64_t ino) {
  return entriesBy(kest_ireaddirc64, "kest_ireaddirc64", active, scan, ino);
}

std::string listing(const Handle &handle, uint64_t ino) {
  Inode dir = openInode(handle, ino);
  std::vector<std::string> names;
  const kest_direntx64_t *entry;
  int rc;
  while ((rc = kest_ireaddir64(dir.get(), &entry)) == 0 && entry != nullptr) {
    std::string name = entry->d_name;
    if (name == "." || name == "..") continue;
    names.push_back(name +
                    ((entry->d_flags & KEST_DF_JUNCTION) ? "=" + std::to_string(entry->d_ino) : ""));
  }
  if (rc < 0) fail("kest_ireaddir64");
  std::sort(names.begin(), names.end());
  std::string text;
  for (const std::string &name : names) add(&text, name);
  return text;
}

std::string changedRanges(const Handle &active, const Scan &scan, uint64_t ino, int64_t term) {
  return ranges(openInode(active, ino).get(), scan.get(), term);
}

std::string stretches(const Handle &handle, const Scan &full, uint64_t ino) {
  return ranges(openInode(handle, ino).get(), full.get(), 0);
}

}  // namespace kesttest
