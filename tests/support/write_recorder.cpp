#include "support/write_recorder.h"

#include <fcntl.h>
#include <linux/fuse.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>

#include "support/descriptor.h"
#include "support/loop_btrfs.h"

namespace testsupport {
namespace {

constexpr uint64_t kDeviceNode = 2;
constexpr uint32_t kMostBytes = 128 << 10;  // of one request
constexpr uint32_t kBlock = 4096;

void writeWhole(int fd, const void *data, size_t length, off_t offset) {
  if (pwrite(fd, data, length, offset) != static_cast<ssize_t>(length)) failWithErrno("write the disk");
}

Descriptor openFile(const std::string &path, int flags) {
  Descriptor fd(open(path.c_str(), flags | O_CLOEXEC, 0600));
  if (!fd.valid()) failWithErrno("open " + path);
  return fd;
}

}  // namespace

// Answers the kernel's requests until the file system is unmounted.
class WriteRecorder::Server {
 public:
  Server(int fuse, int disk, int log, Shared *shared)
      : fuse_(fuse), disk_(disk), log_(log), shared_(shared) {}

  void serve() {
    std::vector<char> buffer(kMostBytes + (64 << 10));
    for (;;) {
      const ssize_t n = read(fuse_, buffer.data(), buffer.size());
      if (n < 0 && (errno == EINTR || errno == EAGAIN || errno == ENOENT)) continue;
      if (n < static_cast<ssize_t>(sizeof(fuse_in_header))) return;
      memcpy(&request_, buffer.data(), sizeof request_);
      answer(buffer.data() + sizeof request_);
    }
  }

 private:
  void reply(int error, const void *data = nullptr, size_t length = 0) {
    fuse_out_header head{};
    head.len = static_cast<uint32_t>(sizeof head + length);
    head.error = -error;
    head.unique = request_.unique;
    iovec parts[2] = {{&head, sizeof head}, {const_cast<void *>(data), length}};
    if (writev(fuse_, parts, length ? 2 : 1) < 0 && errno != ENOENT) _exit(1);
  }
  template <typename Answer>
  void replyWith(const Answer &answer) {
    reply(0, &answer, sizeof answer);
  }

  fuse_attr attributes(uint64_t node) const {
    fuse_attr attr{};
    attr.ino = node;
    attr.mode = node == kDeviceNode ? S_IFREG | 0600 : S_IFDIR | 0700;
    attr.nlink = 1;
    attr.blksize = kBlock;
    struct stat st;
    if (node == kDeviceNode && fstat(disk_, &st) == 0) attr.size = static_cast<uint64_t>(st.st_size);
    attr.blocks = attr.size / 512;
    return attr;
  }

  void note(const Record &record, const char *data) {
    const iovec parts[2] = {{const_cast<Record *>(&record), sizeof record},
                            {const_cast<char *>(data), record.length}};
    const auto wanted = static_cast<ssize_t>(sizeof record + record.length);
    if (writev(log_, parts, record.length ? 2 : 1) != wanted) _exit(1);
    shared_->flushes += record.flush;
    ++shared_->count;
  }

  void takeWrite(const char *body) {
    fuse_write_in in;
    memcpy(&in, body, sizeof in);
    const char *data = body + sizeof in;
    note({in.offset, in.size, 0}, data);
    if (pwrite(disk_, data, in.size, static_cast<off_t>(in.offset)) != static_cast<ssize_t>(in.size))
      return reply(EIO);
    fuse_write_out out{};
    out.size = in.size;
    replyWith(out);
  }

  void giveBytes(const char *body) {
    fuse_read_in in;
    memcpy(&in, body, sizeof in);
    std::vector<char> data(in.size);
    const ssize_t n = pread(disk_, data.data(), data.size(), static_cast<off_t>(in.offset));
    n < 0 ? reply(EIO) : reply(0, data.data(), static_cast<size_t>(n));
  }

  void start() {
    fuse_init_out out{};
    out.major = FUSE_KERNEL_VERSION;
    out.minor = FUSE_KERNEL_MINOR_VERSION;
    out.max_readahead = kMostBytes;
    out.flags = FUSE_BIG_WRITES;
    out.max_background = 16;
    out.congestion_threshold = 12;
    out.max_write = kMostBytes;
    replyWith(out);
  }

  void answer(const char *body) {
    switch (request_.opcode) {
      case FUSE_INIT:
        return start();
      case FUSE_LOOKUP: {
        if (strcmp(body, "device") != 0) return reply(ENOENT);
        fuse_entry_out out{};
        out.nodeid = kDeviceNode;
        out.attr = attributes(kDeviceNode);
        return replyWith(out);
      }
      case FUSE_GETATTR: {
        fuse_attr_out out{};
        out.attr = attributes(request_.nodeid);
        return replyWith(out);
      }
      case FUSE_OPEN:
        return replyWith(fuse_open_out{});
      case FUSE_READ:
        return giveBytes(body);
      case FUSE_WRITE:
        return takeWrite(body);
      case FUSE_FSYNC:
        note({0, 0, 1}, nullptr);
        return reply(0);
      case FUSE_FLUSH:
      case FUSE_RELEASE:
      case FUSE_DESTROY:
        return reply(0);
      case FUSE_FORGET:
      case FUSE_BATCH_FORGET:
      case FUSE_INTERRUPT:
        return;  // these want no answer
      default:
        return reply(ENOSYS);
    }
  }

  int fuse_, disk_, log_;
  Shared *shared_;
  fuse_in_header request_{};
};

WriteRecorder::WriteRecorder(const std::string &image, const std::string &folder)
    : folder_(folder), copy_(folder + ".disk"), log_(folder + ".log") {
  void *page = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (page == MAP_FAILED) failWithErrno("map");
  shared_ = new (page) Shared{};
  runCommand("mkdir -p '" + folder + "' && cp --sparse=always '" + image + "' '" + copy_ + "'");
  Descriptor disk = openFile(copy_, O_RDWR);
  Descriptor log = openFile(log_, O_WRONLY | O_CREAT | O_TRUNC | O_APPEND);
  Descriptor fuse = openFile("/dev/fuse", O_RDWR);
  const std::string options =
      "fd=" + std::to_string(fuse.get()) + ",rootmode=40000,user_id=0,group_id=0";
  if (mount("recorder", folder.c_str(), "fuse", 0, options.c_str()) != 0)
    failWithErrno("mount " + folder);
  server_ = fork();
  if (server_ < 0) failWithErrno("fork");
  if (server_ != 0) return;
  setsid();
  Server(fuse.get(), disk.get(), log.get(), shared_).serve();
  _exit(0);
}

void WriteRecorder::stop() {
  if (server_ == 0) return;
  if (umount(folder_.c_str()) != 0) failWithErrno("unmount " + folder_);
  int status = 0;
  waitpid(server_, &status, 0);
  server_ = 0;
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) throw std::runtime_error("the recorder failed");
}

WriteRecorder::~WriteRecorder() {
  if (server_ != 0) {
    umount2(folder_.c_str(), MNT_DETACH);
    kill(server_, SIGKILL);
    waitpid(server_, nullptr, 0);
  }
  rmdir(folder_.c_str());
  unlink(copy_.c_str());
  unlink(log_.c_str());
  munmap(shared_, sizeof(Shared));
}

void WriteRecorder::cut(const std::string &image, uint64_t records,
                        const std::function<bool()> &survives) const {
  Descriptor log = openFile(log_, O_RDONLY), disk = openFile(image, O_RDWR);
  std::vector<std::pair<Record, off_t>> found;  // and where its bytes are
  size_t lastFlush = 0;
  off_t at = 0;
  Record record;
  while (found.size() < records && pread(log.get(), &record, sizeof record, at) == sizeof record) {
    at += static_cast<off_t>(sizeof record);
    found.emplace_back(record, at);
    at += record.length;
    if (record.flush) lastFlush = found.size();
  }
  if (found.size() != records) throw std::runtime_error("the log of writes is too short");
  std::vector<char> data(kMostBytes);
  for (size_t i = 0; i < found.size(); ++i) {
    const auto &[write, where] = found[i];
    for (uint32_t done = 0; done < write.length;) {
      const uint32_t piece = std::min(write.length - done, i < lastFlush ? kMostBytes : kBlock);
      if (i < lastFlush || survives()) {
        if (pread(log.get(), data.data(), piece, where + done) != piece) failWithErrno("read " + log_);
        writeWhole(disk.get(), data.data(), piece, static_cast<off_t>(write.offset + done));
      }
      done += piece;
    }
  }
}

}  // namespace testsupport
