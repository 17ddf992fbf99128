#include "cephfs/scan_part.h"

#include <cerrno>
#include <utility>

namespace kest {

namespace {

constexpr size_t kPiece = 1 << 18;      // bytes of one write
constexpr uint64_t kLongest = 1 << 20;  // bytes of a text
constexpr size_t kNumberMost = 10;      // bytes of a number

}  // namespace

void PartWriter::number(uint64_t number) {
  for (; number >= 0x80; number >>= 7) buffer_.push_back(static_cast<char>(number | 0x80));
  buffer_.push_back(static_cast<char>(number));
  if (buffer_.size() >= kPiece) flush();
}

void PartWriter::text(std::string_view text) {
  number(text.size());
  buffer_ += text;
}

void PartWriter::folder(const SharedFolder &folder) {
  number(folder.kind);
  number(folder.changed);
  number(folder.ino);
  text(folder.path);
}

int PartWriter::flush() {
  if (error_ == 0) error_ = -writeAll(fd_, buffer_).err;
  written_ += buffer_.size();
  buffer_.clear();
  return error_;
}

uint64_t PartReader::number() {
  std::string_view bytes;
  if (error_ == 0) error_ = -reader_.peek(kNumberMost, &bytes).err;
  if (error_ != 0) return 0;
  uint64_t number = 0;
  for (size_t i = 0; i < bytes.size() && i < kNumberMost; ++i) {
    const auto byte = static_cast<uint8_t>(bytes[i]);
    number |= static_cast<uint64_t>(byte & 0x7f) << (7 * i);
    if (byte >= 0x80) continue;
    reader_.skip(i + 1);
    return number;
  }
  error_ = -EBADMSG;
  return 0;
}

std::string PartReader::text() {
  const uint64_t size = number();
  std::string_view bytes;
  if (size > kLongest) error_ = -EBADMSG;
  if (error_ == 0) error_ = -reader_.peek(size, &bytes).err;
  if (error_ == 0 && bytes.size() < size) error_ = -EBADMSG;
  if (error_ != 0) return "";
  std::string text(bytes.substr(0, size));
  reader_.skip(size);
  return text;
}

SharedFolder PartReader::folder() {
  SharedFolder folder;
  folder.kind = number();
  folder.changed = number();
  folder.ino = number();
  folder.path = text();
  return folder;
}

}  // namespace kest
