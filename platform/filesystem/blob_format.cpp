#include "filesystem/blob_format.h"

#include <cstdint>
#include <cstring>

#include <linux/fs.h>

namespace kest {
namespace {

constexpr char kMagic[8] = {'K', 'E', 'S', 'T', 'A', 'T', 'T', 'R'};
constexpr uint32_t kVersion = 1;

struct BlobHeader {
  char magic[8];
  uint32_t version;
  uint32_t length;
  uint32_t flags;
  uint32_t count;
};

struct EntryHeader {
  uint32_t name_length;
  uint32_t value_length;
};

template <typename Record>
void append(std::string *blob, const Record &record) {
  blob->append(reinterpret_cast<const char *>(&record), sizeof record);
}

template <typename Record>
bool take(std::string_view *rest, Record *record) {
  if (rest->size() < sizeof *record) return false;
  memcpy(record, rest->data(), sizeof *record);
  rest->remove_prefix(sizeof *record);
  return true;
}

}  // namespace

const unsigned kStorageFlags = FS_COMPR_FL | FS_NOCOMP_FL | FS_NOCOW_FL;

bool travelsInBlob(std::string_view name) {
  if (name.starts_with("trusted.")) return !name.starts_with("trusted.kest.");
  return name.starts_with("user.") || name.starts_with("security.") || name == kCompressionProperty ||
         name == kFileLayout || name == kDirLayout;
}

std::string encodeBlob(const BlobAttributes &attributes) {
  BlobHeader header{};
  memcpy(header.magic, kMagic, sizeof kMagic);
  header.version = kVersion;
  header.flags = attributes.flags;
  header.count = static_cast<uint32_t>(attributes.xattrs.size());
  std::string blob;
  append(&blob, header);
  for (const auto &[name, value] : attributes.xattrs) {
    append(&blob, EntryHeader{static_cast<uint32_t>(name.size()), static_cast<uint32_t>(value.size())});
    blob += name;
    blob += value;
  }
  header.length = static_cast<uint32_t>(blob.size());
  memcpy(blob.data(), &header, sizeof header);
  return blob;
}

bool decodeBlob(std::string_view blob, BlobAttributes *out) {
  BlobHeader header;
  const size_t length = blob.size();
  if (!take(&blob, &header) || memcmp(header.magic, kMagic, sizeof kMagic) != 0 ||
      header.version != kVersion || header.length != length || (header.flags & ~kStorageFlags) != 0)
    return false;
  BlobAttributes read;
  read.flags = header.flags;
  for (uint32_t i = 0; i < header.count; i++) {
    EntryHeader entry;
    if (!take(&blob, &entry) || entry.name_length > blob.size() ||
        entry.value_length > blob.size() - entry.name_length)
      return false;
    const std::string_view name = blob.substr(0, entry.name_length);
    const bool in_order = read.xattrs.empty() || read.xattrs.rbegin()->first < name;
    if (!travelsInBlob(name) || name.find('\0') != std::string_view::npos || !in_order) return false;
    read.xattrs.emplace(name, blob.substr(entry.name_length, entry.value_length));
    blob.remove_prefix(size_t{entry.name_length} + entry.value_length);
  }
  if (!blob.empty()) return false;
  *out = std::move(read);
  return true;
}

std::string_view blobAt(const void *buf) {
  BlobHeader header;
  memcpy(&header, buf, sizeof header);
  if (memcmp(header.magic, kMagic, sizeof kMagic) != 0) return {};
  return {static_cast<const char *>(buf), header.length};
}

}  // namespace kest
