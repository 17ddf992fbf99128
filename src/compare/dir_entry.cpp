#include "compare/dir_entry.h"

#include "object/link_count.h"
#include "run/run_handles.h"

bool isDotEntry(std::string_view name) {
  return name == "." || name == "..";
}

bool isQuotaFile(const std::string &directory, const char *name) {
  return directory == handles.rootPath &&
         kest_is_quota_file(handles.activeFsP, directory.c_str(), name) == 1;
}

bool isHardLinked(uint64_t ino) {
  return checkSnapLink(ino) != 0 || checkActiveLink(ino) != 0;
}
