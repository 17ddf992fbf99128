// fset, the front end for users. It finds filesets and snapshots, asks and reports. Other programs,
// which it starts, decide what can be restored, compare, and restore.
#include <unistd.h>

#include <cstdio>

#include "front/command_line.h"
#include "front/commands.h"
#include "front/json.h"
#include "front/text.h"
#include "front/trouble.h"
#include "messages/catalogue.h"
#include "messages/front_texts.h"

namespace front {

namespace {

int run(const Request &request) {
  if (geteuid() != 0) throw Trouble(frontText(FrontText::kNotRoot));
  if (request.command == "list") return listCommand(request);
  if (request.command == "diff") return diffCommand(request);
  if (request.command == "progress") return progressCommand(request);
  if (request.command == "complete") return completeCommand(request);
  return restoreCommand(request);
}

int fail(const Request &request, const Trouble &trouble) {
  fprintf(stderr, "fset: %s\n", trouble.what());
  for (const std::string &one : trouble.candidates()) fprintf(stderr, "    %s\n", shown(one).c_str());
  const bool changes = request.command == "restore" || request.command == "undo";
  const int status = changes ? kNotDone : kFailed;
  if (!request.json) return status;
  Json object{{"command", request.command}};
  putName(&object, "error", trouble.what());
  object["candidates"] = Json::array();
  for (const std::string &candidate : trouble.candidates()) {
    Json one;
    putName(&one, "path", candidate);
    object["candidates"].push_back(one);
  }
  print(object);
  return status;
}

int runProgram(int argc, char **argv) {
  Request request;
  int status = 0;
  if (!readCommandLine(argc, argv, &request, &status)) return status;
  try {
    return run(request);
  } catch (const Trouble &trouble) {
    return fail(request, trouble);
  }
}

}  // namespace

}  // namespace front

int main(int argc, char **argv) {
  initMessages();
  try {
    return front::runProgram(argc, argv);
  } catch (const std::exception &error) {  // out of memory, or no output
    fprintf(stderr, "fset: %s\n", error.what());
    return front::kFailed;
  }
}
