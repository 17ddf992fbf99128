// The inodes that differ between fileset and snapshot in one pass, and how each differs.
#pragma once

#include <cstdint>

#include "base/result.h"

// Flags of an item. The values appear in dumps.
enum DiffFlag : uint8_t {
  kDiffNew = 1,      // the active inode is not the snapshot's file
  kDiffChanged = 2,  // same file, but data or attributes changed
  kDiffMoved = 4,    // it has a name that the snapshot does not have
  kDiffDeleted = 8,  // it no longer exists in the active fileset
};

struct DiffItem {
  uint64_t ino;
  DiffItem *next;
  uint8_t type;  // DiffFlag bits
};

extern int32_t addCount, freeCount;  // items added and freed in the whole run

Result allocDiffTable();  // ENOMEM
void freeDiffTable();     // empties the table first; harmless without one
bool haveDiffTable();
Result addItem(uint64_t ino, uint8_t type);  // ENOMEM
DiffItem *findItem(uint64_t ino);            // null if there is none, or no table
void cleanDiffTable();
void dumpDiffTable();  // appends all items to diffTable in the work directory
