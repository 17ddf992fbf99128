// Link-count probes.
#pragma once

#include <cstdint>

// The link count of the inode in the active fileset, or in the snapshot, when it is two or more and the
// inode no directory; else 0, also on every error, which is traced and recorded as fatal, and where the scan
// holds no attributes: an inode that did not change is in the snapshot's scan alone.
uint32_t checkActiveLink(uint64_t ino);
uint32_t checkSnapLink(uint64_t ino);
