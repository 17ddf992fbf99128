#include "engine/node_list.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string_view>

#include "base/file_io.h"
#include "base/local_nodes.h"
#include "base/mount_type.h"
#include "formats/work_names.h"

namespace {

// Names go into files of ssh names, where a blank, '/', ':' or '@' at the start would mean something
// else, and into command lines, where '-' would begin an option.
bool isNodeName(std::string_view name) {
  constexpr std::string_view kOthers = "._-@";
  return !name.empty() && name.front() != '-' && name.front() != '@' &&
         std::all_of(name.begin(), name.end(), [&](unsigned char c) {
           return (c < 128 && isalnum(c)) || kOthers.find(static_cast<char>(c)) != kOthers.npos;
         });
}

}  // namespace

bool spansNodes(const std::string &device) {
  struct stat st;
  if (stat(device.c_str(), &st) != 0) return false;
  std::ifstream mounts("/proc/self/mountinfo");
  for (std::string line; std::getline(mounts, line);) {
    unsigned major_no = 0, minor_no = 0;
    if (sscanf(line.c_str(), "%*d %*d %u:%u", &major_no, &minor_no) != 2 ||
        makedev(major_no, minor_no) != st.st_dev)
      continue;
    const size_t at = line.find(" - ");
    if (at == line.npos) continue;
    return isCephFsType(line.substr(at + 3, line.find(' ', at + 3) - at - 3));
  }
  return false;
}

namespace {

bool readNodesFile(std::vector<std::string> *names, std::string *problem) {
  std::ifstream file(kNodesFile);
  if (!file) {
    if (errno == ENOENT) return true;
    *problem = std::string(kNodesFile) + ": " + strerror(errno);
    return false;
  }
  for (std::string line; std::getline(file, line);) {
    std::string name;
    std::istringstream(line.substr(0, line.find('#'))) >> name;
    if (!name.empty()) names->push_back(name);
  }
  return true;
}

}  // namespace

bool resolveNodes(const std::string &list, const std::string &device, std::vector<Node> *nodes,
                  std::string *problem) {
  const bool shared = spansNodes(device);
  std::vector<std::string> names;
  for (size_t at = 0; at <= list.size();) {
    const size_t end = std::min(list.find(',', at), list.size());
    const std::string name = list.substr(at, end - at);
    at = end + 1;
    if (name != "all") {
      names.push_back(name);
      continue;
    }
    const size_t before = names.size();
    if (shared && !readNodesFile(&names, problem)) return false;
    if (names.size() == before) names.emplace_back("localhost");
  }
  nodes->clear();
  size_t number = 0;
  for (const std::string &name : names) {
    const bool local = isThisMachine(name);
    if (!local && !isNodeName(name)) {
      *problem = "\"" + name + "\" is no name of a node";
      return false;
    }
    if (!local && !shared) {
      *problem = "node \"" + name + "\" is not this machine: this file system is local, workers on " +
                 "other nodes need a clustered one";
      return false;
    }
    if (++number > kMostNodes) {
      *problem = "more than " + std::to_string(kMostNodes) + " nodes";
      return false;
    }
    if (std::none_of(nodes->begin(), nodes->end(),
                     [&](const Node &node) { return local ? node.isLocal() : node.name == name; }))
      nodes->push_back({name, local ? 0 : number, 0});
  }
  return true;
}

void dropLostNodes(const RunDirectory &directory, std::vector<Node> *nodes) {
  UniqueFd fd;
  std::string text, name;
  if (!directory.openFile(directory.path() + "/" + kLostNodes, O_RDONLY, &fd) ||
      !readToEnd(fd.get(), &text))
    return;
  for (std::istringstream lines(text); std::getline(lines, name);)
    std::erase_if(*nodes, [&](const Node &node) { return node.name == name; });
}

void divideWorkers(size_t workers, std::vector<Node> *nodes) {
  if (nodes->size() > workers) nodes->resize(workers);
  for (size_t i = 0; i < nodes->size(); ++i)
    (*nodes)[i].share = workers / nodes->size() + (i < workers % nodes->size() ? 1 : 0);
}

bool isLocalAlone(const std::vector<Node> &nodes) {
  return nodes.size() == 1 && nodes.front().isLocal();
}

std::vector<std::string> sshWords(const std::string &node, const std::string &command) {
  std::vector<std::string> words = {kSsh, "-T", "-x"};
  if (access(kSshConfig, F_OK) == 0) words.insert(words.end(), {"-F", kSshConfig});
  for (const char *option : {"BatchMode=yes", "ConnectTimeout=8", "ServerAliveInterval=2",
                             "ServerAliveCountMax=4", "LogLevel=ERROR"})
    words.insert(words.end(), {"-o", option});
  words.insert(words.end(), {node, command});
  return words;
}
