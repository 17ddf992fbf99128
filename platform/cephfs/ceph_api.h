// The C interface of libcephfs, as C++ code sees it.
#pragma once

#include <dirent.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <cstdint>

// In C++ the header of libcephfs only declares these types. They get the members here that it gives
// them in C.
struct inodeno_t {
  uint64_t val;
};
struct snapid_t {
  uint64_t val;
};
struct vinodeno_t {
  inodeno_t ino;
  snapid_t snapid;
};

// Likewise the layout of a file, which ceph_ll_file_layout fills in.
struct ceph_file_layout {
  uint32_t stripe_unit, stripe_count, object_size, cas_hash, object_stripe_unit, unused, pool;
};

#include <cephfs/libcephfs.h>
