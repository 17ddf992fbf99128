// Items of file-system trees, and the library's buffers.
#include <endian.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "btrfs/tree_items.h"
#include "filesystem/blob_format.h"
#include "filesystem/clone_attribute.h"
#include "fuzz/fuzz.h"
#include "kest.h"
#include "libkest/acl_format.h"
#include "scan/clone_state.h"

namespace fuzz {

namespace {

constexpr size_t kInodeBytes = 160, kEntryHead = 30, kInlineHead = 21, kExtentBytes = 53;

void treeItem(std::string_view input) {
  if (input.size() < 8) return;
  kest::TreeItem item;
  memcpy(&item.key.offset, input.data(), 8);
  const std::string_view body = input.substr(8);
  item.data = reinterpret_cast<const uint8_t *>(body.data());
  item.size = static_cast<uint32_t>(body.size());

  kest::InodeItem inode;
  FUZZ_CHECK(kest::decodeInode(item, &inode) == (body.size() >= kInodeBytes));

  std::vector<kest::DirEntryItem> entries;
  if (kest::decodeDirEntries(item, &entries)) {
    size_t bytes = 0;
    for (const kest::DirEntryItem &entry : entries) {
      FUZZ_CHECK(!entry.name.empty() && entry.name.size() <= 255 && entry.name != "." &&
                 entry.name != ".." && entry.name.find('/') == std::string::npos &&
                 strlen(entry.name.c_str()) == entry.name.size());
      bytes += kEntryHead + entry.name.size();
    }
    FUZZ_CHECK(bytes <= body.size());
  }

  kest::ExtentItem extent;
  if (kest::decodeExtent(item, &extent)) {
    FUZZ_CHECK(extent.is_inline ? extent.inline_data == body.substr(kInlineHead)
                                : body.size() >= kExtentBytes);
    FUZZ_CHECK(extent.length <= INT64_MAX &&
               (extent.is_inline || extent.start + extent.length <= uint64_t{INT64_MAX} + 1));
  }
}

void attributeBlob(std::string_view input) {
  kest::BlobAttributes attributes;
  if (kest::decodeBlob(input, &attributes)) {
    FUZZ_CHECK((attributes.flags & ~kest::kStorageFlags) == 0);
    for (const auto &[name, value] : attributes.xattrs) FUZZ_CHECK(kest::travelsInBlob(name));
    FUZZ_CHECK(kest::encodeBlob(attributes) == input);
    FUZZ_CHECK(kest::blobAt(input.data()) == input);
  }
  // Also a valid blob made of the input: names and values alternate.
  const std::vector<std::string> parts = pieces(input);
  for (size_t i = 0; i + 1 < parts.size(); i += 2) attributes.xattrs["user." + parts[i]] = parts[i + 1];
  kest::BlobAttributes again;
  FUZZ_CHECK(kest::decodeBlob(kest::encodeBlob(attributes), &again));
  FUZZ_CHECK(again.flags == attributes.flags && again.xattrs == attributes.xattrs);
}

void accessList(std::string_view input) {
  if (input.size() < sizeof(int32_t)) return;
  // A buffer is as long as its head says; its owner guarantees that.
  int32_t length;
  memcpy(&length, input.data(), sizeof length);
  if (length > 0 && static_cast<size_t>(length) > input.size()) return;
  kest::AclState state, again;
  if (!kest::decodeAcl(input.data(), &state)) return;
  FUZZ_CHECK((state.mode & ~07777u) == 0);
  FUZZ_CHECK(state.access.size() + state.inherited.size() <= input.size());
  const std::string text = kest::encodeAcl(state);
  FUZZ_CHECK(text.size() <= static_cast<size_t>(length) && kest::decodeAcl(text.data(), &again));
  FUZZ_CHECK(again.mode == state.mode && again.access == state.access &&
             again.inherited == state.inherited);
}

// Uses a file that has attributes but no flags.
void controlRequest(std::string_view input) {
  static const int fd = memfd_create("object", MFD_CLOEXEC);
  if (input.size() < 16) return;
  // Nothing may be read beyond the end of the input.
  char *request = const_cast<char *>(input.data());
  const std::string before(input);
  const auto total = static_cast<int32_t>(input.size());
  memcpy(request, &total, sizeof total);
  const int rc = kest_fcntl(fd, request);
  FUZZ_CHECK(rc == 0 || errno != 0);
  FUZZ_CHECK(memcmp(request + 4, before.data() + 4, 12) == 0);
  memcpy(request, before.data(), before.size());
}

// The program and the library parse it independently.
void cloneAttribute(std::string_view input) {
  kest::CloneAttribute library;
  CloneAttr program;
  CloneSnapAttr snap;
  if (input.size() < library.clone.size() + snap.bytes.size()) return;
  memcpy(library.clone.data(), input.data(), library.clone.size());
  memcpy(program.bytes.data(), input.data(), program.bytes.size());
  FUZZ_CHECK(library.parent() == program.parentIno() && library.depth() == program.depth() &&
             library.isParent() == program.isParent() &&
             library.namesSnapshot() == program.parentInSnapshot());
  uint32_t id;
  memcpy(&id, input.data() + library.clone.size(), sizeof id);
  kest::CloneAttribute made;
  made.setParent(library.parent());
  made.setDepth(library.depth());
  made.setSnapshot(id);
  std::copy(made.clone_snap.begin(), made.clone_snap.end(), snap.bytes.begin());
  FUZZ_CHECK(made.parent() == library.parent() && made.depth() == library.depth() && !made.isParent() &&
             made.namesSnapshot() && snap.snapId() == id);
}

}  // namespace

const std::vector<Target> kTreeTargets = {{"tree_item", treeItem},
                                          {"attribute_blob", attributeBlob},
                                          {"access_list", accessList},
                                          {"control_request", controlRequest},
                                          {"clone_attribute", cloneAttribute}};

}  // namespace fuzz
