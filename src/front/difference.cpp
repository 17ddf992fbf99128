#include "front/difference.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>

#include "formats/program_names.h"
#include "front/program.h"
#include "front/text.h"

namespace front {

namespace {

Effect effectOf(std::string_view kind) {
  static constexpr std::string_view kAttributeKinds[] = {"mode",  "owner", "group",
                                                         "mtime", "xattr", "flags"};
  if (kind == "missing") return Effect::kComesBack;
  if (kind == "extra") return Effect::kGoesAway;
  if (kind == "moved") return Effect::kMovesBack;
  const auto end = std::end(kAttributeKinds);
  return std::find(std::begin(kAttributeKinds), end, kind) != end ? Effect::kAttributes
                                                                  : Effect::kChanges;
}

std::vector<std::string_view> fields(std::string_view line) {
  std::vector<std::string_view> all;
  for (size_t at = 0; at <= line.size();) {
    const size_t end = std::min(line.find('\t', at), line.size());
    all.push_back(line.substr(at, end - at));
    at = end + 1;
  }
  return all;
}

// Returns the first component of the path. Files in the root directory itself are counted together
// under ".".
std::string topDirectory(const ChangedObject &object) {
  const size_t slash = object.path.find('/');
  if (slash != std::string::npos) return object.path.substr(0, slash);
  return object.type == "directory" ? object.path : ".";
}

uint64_t sizeBeneath(int root, const std::string &path) {
  open_how how{};
  how.flags = O_PATH | O_NOFOLLOW | O_CLOEXEC;
  how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_XDEV;
  const UniqueFd fd(static_cast<int>(syscall(SYS_openat2, root, path.c_str(), &how, sizeof how)));
  struct stat status;
  if (!fd || fstat(fd.get(), &status) != 0 || !S_ISREG(status.st_mode)) return 0;
  return static_cast<uint64_t>(status.st_size);
}

}  // namespace

const char *effectName(Effect effect) {
  static constexpr const char *kNames[] = {"comes_back", "goes_away", "changes", "moves_back",
                                           "attributes"};
  return kNames[static_cast<int>(effect)];
}

void DifferenceReader::line(std::string_view text) {
  const std::vector<std::string_view> all = fields(text);
  if (all.size() < 2 || all[0] == "differences") return;
  const std::string kind(all[0]), path = unescaped(all[1]);
  const Effect effect = effectOf(kind);
  ++summary_.kinds[kind];
  ++summary_.lines;
  // A "missing" or "extra" line begins a new object even if the line before it has the same path.
  const bool own = effect == Effect::kComesBack || effect == Effect::kGoesAway;
  if (!open_ || own || object_.path != path || object_.effect == Effect::kGoesAway) {
    end();
    object_ = ChangedObject{};
    object_.path = path;
    object_.effect = effect;
    open_ = true;
  }
  if (effect == Effect::kMovesBack ||
      (effect == Effect::kChanges && object_.effect == Effect::kAttributes))
    object_.effect = effect;
  if (effect == Effect::kMovesBack && all.size() > 2) object_.now = unescaped(all[2]);
  if (own && all.size() > 2) object_.type = all[2];
  if (std::find(object_.kinds.begin(), object_.kinds.end(), kind) == object_.kinds.end())
    object_.kinds.push_back(kind);
}

void DifferenceReader::end() {
  if (!open_) return;
  open_ = false;
  const bool has_size = object_.effect == Effect::kChanges || object_.type == "file";
  if (has_size && size_) object_.bytes = size_(object_);
  for (Count *count : {&summary_.effects[static_cast<size_t>(object_.effect)],
                       &summary_.directories[topDirectory(object_)]}) {
    ++count->objects;
    count->bytes += object_.bytes;
  }
  if (sink_) sink_(object_);
}

Verdict compareWith(const Fileset &fileset, const Snapshot &snapshot, bool full,
                    const DifferenceReader::Sink &sink, Summary *summary) {
  const UniqueFd then(open(snapshot.tree.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  DifferenceReader reader(
      [&](const ChangedObject &object) {
        const bool goes = object.effect == Effect::kGoesAway;
        return sizeBeneath(goes ? fileset.root.get() : then.get(), object.path);
      },
      sink);
  std::vector<std::string> arguments{std::string(kProgramDir) + "fsetcompare",
                                     fileset.device,
                                     "-j",
                                     fileset.name(),
                                     "-o",
                                     snapshot.word};
  if (full) arguments.push_back("--full");
  const int status = runForLines(arguments, [&](std::string_view line) { reader.line(line); });
  reader.end();
  *summary = reader.summary();
  return status == 0 ? Verdict::kEqual : status == 1 ? Verdict::kDifferent : Verdict::kTrouble;
}

}  // namespace front
