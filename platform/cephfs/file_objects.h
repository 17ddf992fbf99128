// What the object stores know of a file's data, without reading it: which ranges changed since a
// snapshot, and where there is nothing.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "cephfs/client.h"
#include "cephfs/file_layout.h"
#include "filesystem/file_system.h"

namespace kest {

// The layout of a regular file in the words of ceph.file.layout, as the client knows it. 0 or -errno.
int readLayoutText(const InodeRef &file, std::string *text);

// The layout of a regular file. 0 or -errno.
int readLayout(const InodeRef &file, FileLayout *layout);

// Appends the ranges of [from, to) in which the file's objects differ from those of snapshot `snapid`,
// in order and at most `limit` of them. Adjacent ranges of one kind become one. Data that clients have
// not written back yet is in no object. 0 or -errno.
int diffObjects(const InodeRef &file, uint64_t ino, uint64_t snapid, uint64_t from, uint64_t to,
                size_t limit, std::vector<FileRange> *ranges);

// Sets *hole if there is no object for the byte at `offset` (`snapid` kActive: in the active file), and
// *stop to an offset, `end` at most, up to which that is so. 0 or -errno.
int stretchOfObjects(const FileLayout &layout, const InodeRef &file, uint64_t ino, uint64_t snapid,
                     uint64_t offset, uint64_t end, uint64_t *stop, bool *hole);

}  // namespace kest
