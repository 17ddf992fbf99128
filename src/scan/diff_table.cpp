#include "scan/diff_table.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "run/trace_log.h"
#include "run/work_dir.h"
#include "run/work_file.h"

int32_t addCount = 0, freeCount = 0;

namespace {

static_assert(sizeof(DiffItem) == 24);
constexpr uint64_t kBuckets = 512000;
DiffItem **buckets = nullptr;

// Items come from slabs. Single allocations of 24 bytes would take 32, more than the memory budget
// counts.
constexpr size_t kSlabItems = 16 * 1024;
struct SlabFree {
  void operator()(DiffItem *slab) const { ::operator delete(slab); }
};
std::vector<std::unique_ptr<DiffItem, SlabFree>> slabs;
size_t slabUsed = kSlabItems;  // used items of the last slab

DiffItem *newItem() {
  if (slabUsed == kSlabItems) {
    void *memory = ::operator new(kSlabItems * sizeof(DiffItem), std::nothrow);
    if (memory == nullptr) return nullptr;
    slabs.emplace_back(static_cast<DiffItem *>(memory));
    slabUsed = 0;
  }
  return slabs.back().get() + slabUsed++;
}

DiffItem **bucketOf(uint64_t ino) {
  return &buckets[ino % kBuckets];
}

}  // namespace

Result allocDiffTable() {
  if (buckets == nullptr) buckets = new (std::nothrow) DiffItem *[kBuckets]();
  return buckets != nullptr ? Result{} : failed(0, ENOMEM);
}

void freeDiffTable() {
  cleanDiffTable();
  delete[] buckets;
  buckets = nullptr;
}

bool haveDiffTable() {
  return buckets != nullptr;
}

Result addItem(uint64_t ino, uint8_t type) {
  DiffItem *item = buckets == nullptr ? nullptr : newItem();
  if (item == nullptr) return failedErrno(0, ENOMEM);
  *item = {ino, nullptr, type};
  DiffItem **link = bucketOf(ino);
  while (*link != nullptr) link = &(*link)->next;
  *link = item;
  ++addCount;
  return {};
}

DiffItem *findItem(uint64_t ino) {
  if (buckets == nullptr) return nullptr;
  DiffItem *item = *bucketOf(ino);
  while (item != nullptr && item->ino != ino) item = item->next;
  return item;
}

void cleanDiffTable() {
  if (buckets == nullptr) return;
  std::fill_n(buckets, kBuckets, nullptr);
  if (!slabs.empty()) freeCount += static_cast<int32_t>((slabs.size() - 1) * kSlabItems + slabUsed);
  slabs.clear();
  slabUsed = kSlabItems;
}

void dumpDiffTable() {
  const std::string path = workPath(kDiffTable);
  if (path.empty()) return;
  std::unique_ptr<WorkFile> file;
  if (!WorkFile::open(path, WorkFile::Mode::kKeep, &file)) {
    traceLog("failed to open itemTable file.\n");
    return;
  }
  for (uint64_t i = 0; buckets != nullptr && i < kBuckets; ++i) {
    for (const DiffItem *item = buckets[i]; item != nullptr; item = item->next) {
      char line[80];
      const long long ino = static_cast<long long>(item->ino);
      const int length = snprintf(line, sizeof line, "ino %lld 0x%llX type %d\n", ino,
                                  static_cast<unsigned long long>(item->ino), item->type);
      (void)file->append(std::string_view(line, static_cast<size_t>(length)));  // the close reports it
    }
  }
  (void)closeWorkFile(file, path);  // reports its own failure, which must not end the run
}
