#include "tree_files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <system_error>
#include <vector>

namespace bench {
namespace {

constexpr uint64_t kFilesInLinksFolder = 200;
constexpr size_t kBigBlock = 1 << 20;

[[gnu::format(printf, 1, 2)]] std::string formatted(const char *format, ...) {
  char text[128];
  va_list values;
  va_start(values, format);
  vsnprintf(text, sizeof text, format, values);
  va_end(values);
  return text;
}

std::vector<uint64_t> contents(size_t bytes, uint64_t seed) {
  std::vector<uint64_t> words(bytes / sizeof(uint64_t) + 1);
  for (size_t i = 0; i < words.size(); i++) words[i] = scatter(seed * 1000003 + i);
  return words;
}

void writeAt(int fd, const std::string &path, off_t offset, size_t bytes, uint64_t seed) {
  std::vector<uint64_t> words = contents(bytes, seed);
  if (pwrite(fd, words.data(), bytes, offset) != static_cast<ssize_t>(bytes)) fail("write " + path);
}

int opened(const std::string &path, int flags) {
  int fd = open(path.c_str(), flags | O_WRONLY | O_CLOEXEC, 0644);
  if (fd < 0) fail("open " + path);
  return fd;
}

// Sets times in the distant past, so that no change can fall into the second in which the file was
// made.
void finish(int fd, const std::string &path, uint64_t file) {
  uint64_t mixed = scatter(file + 17);
  time_t when = 1500000000 + static_cast<time_t>(mixed % 100000000);
  timespec times[2] = {{when, 0}, {when, static_cast<long>(mixed % 1000000000)}};
  bool done = fchown(fd, 1000 + mixed % 3, 1000) == 0;
  if (done && mixed % 20 == 0) done = fsetxattr(fd, "user.origin", "elsewhere", 9, 0) == 0;
  if (!done || futimens(fd, times) != 0) fail("attributes of " + path);
  if (close(fd) != 0) fail("close " + path);
}

void makeBig(const std::string &path, uint64_t bytes, uint64_t file) {
  int fd = opened(path, O_CREAT | O_EXCL);
  for (uint64_t at = 0; at < bytes; at += kBigBlock)
    writeAt(fd, path, static_cast<off_t>(at), kBigBlock, file * 100000 + at / kBigBlock);
  finish(fd, path, file);
}

void makeSmall(Base base, uint64_t file) {
  std::string path = filePath(base, file);
  if (file == 0 || (base == Base::kTree && file % kFilesInLeaf == 0) ||
      (base == Base::kLinks && file % kFilesInLinksFolder == 0)) {
    makeFolders(path.substr(0, path.rfind('/')));
    if (base == Base::kLinks) {
      std::string second = secondName(file);
      makeFolders(second.substr(0, second.rfind('/')));
    }
    std::string latest = path.substr(0, path.rfind('/')) + "/latest";
    if (symlink(path.substr(path.rfind('/') + 1).c_str(), latest.c_str()) != 0)
      fail("symlink " + latest);
  }
  int fd = opened(path, O_CREAT | O_EXCL);
  writeAt(fd, path, 0, fileBytes(file), file);
  finish(fd, path, file);
  if (base == Base::kLinks && link(path.c_str(), secondName(file).c_str()) != 0) fail("link " + path);
}

}  // namespace

void fail(const std::string &what) {
  throw std::system_error(errno, std::generic_category(), what);
}

uint64_t scatter(uint64_t number) {
  number += 0x9e3779b97f4a7c15;
  number = (number ^ (number >> 30)) * 0xbf58476d1ce4e5b9;
  number = (number ^ (number >> 27)) * 0x94d049bb133111eb;
  return number ^ (number >> 31);
}

std::string middlePath(uint64_t middle) {
  return formatted("group%03lu/part%lu", middle / 10, middle % 10);
}

std::string leafPath(uint64_t leaf) {
  return middlePath(leaf / 10) + formatted("/folder%lu", leaf % 10);
}

std::string filePath(Base base, uint64_t file) {
  switch (base) {
    case Base::kTree:
      return leafPath(file / kFilesInLeaf) + formatted("/file%02lu.dat", file % kFilesInLeaf);
    case Base::kLinks:
      return formatted("one/%03lu/file%06lu.dat", file / kFilesInLinksFolder, file);
    case Base::kGiant:
      return formatted("giant/file%06lu.dat", file);
    case Base::kBig:
      break;
  }
  return formatted("big%lu.img", file);
}

std::string secondName(uint64_t file) {
  return formatted("two/%03lu/file%06lu.dat", file / kFilesInLinksFolder, file);
}

size_t fileBytes(uint64_t file) {
  uint64_t mixed = scatter(file);
  uint64_t kind = mixed % 100;
  mixed >>= 8;
  if (kind < 60) return 200 + mixed % 1800;
  if (kind < 97) return 2048 + mixed % (10 << 10);
  return (12 << 10) + mixed % (48 << 10);
}

void makeFolders(const std::string &path) {
  if (mkdir(path.c_str(), 0755) == 0 || errno == EEXIST) return;
  size_t slash = path.rfind('/');
  if (errno != ENOENT || slash == std::string::npos) fail("mkdir " + path);
  makeFolders(path.substr(0, slash));
  if (mkdir(path.c_str(), 0755) != 0) fail("mkdir " + path);
}

void writeFile(const std::string &path, size_t bytes, uint64_t seed) {
  int fd = opened(path, O_CREAT | O_TRUNC);
  writeAt(fd, path, 0, bytes, seed);
  if (close(fd) != 0) fail("close " + path);
}

void writeRange(const std::string &path, off_t offset, size_t bytes, uint64_t seed) {
  int fd = opened(path, 0);
  writeAt(fd, path, offset, bytes, seed);
  if (close(fd) != 0) fail("close " + path);
}

void makeTree(Base base, uint64_t files, uint64_t bigBytes) {
  for (uint64_t file = 0; file < files; file++) {
    if (base == Base::kBig)
      makeBig(filePath(base, file), bigBytes, file);
    else
      makeSmall(base, file);
  }
}

}  // namespace bench
