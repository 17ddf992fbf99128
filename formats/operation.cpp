#include "formats/operation.h"

#include <charconv>
#include <cinttypes>
#include <cstdio>

namespace {

// Parses a number at the start of `text` and removes it.
template <typename Number>
bool takeNumber(std::string_view &text, Number *value) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), *value);
  if (error != std::errc()) return false;
  text.remove_prefix(static_cast<size_t>(end - text.data()));
  return true;
}

bool takeComma(std::string_view &text) {
  if (!text.starts_with(',')) return false;
  text.remove_prefix(1);
  return true;
}

}  // namespace

bool Operation::isRange(uint64_t bytes) const {
  return (opCode == kOpRestoreDelFile || opCode == kOpRestoreDiffFile) && length >= bytes;
}

std::string formatOpString(const Operation &op) {
  char text[kOpStringMax + 1];
  snprintf(text, sizeof text, "%" PRId32 ",%" PRId64 ",%" PRIu64 ",%" PRId32 ",%" PRId32, op.opCode,
           op.offset, op.length, op.holeFound, op.clone);
  return text;
}

bool parseOpString(std::string_view text, Operation *op) {
  Operation parsed;
  if (!takeNumber(text, &parsed.opCode) || !takeComma(text) || !takeNumber(text, &parsed.offset) ||
      !takeComma(text) || !takeNumber(text, &parsed.length) || !takeComma(text) ||
      !takeNumber(text, &parsed.holeFound) || !takeComma(text) || !takeNumber(text, &parsed.clone))
    return false;
  *op = parsed;
  return true;
}
