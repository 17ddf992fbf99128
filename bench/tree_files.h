// tree_files.h: the trees of the benchmark: where file number i lies and what is in it. Both follow
// from the number alone, so that a tree of a million files is changed without being read. All paths are
// relative to the working directory, the root of the tree. Every call throws std::system_error where it
// fails.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace bench {

enum class Base {
  kTree,   // directories of 50 files, ten of them in a directory, ten of those in a top directory
  kGiant,  // one directory
  kLinks,  // as kGiant in directories of 200, every inode with a second name under two/
  kBig,    // files of bigBytes()
};

inline constexpr uint64_t kFilesInLeaf = 50;

uint64_t scatter(uint64_t number);  // a well mixed number from a number

std::string leafPath(uint64_t leaf);      // of kTree
std::string middlePath(uint64_t middle);  // of kTree: ten leaves
std::string filePath(Base base, uint64_t file);
std::string secondName(uint64_t file);  // of kLinks
// 200 bytes to 60 KiB, most of them below 2 KiB, 4 KiB in the mean.
size_t fileBytes(uint64_t file);

void makeTree(Base base, uint64_t files, uint64_t bigBytes);

void makeFolders(const std::string &path);  // those that are missing
// Makes or empties the file and writes so many bytes, which follow from the seed.
void writeFile(const std::string &path, size_t bytes, uint64_t seed);
// Into an existing file.
void writeRange(const std::string &path, off_t offset, size_t bytes, uint64_t seed);
[[noreturn]] void fail(const std::string &what);

}  // namespace bench
