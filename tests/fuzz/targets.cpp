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

const std::vector<Target> &targets() {
  static const std::vector<Target> all = {
      {"list_record", listRecord},
      {"op_string", opString},
      {"batch_line", batchLine},
      {"record_road", recordRoad},
      {"batches", batches},
      {"checkpoint_line", checkpointLine},
      {"snapshot_list", snapshotList},
      {"fileset_listing", filesetListing},
      {"catalogue_text", catalogueText},
      {"policy_text", policyText},
      {"words", words},
      {"policy_road", policyRoad},
      {"engine_options", engineOptions},
      {"command_line", commandLine},
      {"tree_item", treeItem},
      {"mount_line", mountLine},
      {"attribute_blob", attributeBlob},
      {"access_list", accessList},
      {"control_request", controlRequest},
      {"clone_attribute", cloneAttribute},
  };
  return all;
}

const Target *findTarget(std::string_view name) {
  for (const Target &one : targets())
    if (name == one.name) return &one;
  return nullptr;
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
  std::vector<std::string> found;
  for (;;) {
    const size_t end = input.find('\0');
    found.emplace_back(input.substr(0, end));
    if (end == std::string_view::npos) return found;
    input.remove_prefix(end + 1);
  }
}

}  // namespace fuzz
