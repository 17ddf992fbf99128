// write_recorder.h: a disk that remembers. One file in a file system served by a process of the test's
// own; a loop device over it passes on what a file system writes and flushes, in order, so that the
// disk can be built as a power cut would have left it.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace testsupport {

class WriteRecorder {
 public:
  // Serves a copy of `image` as FOLDER/device; folder and copy are made, on a memory file system best.
  WriteRecorder(const std::string &image, const std::string &folder);
  ~WriteRecorder();
  WriteRecorder(const WriteRecorder &) = delete;
  WriteRecorder &operator=(const WriteRecorder &) = delete;

  std::string device() const { return folder_ + "/device"; }
  // Writes and flushes so far; may be asked while the disk is in use.
  uint64_t count() const { return shared_->count; }
  uint64_t flushes() const { return shared_->flushes; }
  // Ends the service. Nothing may have the device open.
  void stop();

  // Makes `image`, which must be what the constructor saw, the disk after a cut behind `records` of
  // them: all writes up to the last flush among these, and of those after it the blocks of 4 KiB that
  // `survives` picks. After stop().
  void cut(const std::string &image, uint64_t records, const std::function<bool()> &survives) const;

 private:
  struct Shared {
    std::atomic<uint64_t> count, flushes;
  };
  struct Record {
    uint64_t offset = 0;
    uint32_t length = 0;
    uint32_t flush = 0;
  };
  class Server;

  std::string folder_, copy_, log_;
  Shared *shared_ = nullptr;
  pid_t server_ = 0;
};

}  // namespace testsupport
