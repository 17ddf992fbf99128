// Reads what a restore would change from fsetcompare, and counts and sorts it.
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

// What a restore does to an object.
enum class Effect { kComesBack, kGoesAway, kChanges, kMovesBack, kAttributes };
inline constexpr size_t kEffects = 5;
// Returns "comes_back" and so on, for JSON.
const char *effectName(Effect effect);

// One object that differs.
struct ChangedObject {
  Effect effect = Effect::kAttributes;
  // Raw bytes, below the root, which is "."; a path of the fileset for an object that goes away, else
  // of the snapshot.
  std::string path;
  std::string now;                 // present path of an object that moves back
  std::vector<std::string> kinds;  // the words of fsetcompare, in its order, without repetitions
  std::string type;                // of what comes back or goes away: "file", "directory", ...
  uint64_t bytes = 0;              // size of a regular file
};

struct Count {
  uint64_t objects = 0;
  uint64_t bytes = 0;  // of regular files that come back, go away, or change (whole size)
};

struct Summary {
  std::array<Count, kEffects> effects{};
  std::map<std::string, Count> directories;  // key: first component of the path; "." in the root
  std::map<std::string, uint64_t> kinds;     // number of fsetcompare's lines, by their first word
  uint64_t lines = 0;                        // number of all lines
};

enum class Verdict { kEqual = 0, kDifferent = 1, kTrouble = 2 };  // fsetcompare's exit statuses

// Reads the output of one fsetcompare run. Consecutive lines with one path form one object.
class DifferenceReader {
 public:
  using Size = std::function<uint64_t(const ChangedObject &)>;  // for objects that may have one
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

// Runs fsetcompare, which itself prints on standard error what it could not read. `sink` may be empty.
// Throws Trouble only if fsetcompare cannot be started.
Verdict compareWith(const Fileset &fileset, const Snapshot &snapshot, bool full,
                    const DifferenceReader::Sink &sink, Summary *summary);

}  // namespace front
