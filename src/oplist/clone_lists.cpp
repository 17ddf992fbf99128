#include "oplist/clone_lists.h"

#include <unistd.h>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <vector>

#include "object/clone_attr.h"
#include "run/trace_log.h"

bool carriesCloneAttr(kest_ifile_t *file) {
  int fd = kest_path_descriptor(file);
  if (fd < 0) return false;
  std::vector<uint8_t> value;
  int present = getFileAttribute(fd, "CLONE", &value);
  close(fd);
  return present == 1;
}

int listClone(const std::string &path, bool del) {
  traceLog("listClone: path %s, del %d: clones cannot be restored\n", path.c_str(), del);
  fprintf(
      stderr,
      "Cannot restore %s: it is a file clone or a clone parent, which this version does not restore.\n",
      path.c_str());
  errno = ENOTSUP;
  return -1;
}
