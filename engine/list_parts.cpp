#include "engine/list_parts.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <sstream>

#include "formats/operation.h"

namespace {

constexpr uint64_t kLeast = 100;       // weight of the smallest part
constexpr uint64_t kPartsOfNode = 16;  // more parts would cost more than they balance
constexpr uint64_t kTreeWeight = 100;  // a record of a directory, which can mean a whole tree
// Each group needs a worker of its own, so a part of one or two groups would keep a node's other
// workers idle.
constexpr uint64_t kGroupWeight = 25;
constexpr uint64_t kBytesOfRecord = 1 << 20;

// How much work a record is, compared with a small file.
uint64_t weight(const ListedRecord &record) {
  Operation op;
  if (!parseOpString(record.opString, &op)) return 1;
  if (op.opCode == kOpCrDir || op.opCode == kOpDelDir) return kTreeWeight;
  if (op.opCode == kOpCompareGroup) return kGroupWeight;
  return 1 + op.length / kBytesOfRecord;
}

}  // namespace

Result cutList(ListReader *list, size_t nodes, std::vector<ListPart> *parts) {
  ListedRecord record;
  bool end = false;
  uint64_t total = 0;
  list->seek(0);
  for (Result r; !end;) {
    if (r = list->next(&record, &end); !r) return r;
    if (!end) total += weight(record);
  }
  parts->clear();
  list->seek(0);
  const uint64_t least = std::max(kLeast, total / (kPartsOfNode * nodes));
  uint64_t left = total, want = 0, have = 0;
  int64_t aggregate = 0;
  for (end = false; !end;) {
    const uint64_t at = list->position();
    if (Result r = list->next(&record, &end); !r) return r;
    if (end) break;
    const bool begins =
        parts->empty() || (have >= want && record.aggregate != aggregate) || have >= 2 * want;
    if (begins) {
      left -= have;
      want = std::max(least, left / (2 * nodes));
      have = 0;
      parts->push_back({at, at, 0});
    }
    have += weight(record);
    aggregate = record.aggregate;
    parts->back().to = list->position();
    ++parts->back().records;
  }
  list->seek(0);
  return {};
}

std::string formatPartOrder(const PartOrder &order) {
  std::string text = std::to_string(order.from) + ":" + std::to_string(order.to) + ":" +
                     std::to_string(order.directory);
  for (const Node &node : order.nodes)
    text += ":" + node.name + "/" + std::to_string(node.number) + "/" + std::to_string(node.share);
  return text;
}

bool parsePartOrder(const std::string &text, PartOrder *order) {
  std::string word;
  std::istringstream words(text);
  const auto number = [&](uint64_t *value) {
    return bool{std::getline(words, word, ':')} && sscanf(word.c_str(), "%" SCNu64, value) == 1;
  };
  if (!number(&order->from) || !number(&order->to) || !number(&order->directory)) return false;
  while (std::getline(words, word, ':')) {
    Node node;
    const size_t slash = word.find('/');
    if (slash == word.npos || sscanf(word.c_str() + slash, "/%zu/%zu", &node.number, &node.share) != 2)
      return false;
    node.name = word.substr(0, slash);
    order->nodes.push_back(std::move(node));
  }
  return !order->nodes.empty();
}
