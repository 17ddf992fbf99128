#include "floor_list.h"

#include <cstdio>
#include <memory>

#include "tree_files.h"

namespace bench {
namespace {

using File = std::unique_ptr<FILE, decltype([](FILE *file) { fclose(file); })>;

void writePart(const auto &part, FILE *file) {
  const uint64_t count = part.size();
  if (fwrite(&count, sizeof count, 1, file) != 1 ||
      fwrite(part.data(), sizeof part[0], count, file) != count)
    fail("write the list");
}

void readPart(auto *part, FILE *file) {
  uint64_t count;
  if (fread(&count, sizeof count, 1, file) != 1) fail("read the list");
  part->resize(count);
  if (fread(part->data(), sizeof(*part)[0], count, file) != count) fail("read the list");
}

}  // namespace

void writeFloorList(const FloorList &list, const std::string &path) {
  File file(fopen(path.c_str(), "we"));
  if (!file) fail("open " + path);
  writePart(list.ops, file.get());
  writePart(list.ranges, file.get());
  writePart(list.xattrs, file.get());
  writePart(list.dirs, file.get());
  writePart(list.text, file.get());
  if (fflush(file.get()) != 0) fail("write " + path);
}

FloorList readFloorList(const std::string &path) {
  File file(fopen(path.c_str(), "re"));
  if (!file) fail("open " + path);
  FloorList list;
  readPart(&list.ops, file.get());
  readPart(&list.ranges, file.get());
  readPart(&list.xattrs, file.get());
  readPart(&list.dirs, file.get());
  readPart(&list.text, file.get());
  return list;
}

}  // namespace bench
