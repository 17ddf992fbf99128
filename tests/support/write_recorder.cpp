#include "support/write_recorder.h"

#include <fcntl.h>
#include <linux/fuse.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/uio.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>

#include "support/loop_btrfs.h"

namespace testsupport {
namespace {

constexpr uint64_t kDeviceNode = 2;
constexpr uint32_t kMostBytes = 128 << 10;  // in one request
constexpr uint32_t kBlock = 4096;

Descriptor openFile(const std::string &path) {
  Descriptor fd(open(path.c_str(), O_RDWR | O_CLOEXEC));
  if (!fd.valid()) failWithErrno("open " + path);
  return fd;
}

fuse_attr attributesOf(uint64_t node, int disk) {
  struct stat st {};
  if (node == kDeviceNode) fstat(disk, &st);
  fuse_attr attr{};
  attr.ino = node;
  attr.mode = node == kDeviceNode ? S_IFREG | 0600 : S_IFDIR | 0700;
  attr.nlink = 1;
  attr.blksize = kBlock;
  attr.size = static_cast<uint64_t>(st.st_size);
  attr.blocks = attr.size / 512;
  return attr;
}

}  // namespace

void WriteRecorder::serve() {
  std::vector<char> buffer(kMostBytes + (64 << 10));
  for (;;) {
    const ssize_t n = read(fuse_.get(), buffer.data(), buffer.size());
    if (n < 0 && (errno == EINTR || errno == EAGAIN || errno == ENOENT)) continue;
    fuse_in_header request;
    if (n < static_cast<ssize_t>(sizeof request)) return;
    memcpy(&request, buffer.data(), sizeof request);
    answer(request, buffer.data() + sizeof request);
  }
}

void WriteRecorder::answer(const fuse_in_header &request, const char *body) {
  const auto reply = [&](int error, const void *data = nullptr, size_t length = 0) {
    fuse_out_header head{};
    head.len = static_cast<uint32_t>(sizeof head + length);
    head.error = -error;
    head.unique = request.unique;
    iovec parts[2] = {{&head, sizeof head}, {const_cast<void *>(data), length}};
    // If the kernel no longer waits for the reply, nobody needs it.
    if (writev(fuse_.get(), parts, length ? 2 : 1) < 0) return;
  };
  const auto give = [&](const auto &structure) { reply(0, &structure, sizeof structure); };
  const auto note = [&](uint64_t offset, std::string data) {
    log_.push_back({offset, std::move(data)});
    ++count_;
  };
  switch (request.opcode) {
    case FUSE_INIT: {
      fuse_init_out out{};
      out.major = FUSE_KERNEL_VERSION;
      out.minor = FUSE_KERNEL_MINOR_VERSION;
      out.max_readahead = out.max_write = kMostBytes;
      out.flags = FUSE_BIG_WRITES;
      out.max_background = 16;
      out.congestion_threshold = 12;
      return give(out);
    }
    case FUSE_LOOKUP: {
      if (strcmp(body, "device") != 0) return reply(ENOENT);
      fuse_entry_out out{};
      out.nodeid = kDeviceNode;
      out.attr = attributesOf(kDeviceNode, disk_.get());
      return give(out);
    }
    case FUSE_GETATTR: {
      fuse_attr_out out{};
      out.attr = attributesOf(request.nodeid, disk_.get());
      return give(out);
    }
    case FUSE_OPEN:
      return give(fuse_open_out{});
    case FUSE_READ: {
      fuse_read_in in;
      memcpy(&in, body, sizeof in);
      std::vector<char> data(in.size);
      const ssize_t n = pread(disk_.get(), data.data(), data.size(), static_cast<off_t>(in.offset));
      return n < 0 ? reply(EIO) : reply(0, data.data(), static_cast<size_t>(n));
    }
    case FUSE_WRITE: {
      fuse_write_in in;
      memcpy(&in, body, sizeof in);
      note(in.offset, std::string(body + sizeof in, in.size));
      if (pwrite(disk_.get(), body + sizeof in, in.size, static_cast<off_t>(in.offset)) !=
          static_cast<ssize_t>(in.size))
        return reply(EIO);
      fuse_write_out out{};
      out.size = in.size;
      return give(out);
    }
    case FUSE_FSYNC:
      note(0, "");
      return reply(0);
    case FUSE_FLUSH:
    case FUSE_RELEASE:
    case FUSE_DESTROY:
      return reply(0);
    case FUSE_FORGET:
    case FUSE_BATCH_FORGET:
    case FUSE_INTERRUPT:
      return;  // these expect no reply
    default:
      return reply(ENOSYS);
  }
}

WriteRecorder::WriteRecorder(const std::string &image, const std::string &folder)
    : folder_(folder), copy_(folder + ".disk") {
  runCommand("mkdir -p '" + folder + "' && cp --sparse=always '" + image + "' '" + copy_ + "'");
  disk_ = openFile(copy_);
  fuse_ = openFile("/dev/fuse");
  const std::string options =
      "fd=" + std::to_string(fuse_.get()) + ",rootmode=40000,user_id=0,group_id=0";
  if (mount("recorder", folder.c_str(), "fuse", 0, options.c_str()) != 0)
    failWithErrno("mount " + folder);
  server_ = std::thread([this] { serve(); });
}

void WriteRecorder::stop() {
  if (umount(folder_.c_str()) != 0) failWithErrno("unmount " + folder_);
  server_.join();
}

WriteRecorder::~WriteRecorder() {
  if (server_.joinable()) {
    umount2(folder_.c_str(), MNT_FORCE | MNT_DETACH);  // requests that still wait for the disk fail
    server_.join();
  }
  rmdir(folder_.c_str());
  unlink(copy_.c_str());
}

void WriteRecorder::cut(const std::string &image, uint64_t records,
                        const std::function<bool()> &survives) const {
  if (log_.size() < records) throw std::runtime_error("the log of writes is too short");
  const Descriptor disk = openFile(image);
  size_t flushed = records;  // number of records before the last flush
  while (flushed > 0 && !log_[flushed - 1].data.empty()) --flushed;
  for (size_t i = 0; i < records; ++i) {
    const auto &[offset, data] = log_[i];
    for (size_t done = 0; done < data.size();) {
      const size_t piece = std::min<size_t>(data.size() - done, i < flushed ? kMostBytes : kBlock);
      const bool kept = i < flushed || survives();
      if (kept && pwrite(disk.get(), &data[done], piece, static_cast<off_t>(offset + done)) < 0)
        failWithErrno("write " + image);
      done += piece;
    }
  }
}

}  // namespace testsupport
