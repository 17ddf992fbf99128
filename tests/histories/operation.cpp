#include "histories/operation.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <map>
#include <sstream>
#include <stdexcept>
#include <system_error>

#include "support/tree_fingerprint.h"

namespace histories {
namespace {

using testsupport::TreeBuilder;

// The fields of an operation that each verb uses besides the path.
const std::map<std::string, void (*)(TreeBuilder &, const Operation &)> kVerbs = {
    // a: pattern seed, b: bytes
    {"file", [](auto &t, auto &o) { t.big(o.path, o.b, o.a); }},
    {"dir", [](auto &t, auto &o) { t.dir(o.path, static_cast<mode_t>(o.a)); }},
    {"symlink", [](auto &t, auto &o) { t.symlink(o.other, o.path); }},
    {"fifo", [](auto &t, auto &o) { t.fifo(o.path); }},
    {"socket", [](auto &t, auto &o) { t.socket(o.path); }},
    // a: 0 character, 1 block; b: major, c: minor
    {"device",
     [](auto &t, auto &o) {
       t.device(o.path, o.a ? S_IFBLK : S_IFCHR, static_cast<unsigned>(o.b),
                static_cast<unsigned>(o.c));
     }},
    {"link", [](auto &t, auto &o) { t.link(o.path, o.other); }},
    {"remove", [](auto &t, auto &o) { t.remove(o.path); }},
    {"remove-tree", [](auto &t, auto &o) { t.removeTree(o.path); }},
    {"rename", [](auto &t, auto &o) { t.rename(o.path, o.other); }},
    {"exchange", [](auto &t, auto &o) { t.exchange(o.path, o.other); }},
    // a: offset, b: length, c: pattern seed
    {"write", [](auto &t, auto &o) { t.pattern(o.path, o.a, o.b, o.c); }},
    {"zeros", [](auto &t, auto &o) { t.write(o.path, o.a, std::string(o.b, '\0')); }},
    {"truncate", [](auto &t, auto &o) { t.truncate(o.path, o.a); }},
    {"punch", [](auto &t, auto &o) { t.punch(o.path, o.a, o.b); }},
    // c: keep size
    {"preallocate", [](auto &t, auto &o) { t.preallocate(o.path, o.a, o.b, o.c != 0); }},
    {"reflink", [](auto &t, auto &o) { t.reflink(o.path, o.other); }},
    {"chmod", [](auto &t, auto &o) { t.chmod(o.path, static_cast<mode_t>(o.a)); }},
    {"chown",
     [](auto &t, auto &o) { t.chown(o.path, static_cast<uid_t>(o.a), static_cast<gid_t>(o.b)); }},
    // other: name; a: value seed, b: value length
    {"set-xattr",
     [](auto &t, auto &o) { t.setXattr(o.path, o.other, testsupport::patternBytes(o.a, 0, o.b)); }},
    // other: algorithm
    {"set-property", [](auto &t, auto &o) { t.setXattr(o.path, "btrfs.compression", o.other); }},
    {"remove-xattr", [](auto &t, auto &o) { t.removeXattr(o.path, o.other); }},
    // other: attribute; a: user, b: rights
    {"set-acl",
     [](auto &t, auto &o) {
       t.setXattr(o.path, o.other,
                  testsupport::aclForUser(static_cast<uint32_t>(o.a), static_cast<uint16_t>(o.b)));
     }},
    {"capability",
     [](auto &t, auto &o) {
       t.setXattr(o.path, "security.capability", std::string("\1\0\0\2\0\4", 6) + std::string(14, '\0'));
     }},
    // a: seconds (signed), b: nanoseconds
    {"mtime",
     [](auto &t, auto &o) {
       t.mtime(o.path, static_cast<int64_t>(o.a), static_cast<long>(o.b));
     }},
    // a: on
    {"immutable", [](auto &t, auto &o) { t.immutable(o.path, o.a); }},
    {"append-only", [](auto &t, auto &o) { t.appendOnly(o.path, o.a); }},
    {"nocow", [](auto &t, auto &o) { t.noCow(o.path, o.a); }},
    {"compress", [](auto &t, auto &o) { t.compress(o.path, o.a); }},
    // a: on, b: FS_*_FL
    {"flag", [](auto &t, auto &o) { t.flag(o.path, static_cast<int>(o.b), o.a); }},
    {"clone-parent", [](auto &t, auto &o) { t.cloneParent(o.path); }},
    {"clone", [](auto &t, auto &o) { t.clone(o.path, o.other); }},
    {"commit",
     [](auto &t, auto &) {
       testsupport::Descriptor fd(open(t.root().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
       if (!fd.valid() || syncfs(fd.get()) != 0) testsupport::failWithErrno("syncfs");
     }},
};

std::string quoted(const std::string &text) {
  return "\"" + testsupport::shown(text) + "\"";
}

std::string readQuoted(std::istringstream &in, const std::string &line) {
  char c = 0;
  in >> c;
  if (c != '"') throw std::runtime_error("no quoted name in: " + line);
  std::string text;
  while (in.get(c) && c != '"') {
    if (c == '\\') {
      char code[3] = {};
      in.get(c);
      in.get(code[0]);
      in.get(code[1]);
      c = static_cast<char>(strtoul(code, nullptr, 16));
    }
    text += c;
  }
  return text;
}

}  // namespace

bool apply(TreeBuilder &tree, const Operation &operation) {
  try {
    kVerbs.at(operation.verb)(tree, operation);
    return true;
  } catch (const std::system_error &) {
    return false;
  }
}

std::string print(const Operation &operation) {
  return operation.verb + " " + quoted(operation.path) + " " + quoted(operation.other) + " " +
         std::to_string(operation.a) + " " + std::to_string(operation.b) + " " +
         std::to_string(operation.c);
}

Operation parse(const std::string &line) {
  std::istringstream in(line);
  Operation operation;
  in >> operation.verb;
  operation.path = readQuoted(in, line);
  operation.other = readQuoted(in, line);
  in >> operation.a >> operation.b >> operation.c;
  if (!in || !kVerbs.count(operation.verb)) throw std::runtime_error("no operation: " + line);
  return operation;
}

std::string print(const History &history) {
  std::string text;
  size_t number = 0;
  auto section = [&](const char *title, const std::vector<Operation> &operations) {
    text += title;
    for (const Operation &operation : operations) {
      char head[16];
      snprintf(head, sizeof head, "%4zu  ", ++number);
      text += head + print(operation) + "\n";
    }
  };
  section("initial:\n", history.initial);
  section("changes:\n", history.changes);
  section("later:\n", history.later);
  return text;
}

History parseHistory(const std::string &text) {
  History history;
  std::vector<Operation> *section = &history.initial;
  std::istringstream in(text);
  std::string line;
  while (std::getline(in, line)) {
    size_t start = line.find_first_not_of(" \t0123456789");
    if (start == std::string::npos) continue;
    line.erase(0, start);
    if (line == "initial:")
      section = &history.initial;
    else if (line == "changes:")
      section = &history.changes;
    else if (line == "later:")
      section = &history.later;
    else
      section->push_back(parse(line));
  }
  return history;
}

}  // namespace histories
