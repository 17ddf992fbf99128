// tree_files.h: the trees of the benchmark. The number of a file determines its path and contents, so a
// tree of a million files can be changed without being read. Paths are relative to the working
// directory, the root of the tree. Every call throws std::system_error on failure.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace bench {

enum class Base {
  kTree,   // 50 files a directory, ten of them in a directory, ten of those in a top directory
  kGiant,  // one directory
  kLinks,  // like kGiant in directories of 200; second names under two/
  kBig,    // files of bigBytes()
};

inline constexpr uint64_t kFilesInLeaf = 50;

uint64_t scatter(uint64_t number);  // mixes the bits of a number

std::string leafPath(uint64_t leaf);      // of kTree
std::string middlePath(uint64_t middle);  // contains ten leaves
std::string filePath(Base base, uint64_t file);
std::string secondName(uint64_t file);  // of kLinks
// 200 bytes to 60 KiB, mostly below 2 KiB, 4 KiB on average.
size_t fileBytes(uint64_t file);

void makeTree(Base base, uint64_t files, uint64_t bigBytes);

void makeFolders(const std::string &path);  // makes missing directories
// Creates or truncates the file and writes `bytes` bytes derived from the seed.
void writeFile(const std::string &path, size_t bytes, uint64_t seed);
// Writes into an existing file.
void writeRange(const std::string &path, off_t offset, size_t bytes, uint64_t seed);
[[noreturn]] void fail(const std::string &what);

}  // namespace bench
