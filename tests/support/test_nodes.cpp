#include "support/test_nodes.h"

#include <dirent.h>
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <memory>

#include "support/loop_btrfs.h"

namespace testsupport {
namespace {

constexpr char kAddress[] = "10.77.0.1";

std::string linkOf(const std::string &path) {
  char text[256];
  const ssize_t length = readlink(path.c_str(), text, sizeof text);
  return length < 0 ? "" : std::string(text, static_cast<size_t>(length));
}

// Calls visit(process ID, command line with blanks between its words).
void eachProcess(const std::function<void(const std::string &, const std::string &)> &visit) {
  const std::unique_ptr<DIR, int (*)(DIR *)> proc(opendir("/proc"), closedir);
  while (const dirent *entry = proc ? readdir(proc.get()) : nullptr) {
    if (atoi(entry->d_name) < 1) continue;
    std::string line = readAll(std::string("/proc/") + entry->d_name + "/cmdline");
    std::replace(line.begin(), line.end(), '\0', ' ');
    visit(entry->d_name, line);
  }
}

}  // namespace

void TestNodes::makeNetwork() {
  if (unshare(CLONE_NEWNET) != 0) failWithErrno("unshare");
  runCommand(std::string("ip link set lo up && ip link add nodes type bridge && ip addr add ") +
             kAddress + "/24 dev nodes && ip link set nodes up");
  setenv("CEPHFS_ADDRESS", kAddress, 1);
}

TestNodes::TestNodes(const std::string &mount, int count) {
  runCommand(std::string(TEST_NODES) + " up " + folder_ + " " + mount + " " + std::to_string(count));
}

TestNodes::~TestNodes() {
  if (system((std::string(TEST_NODES) + " down " + folder_).c_str()) != 0) return;
}

std::vector<std::string> TestNodes::words(int node, std::vector<std::string> command) const {
  command.insert(command.begin(), {"in", folder_, "n" + std::to_string(node)});
  return command;
}

RunOptions TestNodes::options() const {
  return {.program = TEST_NODES, .timeoutSeconds = 280};
}

void TestNodes::shell(int node, const std::string &command) const {
  const RunResult result = runProgram(words(node, {"/bin/sh", "-c", command}), options());
  if (result.exitStatus != 0) throw std::runtime_error(command + ": " + result.describe());
}

void TestNodes::change(const std::string &verb, int node) const {
  runCommand(std::string(TEST_NODES) + " " + verb + " " + folder_ + " n" + std::to_string(node));
}

pid_t TestNodes::find(int node, const std::string &text) const {
  const std::string init = readAll(folder_ + "/n" + std::to_string(node) + ".pid");
  const std::string names = linkOf("/proc/" + std::to_string(atoi(init.c_str())) + "/ns/uts");
  pid_t found = 0;
  eachProcess([&](const std::string &pid, const std::string &line) {
    if (line.find(text) != line.npos && linkOf("/proc/" + pid + "/ns/uts") == names)
      found = atoi(pid.c_str());
  });
  return found;
}

std::vector<std::string> TestNodes::atWork() {
  std::vector<std::string> found;
  eachProcess([&](const std::string &, const std::string &line) {
    for (const char *program : {"/usr/qtx/kest/bin/", "/usr/bin/ssh ", "/usr/bin/parallel"})
      if (line.find(program) != line.npos && line.find("test-nodes") == line.npos) {
        found.push_back(line);
        break;
      }
  });
  return found;
}

}  // namespace testsupport
