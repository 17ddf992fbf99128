// write_recorder.h: a disk that records. A thread of the test serves a file system with one file. A
// loop device on that file passes on the writes and flushes of a file system in order, so that the disk
// can be rebuilt as a power cut would have left it.
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
  // Serves a copy of `image` as FOLDER/device. Creates folder and copy, preferably on a memory file
  // system.
  WriteRecorder(const std::string &image, const std::string &folder);
  ~WriteRecorder();

  std::string device() const { return folder_ + "/device"; }
  // Returns the number of writes and flushes so far, also while the disk is in use.
  uint64_t count() const { return count_; }
  // Ends the service. No process may have the device open.
  void stop();

  // Makes `image`, which must be as the constructor saw it, the disk after a power cut that followed
  // the first `records` writes and flushes. It then has all writes before the last of these flushes,
  // and of the writes after it those blocks of 4 KiB that `survives` selects. Call it after stop().
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
  std::vector<Record> log_;  // belongs to the thread until stop()
  std::atomic<uint64_t> count_ = 0;
  std::thread server_;
};

}  // namespace testsupport
