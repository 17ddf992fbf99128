// fset complete: prints words for the shell's completion.
#include <cstdio>
#include <string>

#include "front/commands.h"
#include "front/find_fileset.h"
#include "front/json.h"
#include "front/snapshot_store.h"
#include "front/text.h"
#include "front/when.h"

namespace front {

namespace {

// Omits a name with bytes that would be shown differently from what must be typed.
void printWord(const std::string &word, const std::string &date) {
  if (shown(word) == word) printf("%s\t%s\n", word.c_str(), date.c_str());
}

}  // namespace

int completeCommand(const Request &request) {
  const Fileset fileset = findFileset(request.place, false);
  if (request.snapshot == "filesets") {
    for (const std::string &path : fileset.store->filesets(fileset)) printWord(path, "");
  } else {
    for (const Snapshot &one : fileset.store->list(fileset))
      printWord(one.name, localTime(one.created));
  }
  flushOutput();
  return kDone;
}

}  // namespace front
