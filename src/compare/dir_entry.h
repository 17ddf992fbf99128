// What the walks ask about one directory entry.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "kest.h"

// Type of an entry without the mark of the snapshot's side.
inline uint16_t entryType(const kest_direntx64_t &entry) {
  return entry.d_type & static_cast<uint16_t>(~KEST_DT_SNAP);
}
inline bool isDirEntry(const kest_direntx64_t &entry) {
  return entryType(entry) == 4;
}
inline bool isSnapEntry(const kest_direntx64_t &entry) {
  return entry.d_type & KEST_DT_SNAP;
}

// "." and "..".
bool isDotEntry(std::string_view name);

// True for a quota file of the file system in the fileset's root directory: never restored.
bool isQuotaFile(const std::string &directory, const char *name);
