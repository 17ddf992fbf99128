// write_recorder.h: a disk that remembers. One file in a file system that a thread of the test's own
// serves; a loop device over it passes on what a file system writes and flushes, in order, so that the
// disk can be built as a power cut would have left it.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "support/descriptor.h"

struct fuse_in_header;

namespace testsupport {

class WriteRecorder {
 public:
  // Serves a copy of `image` as FOLDER/device; folder and copy are made, on a memory file system best.
  WriteRecorder(const std::string &image, const std::string &folder);
  ~WriteRecorder();

  std::string device() const { return folder_ + "/device"; }
  // Writes and flushes so far; may be asked while the disk is in use.
  uint64_t count() const { return count_; }
  // Ends the service. Nothing may have the device open.
  void stop();

  // Makes `image`, which must be what the constructor saw, the disk after a cut behind `records` of
  // them: all writes up to the last flush among these, and of those after it the blocks of 4 KiB that
  // `survives` picks. After stop().
  void cut(const std::string &image, uint64_t records, const std::function<bool()> &survives) const;

 private:
  struct Record {
    uint64_t offset;
    std::string data;  // empty: a flush
  };
  void serve();  // until the file system is unmounted
  void answer(const fuse_in_header &request, const char *body);

  std::string folder_, copy_;
  Descriptor disk_, fuse_;
  std::vector<Record> log_;  // the thread's own until stop()
  std::atomic<uint64_t> count_ = 0;
  std::thread server_;
};

}  // namespace testsupport
