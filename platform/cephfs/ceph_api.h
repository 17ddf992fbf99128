// The C interface of libcephfs, as C++ code sees it.
#pragma once

#include <dirent.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <cstdint>

// For C++ the header only declares these; C has them with these members.
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

// The same with the layout of a file, as it goes to ceph_ll_file_layout.
struct ceph_file_layout {
  uint32_t stripe_unit, stripe_count, object_size, cas_hash, object_stripe_unit, unused, pool;
};

#include <cephfs/libcephfs.h>
