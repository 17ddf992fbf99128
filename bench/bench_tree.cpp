// bench_tree make BASE FILES BIG_BYTES TREE            makes the tree in an empty directory
// bench_tree change CHANGE BASE FILES CHANGES BIG_BYTES TREE > LIST
// bench_tree warm TREE... < LIST                       brings into the cache the attributes of every
// object
//                                                      and the data of the files on the list
// bench_tree received SUBVOLUME                        marks it as received: `btrfs receive` finds the
// source
//                                                      of shared ranges among such subvolumes only
// Names of BASE and CHANGE are in tree_files.h and tree_change.h.

#include <fcntl.h>
#include <ftw.h>
#include <linux/btrfs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <exception>
#include <iostream>
#include <iterator>
#include <stdexcept>
#include <vector>

#include "tree_change.h"
#include "tree_files.h"

namespace {

bench::Base baseNamed(const std::string &name) {
  if (name == "tree") return bench::Base::kTree;
  if (name == "giant") return bench::Base::kGiant;
  if (name == "links") return bench::Base::kLinks;
  if (name == "big") return bench::Base::kBig;
  throw std::runtime_error("unknown base " + name);
}

void enter(const std::string &tree) {
  if (chdir(tree.c_str()) != 0) bench::fail("chdir " + tree);
}

void readFile(const std::string &path) {
  static std::vector<char> buffer(1 << 20);
  int fd = open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) return;  // this tree does not have the file
  while (read(fd, buffer.data(), buffer.size()) > 0) continue;
  close(fd);
}

void warm(const std::vector<std::string> &trees) {
  std::string list((std::istreambuf_iterator<char>(std::cin)), std::istreambuf_iterator<char>());
  for (const std::string &tree : trees) {
    auto ignore = [](const char *, const struct stat *, int, FTW *) { return 0; };
    if (nftw(tree.c_str(), ignore, 64, FTW_PHYS | FTW_MOUNT) != 0) bench::fail("walk " + tree);
    for (size_t at = 0; at < list.size(); at = list.find('\0', at) + 1)
      readFile(tree + "/" + (list.c_str() + at));
  }
}

void markReceived(const std::string &subvolume) {
  int fd = open(subvolume.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  btrfs_ioctl_get_subvol_info_args info{};
  if (fd < 0 || ioctl(fd, BTRFS_IOC_GET_SUBVOL_INFO, &info) < 0)
    bench::fail("information of " + subvolume);
  btrfs_ioctl_received_subvol_args received{};
  memcpy(received.uuid, info.uuid, sizeof info.uuid);
  received.stransid = info.ctransid;
  if (ioctl(fd, BTRFS_IOC_SET_RECEIVED_SUBVOL, &received) != 0) bench::fail("mark " + subvolume);
  close(fd);
}

int run(const std::vector<std::string> &words) {
  if (words.size() == 5 && words[0] == "make") {
    enter(words[4]);
    bench::makeTree(baseNamed(words[1]), std::stoull(words[2]), std::stoull(words[3]));
  } else if (words.size() == 7 && words[0] == "change") {
    enter(words[6]);
    std::cout << bench::changeTree(words[1], {baseNamed(words[2]), std::stoull(words[3]),
                                              std::stoull(words[4]), std::stoull(words[5])});
  } else if (words.size() > 1 && words[0] == "warm") {
    warm({words.begin() + 1, words.end()});
  } else if (words.size() == 2 && words[0] == "received") {
    markReceived(words[1]);
  } else {
    std::cerr << "bench_tree: usage: see the source\n";
    return 2;
  }
  return 0;
}

}  // namespace

int main(int argc, char **argv) {
  umask(022);
  try {
    return run({argv + 1, argv + argc});
  } catch (const std::exception &problem) {
    std::cerr << "bench_tree: " << problem.what() << '\n';
    return 1;
  }
}
