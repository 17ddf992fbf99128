#include "cephfs/file_layout.h"

#include <cinttypes>
#include <cstdio>
#include <cstdlib>

namespace kest {

bool FileLayout::parse(std::string_view text) {
  *this = {};
  while (!text.empty()) {
    const std::string_view word = text.substr(0, text.find(' '));
    text.remove_prefix(std::min(text.size(), word.size() + 1));
    const size_t sign = word.find('=');
    if (sign == word.npos) continue;
    const std::string_view key = word.substr(0, sign);
    const std::string value(word.substr(sign + 1));
    if (key == "stripe_unit") stripe_unit = strtoull(value.c_str(), nullptr, 10);
    if (key == "stripe_count") stripe_count = strtoull(value.c_str(), nullptr, 10);
    if (key == "object_size") object_size = strtoull(value.c_str(), nullptr, 10);
    if (key == "pool") pool = value;
    if (key == "pool_namespace") name_space = value;
  }
  return stripe_unit != 0 && stripe_count != 0 && object_size >= stripe_unit &&
         object_size % stripe_unit == 0 && !pool.empty();
}

std::string objectName(uint64_t ino, uint64_t object) {
  char name[48];
  snprintf(name, sizeof name, "%" PRIx64 ".%08" PRIx64, ino, object);
  return name;
}

}  // namespace kest
