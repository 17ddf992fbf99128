#include "records/side_lists.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <set>
#include <unordered_set>
#include <utility>
#include <vector>

#include "base/file_io.h"
#include "messages/messages.h"
#include "run/node.h"
#include "run/settings.h"
#include "run/trace_log.h"
#include "run/work_dir.h"
#include "run/work_file.h"

namespace {

// Step codes of the routines in this file, as they appear in the trace log.
enum SideListStep : int { kOpenSideList = 1, kAppendSideRecord = 2 };
enum CloneListStep : int { kOpenCloneList = 3, kAppendDeletion = 4, kAppendCreation = 5 };

std::set<std::string> unsynced_lists;  // lists of this node that syncSideLists must write

// Appends one record to a list that several processes append to, and counts it. The counter advances
// only if the record was written. rc of a failure is the errno; its code is kOpenSideList if the list
// could not be opened.
Result appendSideRecord(const std::string &list_path, const std::string &close_name, uint64_t ino,
                        std::string_view path, OpCode op) {
  std::unique_ptr<WorkFile> list;
  if (Result r = WorkFile::open(list_path, WorkFile::Mode::kShared, &list); !r)
    return r.at(kOpenSideList);
  AggregateCounter next = aggregates.regPend;
  next.countRecord(settings.unitSize);
  if (Result r = list->appendRecord(next.iAgg, ino, path, {.opCode = op}); !r)
    return r.at(kAppendSideRecord);
  aggregates.regPend = next;
  if (nodeNumber() != 0) unsynced_lists.insert(list_path);
  reportOpCount(false);
  return closeWorkFile(list, close_name).at(kAppendSideRecord);
}

void traceIfUnopened(const char *routine, const std::string &list, uint64_t ino, const Result &r) {
  if (r.code != kOpenSideList) return;
  traceLog("%s: open %s failed, ino %lld, err %d\n", routine, list.c_str(), static_cast<long long>(ino),
           r.err);
}

// A hash set of numbers that takes 8 to 16 bytes for each.
class NumberSet {
 public:
  bool contains(uint64_t number) const;
  // Returns true if the number was not in the set.
  bool insert(uint64_t number);

 private:
  // Returns the index at which `number` stands or belongs in `places`, whose size is a power of two.
  static size_t placeOf(const std::vector<uint64_t> &places, uint64_t number);
  void grow();

  std::vector<uint64_t> places_;  // 0 marks a free place
  size_t used_ = 0;
  bool has_zero_ = false;
};

size_t NumberSet::placeOf(const std::vector<uint64_t> &places, uint64_t number) {
  const size_t mask = places.size() - 1;
  size_t at = (number * 0x9e3779b97f4a7c15u >> 20) & mask;
  while (places[at] != 0 && places[at] != number) at = (at + 1) & mask;
  return at;
}

bool NumberSet::contains(uint64_t number) const {
  if (number == 0) return has_zero_;
  return !places_.empty() && places_[placeOf(places_, number)] == number;
}

bool NumberSet::insert(uint64_t number) {
  if (number == 0) {
    const bool added = !has_zero_;
    has_zero_ = true;
    return added;
  }
  if ((used_ + 1) * 8 > places_.size() * 7) grow();
  uint64_t &place = places_[placeOf(places_, number)];
  if (place == number) return false;
  place = number;
  ++used_;
  return true;
}

void NumberSet::grow() {
  std::vector<uint64_t> wider(places_.empty() ? 64 : places_.size() * 2);
  for (const uint64_t number : places_)
    if (number != 0) wider[placeOf(wider, number)] = number;
  places_ = std::move(wider);
}

NumberSet listed_links;
std::unordered_set<uint64_t> listed_clones;

}  // namespace

Result listNewDir(const std::string &path, uint64_t ino) {
  const std::string list = workPath(nodeFileName(kDirNew, nodeNumber()));
  const Result r = appendSideRecord(list, list, ino, path, kOpCrDir);
  if (r) return {};
  traceIfUnopened("listNewDir", list, ino, r);
  traceLog("listNewDir: path %s, ino %lld, rc %d, code %d, err %d\n", path.c_str(),
           static_cast<long long>(ino), r.rc, r.code, r.err);
  return r;
}

Result listPendingMove(uint64_t ino) {
  const std::string list = workPath(nodeFileName(kRegPendingMvList, nodeNumber()));
  const Result r = appendSideRecord(list, kRegPendingMvList, ino, tempLocation(ino), kOpMoveFile);
  if (r) return {};
  traceIfUnopened("ListRegpendingMvBack", list, ino, r);
  traceLog("ListRegpendingMvBack: ino %lld, opCode %d, rc %d, code %d, err %d\n",
           static_cast<long long>(ino), kOpMoveFile, r.rc, r.code, r.err);
  return r;
}

Result listLink(const std::string &path, uint64_t ino) {
  const long long number = static_cast<long long>(ino);
  if (listed_links.contains(ino)) {
    traceLog("listLink: ino %lld is record, skip it.\n", number);
    return {};
  }
  const std::string list = workPath(kLinkIno);
  const Result r = appendSideRecord(list, list, ino, path, kOpLinkFile);
  traceIfUnopened("listLink", list, ino, r);
  traceLog("listLink: path %s, ino %lld, rc %d, code %d, err %d\n", path.c_str(), number, r ? 0 : -1,
           r ? 0 : r.code, r.err);
  if (!r) return failed(r.code, r.err);
  listed_links.insert(ino);
  return {};
}

Result gatherNodeLists(const std::string &name) {
  Dir dir;
  std::vector<std::string> found;
  if (Result r = openWorkList(settings.shareDir, &dir); !r) return r;
  for (const dirent *entry = nullptr;;) {
    if (Result r = nextEntry(dir, &entry); !r) return r;
    if (entry == nullptr) break;
    if (isNodeFile(entry->d_name, name)) found.push_back(workPath(entry->d_name));
  }
  struct stat lost;
  const bool nodes_lost{statWorkFile(workPath(kLostNodes), &lost)};
  for (const std::string &path : found) {
    ListReader records;
    std::unique_ptr<WorkFile> list;
    if (Result r = openList(path, &records); !r) return r;
    if (Result r = WorkFile::open(workPath(name), WorkFile::Mode::kKeep, &list); !r) return r;
    for (bool end = false; !end;) {
      ListedRecord record;
      const Result r = records.next(&record, &end);
      // The last records of a lost node may be torn. The nodes that did its work again have them, too.
      if (r.err == EINVAL && nodes_lost) {
        traceLog("gatherNodeLists: %s ends in the middle of a record, %s\n", path.c_str(),
                 records.problem().c_str());
        break;
      }
      if (!r) return r;
      if (end) break;
      if (Result written = list->append(record.whole); !written) return written;
    }
    if (Result r = list->close(); !r) return r;
    if (Result r = unlinkWorkFile(path); !r) return r;
  }
  return {};
}

Result syncSideLists() {
  for (; !unsynced_lists.empty(); unsynced_lists.erase(unsynced_lists.begin())) {
    UniqueFd fd;
    if (Result r = openWorkFile(*unsynced_lists.begin(), O_WRONLY, &fd); !r) return r;
    if (Result r = called(fdatasync(fd.get())); !r) return r;
  }
  return {};
}

bool firstCloneListing(uint64_t ino) {
  return listed_clones.insert(ino).second;
}

Result listClone(const std::string &path, bool del, const CloneAttr &attr) {
  // Clones too deep for a list of their own share the deepest one. Their deletion needs no order.
  const int depth = del ? std::min<int>(attr.depth(), kDeepestDeleted) : attr.depth();
  if (depth > kDeepestRestored && !del) {
    userMessage(Message::kCloneListTooDeep, kDeepestRestored, path);
    return errnoResult(EINVAL);
  }
  const long long parent = static_cast<long long>(attr.parentIno());
  traceLog("listClone: path %s , realPath %s, fileSnapPath %s, ino %lld, depth %d del %d\n",
           path.c_str(), "", del ? path.c_str() : "", parent, depth, del);
  const std::string list = del ? cloneDeleteList(depth) : cloneList(depth);
  const Result r =
      appendSideRecord(list, list, attr.parentIno(), path, del ? kOpDeleteFile : kOpCloneFile);
  if (r) return {};
  traceIfUnopened("listClone", list, attr.parentIno(), r);
  const int code = r.code == kOpenSideList ? int{kOpenCloneList}
                   : del                   ? int{kAppendDeletion}
                                           : int{kAppendCreation};
  traceLog("listClone: path %s, ino %lld, rc %d, code %d, err %d\n", path.c_str(), parent, r.rc, code,
           r.err);
  return r.at(code);
}
