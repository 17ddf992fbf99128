// The files through which processes that share a comparison exchange what they find. They consist of
// numbers of one to ten bytes, with seven bits in each, and of texts, each after its length.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "base/file_io.h"
#include "base/unique_fd.h"

namespace kest {

// A directory that is still to be compared.
struct SharedFolder {
  uint64_t kind = 0, changed = 0, ino = 0;
  std::string path;  // in the snapshot, below its root; "" the root, or a directory that only the
                     // fileset has
};

// Begins each entry of a part, and says what its numbers and texts are.
enum class PartEntry : uint64_t {
  kNews = 1,       // inode, what an entry says about it
  kFound = 2,      // inode, its state
  kLead = 3,       // directory, inode in it
  kParent = 4,     // directory, its parent in the fileset
  kPlace = 5,      // directory, its parent in the snapshot, its name there
  kMoved = 6,      // directory of both trees that is in another place now
  kUnmatched = 7,  // directory under a name that only the fileset has
  kNotes = 8,      // directory, entries that only the fileset has, entries that only the snapshot has
  kName = 9,       // directory, an entry of it that a walk goes to
  kNamesLeftOut = 10,  // not every such entry is in the part
  kCandidate = 11,     // directory, name: may be twins
  kChanged = 12,       // directory, number of entries that differ, whether it differs itself
  kLeft = 13,          // a directory that has not been compared yet
  kEnd = 14,           // number of entries before it; a part without it is not whole
};

class PartWriter {
 public:
  explicit PartWriter(int fd) : fd_(fd) {}  // does not close it

  void number(uint64_t number);
  void text(std::string_view text);
  void folder(const SharedFolder &folder);
  void begin(PartEntry entry) {
    ++entries_;
    number(static_cast<uint64_t>(entry));
  }
  uint64_t entries() const { return entries_; }
  uint64_t position() const { return written_ + buffer_.size(); }  // bytes
  int flush();  // 0, or -errno of this or any earlier write

 private:
  int fd_;
  std::string buffer_;
  uint64_t written_ = 0, entries_ = 0;
  int error_ = 0;
};

// After the first failure every call yields nothing: 0 and "".
class PartReader {
 public:
  explicit PartReader(UniqueFd fd) { reader_.open(std::move(fd)); }

  void seek(uint64_t position) { reader_.seek(position); }
  uint64_t position() const { return reader_.position(); }
  uint64_t number();
  std::string text();
  SharedFolder folder();
  int error() const { return error_; }  // 0 or -errno; -EBADMSG: damaged, or not whole

 private:
  FileReader reader_;
  int error_ = 0;
};

}  // namespace kest
