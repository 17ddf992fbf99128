#include "engine/node_ask.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "base/child_process.h"
#include "base/file_io.h"
#include "base/unique_fd.h"

namespace {

constexpr int kSshFailed = 255;
constexpr size_t kMost = 4096;  // bytes of an answer that count

struct Question {
  const Node *node;
  UniqueFd out, err;
  pid_t child = 0;
  Result started;
};

Result ask(const std::string &command, Question *question) {
  question->out.reset(memfd_create("answer", MFD_CLOEXEC));
  question->err.reset(memfd_create("errors", MFD_CLOEXEC));
  const UniqueFd null(open("/dev/null", O_RDONLY | O_CLOEXEC));
  if (!question->out || !question->err || !null) return failedErrno(0);
  std::vector<std::string> words = sshWords(question->node->name, command);
  std::vector<char *> arguments;
  for (std::string &word : words) arguments.push_back(word.data());
  arguments.push_back(nullptr);
  ProcessStart start{arguments.data(), environ};
  start.standard_input = null.get();
  start.standard_output = question->out.get();
  start.standard_error = question->err.get();
  return startProcess(start, &question->child);
}

std::string textOf(const UniqueFd &fd) {
  std::string text;
  lseek(fd.get(), 0, SEEK_SET);
  if (!readToEnd(fd.get(), &text, kMost)) text.clear();
  while (!text.empty() && text.back() == '\n') text.pop_back();
  return text;
}

// Returns what keeps the node from taking part, or "".
std::string problemOf(const Question &question, const std::string &answer) {
  if (!question.started) return strerror(question.started.err);
  int status = 0;
  while (waitpid(question.child, &status, 0) < 0)
    if (errno != EINTR) return strerror(errno);
  const std::string said = textOf(question.out), errors = textOf(question.err);
  if (WIFEXITED(status) && WEXITSTATUS(status) == kSshFailed) return "cannot be reached: " + errors;
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) return errors.empty() ? said : errors;
  if (said == answer) return "";
  return "it has \"" + said + "\", and not \"" + answer + "\"";
}

}  // namespace

bool askNodes(const std::vector<Node> &nodes, const std::string &command, const std::string &answer) {
  std::vector<Question> questions;
  for (const Node &node : nodes) {
    if (node.isLocal()) continue;
    questions.push_back({&node, {}, {}, 0, {}});
    questions.back().started = ask(command, &questions.back());
  }
  bool good = true;
  for (const Question &question : questions) {
    const std::string problem = problemOf(question, answer);
    if (problem.empty()) continue;
    good = false;
    fprintf(stderr, "node %s: %s\n", question.node->name.c_str(), problem.c_str());
  }
  return good;
}
