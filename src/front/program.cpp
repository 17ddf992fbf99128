#include "front/program.h"

#include <fcntl.h>
#include <poll.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "base/child_process.h"
#include "front/text.h"
#include "front/trouble.h"
#include "messages/front_texts.h"

namespace front {

namespace {

std::vector<char *> pointers(const std::vector<std::string> &words) {
  std::vector<char *> all;
  for (const std::string &word : words) all.push_back(const_cast<char *>(word.c_str()));
  all.push_back(nullptr);
  return all;
}

std::vector<std::string> environmentWith(const std::vector<std::string> &more) {
  std::vector<std::string> all = more;
  for (char **one = environ; *one; ++one) {
    const std::string_view entry = *one, name = entry.substr(0, entry.find('=') + 1);
    if (std::none_of(more.begin(), more.end(), [&](const auto &set) { return set.starts_with(name); }))
      all.emplace_back(entry);
  }
  return all;
}

}  // namespace

Program::Program(const std::vector<std::string> &arguments, Capture capture,
                 const std::vector<std::string> &environment) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0)
    throw Trouble(frontText(FrontText::kCannotStart, shown(arguments[0]), strerror(errno)));
  output_.reset(ends[0]);
  const UniqueFd writing(ends[1]);
  const std::vector<std::string> variables = environmentWith(environment);
  const std::vector<char *> argument_list = pointers(arguments), variable_list = pointers(variables);
  ProcessStart start{argument_list.data(), variable_list.data()};
  start.standard_output = writing.get();
  if (capture == Capture::kBoth) start.standard_error = writing.get();
  start.default_signals = true;
  if (const Result r = startProcess(start, &pid_); !r)
    throw Trouble(frontText(FrontText::kCannotStart, shown(arguments[0]), strerror(r.err)));
}

Program::~Program() {
  if (pid_ > 0 && status_ < 0) {
    output_.reset();
    wait();
  }
}

std::string Program::read(int milliseconds, bool *ended) {
  *ended = false;
  pollfd waiting{output_.get(), POLLIN, 0};
  if (poll(&waiting, 1, milliseconds) <= 0) return "";
  std::string text(64 * 1024, '\0');
  const ssize_t got = ::read(output_.get(), text.data(), text.size());
  if (got < 0 && errno == EINTR) return "";
  *ended = got <= 0;
  text.resize(static_cast<size_t>(std::max<ssize_t>(got, 0)));
  return text;
}

int Program::wait() {
  if (status_ >= 0) return status_;
  int status = 0;
  while (waitpid(pid_, &status, 0) < 0)
    if (errno != EINTR) return status_ = 127;
  status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return status_;
}

int runForOutput(const std::vector<std::string> &arguments, std::string *output,
                 const std::vector<std::string> &environment) {
  Program program(arguments, Program::Capture::kOutput, environment);
  output->clear();
  for (bool ended = false; !ended;) *output += program.read(-1, &ended);
  return program.wait();
}

int runForLines(const std::vector<std::string> &arguments,
                const std::function<void(std::string_view)> &line) {
  Program program(arguments, Program::Capture::kOutput);
  std::string rest;
  for (bool ended = false; !ended;) {
    rest += program.read(-1, &ended);
    size_t start = 0;
    for (size_t end; (end = rest.find('\n', start)) != std::string::npos; start = end + 1)
      line(std::string_view(rest).substr(start, end - start));
    rest.erase(0, start);
  }
  if (!rest.empty()) line(rest);
  return program.wait();
}

}  // namespace front
