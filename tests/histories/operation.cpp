#include "histories/operation.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <sstream>
#include <stdexcept>
#include <system_error>

#include "support/tree_fingerprint.h"

namespace histories {
namespace {

using testsupport::TreeBuilder;

struct VerbEntry {
  Verb verb;
  const char *name;
  void (*apply)(TreeBuilder &, const Operation &);
};

const VerbEntry kVerbs[] = {
    {Verb::kFile, "file", [](TreeBuilder &t, const Operation &o) { t.big(o.path, o.b, o.a); }},
    {Verb::kDir, "dir",
     [](TreeBuilder &t, const Operation &o) { t.dir(o.path, static_cast<mode_t>(o.a)); }},
    {Verb::kSymlink, "symlink", [](TreeBuilder &t, const Operation &o) { t.symlink(o.other, o.path); }},
    {Verb::kFifo, "fifo", [](TreeBuilder &t, const Operation &o) { t.fifo(o.path); }},
    {Verb::kSocket, "socket", [](TreeBuilder &t, const Operation &o) { t.socket(o.path); }},
    {Verb::kDevice, "device",
     [](TreeBuilder &t, const Operation &o) {
       t.device(o.path, o.a ? S_IFBLK : S_IFCHR, static_cast<unsigned>(o.b),
                static_cast<unsigned>(o.c));
     }},
    {Verb::kLink, "link", [](TreeBuilder &t, const Operation &o) { t.link(o.path, o.other); }},
    {Verb::kRemove, "remove", [](TreeBuilder &t, const Operation &o) { t.remove(o.path); }},
    {Verb::kRemoveTree, "remove-tree",
     [](TreeBuilder &t, const Operation &o) { t.removeTree(o.path); }},
    {Verb::kRename, "rename", [](TreeBuilder &t, const Operation &o) { t.rename(o.path, o.other); }},
    {Verb::kExchange, "exchange",
     [](TreeBuilder &t, const Operation &o) { t.exchange(o.path, o.other); }},
    {Verb::kWrite, "write",
     [](TreeBuilder &t, const Operation &o) { t.pattern(o.path, o.a, o.b, o.c); }},
    {Verb::kZeros, "zeros",
     [](TreeBuilder &t, const Operation &o) { t.write(o.path, o.a, std::string(o.b, '\0')); }},
    {Verb::kTruncate, "truncate", [](TreeBuilder &t, const Operation &o) { t.truncate(o.path, o.a); }},
    {Verb::kPunch, "punch", [](TreeBuilder &t, const Operation &o) { t.punch(o.path, o.a, o.b); }},
    {Verb::kPreallocate, "preallocate",
     [](TreeBuilder &t, const Operation &o) { t.preallocate(o.path, o.a, o.b, o.c != 0); }},
    {Verb::kReflink, "reflink", [](TreeBuilder &t, const Operation &o) { t.reflink(o.path, o.other); }},
    {Verb::kChmod, "chmod",
     [](TreeBuilder &t, const Operation &o) { t.chmod(o.path, static_cast<mode_t>(o.a)); }},
    {Verb::kChown, "chown",
     [](TreeBuilder &t, const Operation &o) {
       t.chown(o.path, static_cast<uid_t>(o.a), static_cast<gid_t>(o.b));
     }},
    {Verb::kSetXattr, "set-xattr",
     [](TreeBuilder &t, const Operation &o) {
       t.setXattr(o.path, o.other, testsupport::patternBytes(o.a, 0, o.b));
     }},
    {Verb::kRemoveXattr, "remove-xattr",
     [](TreeBuilder &t, const Operation &o) { t.removeXattr(o.path, o.other); }},
    {Verb::kSetAcl, "set-acl",
     [](TreeBuilder &t, const Operation &o) {
       t.setXattr(o.path, o.other,
                  testsupport::aclForUser(static_cast<uint32_t>(o.a), static_cast<uint16_t>(o.b)));
     }},
    {Verb::kCapability, "capability",
     [](TreeBuilder &t, const Operation &o) {
       t.setXattr(o.path, "security.capability",
                  std::string("\1\0\0\2\0\4\0\0\0\0\0\0\0\0\0\0\0\0\0\0", 20));
     }},
    {Verb::kMtime, "mtime",
     [](TreeBuilder &t, const Operation &o) {
       t.mtime(o.path, static_cast<int64_t>(o.a), static_cast<long>(o.b));
     }},
    {Verb::kImmutable, "immutable",
     [](TreeBuilder &t, const Operation &o) { t.immutable(o.path, o.a); }},
    {Verb::kAppendOnly, "append-only",
     [](TreeBuilder &t, const Operation &o) { t.appendOnly(o.path, o.a); }},
    {Verb::kNoCow, "nocow", [](TreeBuilder &t, const Operation &o) { t.noCow(o.path, o.a); }},
    {Verb::kCompress, "compress", [](TreeBuilder &t, const Operation &o) { t.compress(o.path, o.a); }},
    {Verb::kCloneParent, "clone-parent",
     [](TreeBuilder &t, const Operation &o) { t.cloneParent(o.path); }},
    {Verb::kClone, "clone", [](TreeBuilder &t, const Operation &o) { t.clone(o.path, o.other); }},
    {Verb::kCommit, "commit",
     [](TreeBuilder &t, const Operation &) {
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
  for (const VerbEntry &entry : kVerbs) {
    if (entry.verb != operation.verb) continue;
    try {
      entry.apply(tree, operation);
      return true;
    } catch (const std::system_error &) {
      return false;
    }
  }
  throw std::logic_error("operation without a verb");
}

std::string print(const Operation &operation) {
  for (const VerbEntry &entry : kVerbs) {
    if (entry.verb != operation.verb) continue;
    return std::string(entry.name) + " " + quoted(operation.path) + " " + quoted(operation.other) +
           " " + std::to_string(operation.a) + " " + std::to_string(operation.b) + " " +
           std::to_string(operation.c);
  }
  throw std::logic_error("operation without a verb");
}

Operation parse(const std::string &line) {
  std::istringstream in(line);
  std::string name;
  in >> name;
  for (const VerbEntry &entry : kVerbs) {
    if (name != entry.name) continue;
    Operation operation{entry.verb, "", "", 0, 0, 0};
    operation.path = readQuoted(in, line);
    operation.other = readQuoted(in, line);
    if (in >> operation.a >> operation.b >> operation.c) return operation;
  }
  throw std::runtime_error("no operation: " + line);
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
    else
      section->push_back(parse(line));
  }
  return history;
}

}  // namespace histories
