#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include "fuzz/fuzz.h"

namespace fuzz {

void broken(const char *property, const char *file, int line) {
  dprintf(STDERR_FILENO, "%s:%d: does not hold: %s\n", file, line, property);
  abort();
}

std::vector<Target> targets() {
  std::vector<Target> all = kRecordTargets;
  all.insert(all.end(), kTextTargets.begin(), kTextTargets.end());
  all.insert(all.end(), kTreeTargets.begin(), kTreeTargets.end());
  return all;
}

const std::string &scratchFolder() {
  static struct Folder {
    Folder() {
      char name[] = "/tmp/fuzz-XXXXXX";
      if (mkdtemp(name)) path = name;
    }
    ~Folder() { std::filesystem::remove_all(path); }
    std::string path;
  } folder;
  return folder.path;
}

std::vector<std::string> pieces(std::string_view input) {
  std::vector<std::string> found(1);
  for (const char c : input) {
    if (c == '\0')
      found.emplace_back();
    else
      found.back() += c;
  }
  return found;
}

}  // namespace fuzz
