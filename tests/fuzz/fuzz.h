// Readers of bytes from outside, each with what must hold of whatever it reads.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace fuzz {

// Ends the program with a message.
[[noreturn]] void broken(const char *property, const char *file, int line);
#define FUZZ_CHECK(property) \
  ((property) ? static_cast<void>(0) : fuzz::broken(#property, __FILE__, __LINE__))

struct Target {
  const char *name;  // of its folder below corpus/, too
  void (*run)(std::string_view input);
};
const std::vector<Target> &targets();
const Target *findTarget(std::string_view name);

// The pieces of an input that stands for several texts: divided by NUL.
std::vector<std::string> pieces(std::string_view input);

// A folder of this process's own, removed at its end.
const std::string &scratchFolder();

void listRecord(std::string_view input);
void opString(std::string_view input);
void batchLine(std::string_view input);
void recordRoad(std::string_view input);
void batches(std::string_view input);
void checkpointLine(std::string_view input);
void snapshotList(std::string_view input);
void filesetListing(std::string_view input);
void catalogueText(std::string_view input);
void policyText(std::string_view input);
void words(std::string_view input);
void policyRoad(std::string_view input);
void engineOptions(std::string_view input);
void commandLine(std::string_view input);
void treeItem(std::string_view input);
void mountLine(std::string_view input);
void attributeBlob(std::string_view input);
void accessList(std::string_view input);
void controlRequest(std::string_view input);
void cloneAttribute(std::string_view input);

}  // namespace fuzz
