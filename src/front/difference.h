// What a restore would change, as fsetcompare tells it, counted and put in order.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "front/fileset.h"
#include "front/snapshots.h"

namespace front {

// What happens to an object in a restore.
enum class Effect { kComesBack, kGoesAway, kChanges, kMovesBack, kAttributes };
inline constexpr size_t kEffects = 5;
// "comes_back" and so on, for JSON.
const char *effectName(Effect effect);

// One object that differs.
struct ChangedObject {
  Effect effect = Effect::kAttributes;
  std::string path;  // raw bytes, below the fileset's root; "." the root. In the snapshot, but of what
                     // goes away in the fileset
  std::string now;   // of what moves back: where it stands
  std::vector<std::string> kinds;  // fsetcompare's words, in its order, each once
  std::string type;                // of what comes back or goes away: "file", "directory", ...
  uint64_t bytes = 0;              // size of a regular file
};

struct Count {
  uint64_t objects = 0;
  uint64_t bytes = 0;  // of regular files: what comes back, goes away, and whole files that change
};

struct Summary {
  std::array<Count, kEffects> effects{};
  std::map<std::string, Count> directories;  // by the first component of the path; "." in the root
  std::map<std::string, uint64_t> kinds;     // lines of fsetcompare, by their first word
  uint64_t lines = 0;                        // all of them
};

enum class Verdict { kEqual = 0, kDifferent = 1, kTrouble = 2 };  // fsetcompare's exit statuses

// Collects the lines of one fsetcompare run: all that follow each other and have one path are one
// object.
class DifferenceReader {
 public:
  using Size = std::function<uint64_t(const ChangedObject &)>;  // asked for objects that may have one
  using Sink = std::function<void(const ChangedObject &)>;
  DifferenceReader(Size size, Sink sink) : size_(std::move(size)), sink_(std::move(sink)) {}

  void line(std::string_view text);
  void end();
  const Summary &summary() const { return summary_; }

 private:
  Size size_;
  Sink sink_;
  Summary summary_;
  ChangedObject object_;
  bool open_ = false;
};

// Runs fsetcompare, which says on standard error what it could not read. `sink` may be empty. Throws
// Trouble only where it cannot be started.
Verdict compareWith(const Fileset &fileset, const Snapshot &snapshot, bool full,
                    const DifferenceReader::Sink &sink, Summary *summary);

}  // namespace front
