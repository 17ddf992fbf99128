// Cuts a list into the parts that nodes get.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "base/result.h"
#include "engine/node_list.h"
#include "formats/list_record.h"

// A range of a list, in bytes, that begins and ends between records.
struct ListPart {
  uint64_t from = 0, to = 0;
  uint64_t records = 0;
};

// Cuts the list, which has been read once without an error. The parts become smaller towards its end,
// so that the nodes finish at about the same time. Records of one aggregate stay in one part, unless
// that would grow to twice its size. rc of a failure is the errno.
Result cutList(ListReader *list, size_t nodes, std::vector<ListPart> *parts);

// What the engine tells the engine of a node about its part, as one word.
struct PartOrder {
  uint64_t from = 0, to = 0;
  uint64_t directory = 0;  // inode number of the run directory
  std::vector<Node> nodes;
};
std::string formatPartOrder(const PartOrder &order);
bool parsePartOrder(const std::string &text, PartOrder *order);
