#include "compare/dir_entry.h"

#include "run/run_handles.h"

bool isDotEntry(std::string_view name) {
  return name == "." || name == "..";
}

bool isQuotaFile(const std::string &directory, const char *name) {
  return directory == handles.rootPath &&
         kest_is_quota_file(handles.activeFsP, directory.c_str(), name) == 1;
}
