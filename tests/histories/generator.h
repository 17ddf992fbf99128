// generator.h: generates random histories against a live tree, so that operations meet existing
// objects, even those made since the snapshot. A seed and a profile give the same history everywhere.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "histories/operation.h"
#include "histories/random.h"
#include "support/tree_builder.h"

namespace histories {

// data   changed, grown, shrunk, punched, preallocated, replaced files; no renames
// attrs  modes, owners, ACLs, extended attributes, times, flags; no renames
// trees  objects and whole trees created, deleted, replaced by other kinds; no renames, no hard links
// names  renames, swaps, rings, parent and child exchanged, into new, moved and deleted directories
// links  hard links of everything but directories, added, removed, moved; with renames
// flags  immutable and append-only set or cleared, among changes of every kind
// clones clone parents, clones and clones of clones made, changed, renamed, linked, removed; and more
// all    everything but clones

class Generator {
 public:
  static std::vector<std::string> profiles();
  Generator(const std::string &profile, uint64_t seed);

  // Both apply what they generate and return it, without operations that the kernel refused, unless
  // these may have been done in part.
  std::vector<Operation> buildInitial(testsupport::TreeBuilder &tree);
  std::vector<Operation> change(testsupport::TreeBuilder &tree);

 private:
  struct Weights;
  static const std::vector<std::pair<std::string, Weights>> &table();

  void perform(const Operation &operation);
  void perform(const char *verb, const std::string &path = "", const std::string &other = "") {
    perform(Operation{verb, path, other});
  }
  void look();  // rereads the names of the tree
  std::string freshName();
  std::string freshPath();
  std::string anyPath();  // new, gone since the snapshot, or taken
  uint64_t fileSize();

  void createFile(const std::string &path);
  void create(const std::string &path, char kind);
  char anyKind();
  void changeData(const std::string &path);
  void changeAttribute(const std::string &path);
  void changeFlag(const std::string &path, unsigned percentOn);
  void setTime(const std::string &path);
  void exchangeParentAndChild();
  void ring();
  void newTreeThatTakesIn();
  void changeClones();
  void unlockParents();  // so that the next operations can change them
  void replaceKind(const std::string &path);
  void oneChange();

  const Weights &weights_;
  Random random_;
  testsupport::TreeBuilder *tree_ = nullptr;
  std::vector<Operation> done_;
  std::vector<std::string> paths_, dirs_, files_, others_;  // sorted; others_: no directories
  std::vector<std::string> parents_;                        // clone parents
  std::vector<std::string> snapshotPaths_;
  unsigned counter_ = 0;
  unsigned flagPercent_ = 0;
  bool deep_ = false, hostile_ = false;
};

}  // namespace histories
