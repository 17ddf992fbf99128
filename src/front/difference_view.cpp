#include "front/difference_view.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <string_view>
#include <utility>
#include <vector>

#include "front/text.h"
#include "messages/front_texts.h"

namespace front {

namespace {

constexpr size_t kMostDirectories = 10;
constexpr size_t kCountWidth = 10, kBytesWidth = 13;
constexpr char kSigns[] = {'+', '-', '~', '>', '='};
constexpr const char *kColours[] = {"\033[32m", "\033[31m", "\033[33m", "\033[34m", "\033[36m"};
constexpr char kPlain[] = "\033[0m";

std::string effectText(Effect effect) {
  switch (effect) {
    case Effect::kComesBack:
      return frontText(FrontText::kComesBack);
    case Effect::kGoesAway:
      return frontText(FrontText::kGoesAway);
    case Effect::kChanges:
      return frontText(FrontText::kChanges);
    case Effect::kMovesBack:
      return frontText(FrontText::kMovesBack);
    case Effect::kAttributes:
      break;
  }
  return frontText(FrontText::kAttributes);
}

std::string row(const std::string &label, size_t width, const Count &count) {
  std::string line =
      "  " + padded(label, width) + rightAligned(std::to_string(count.objects), kCountWidth);
  if (count.bytes > 0) line += rightAligned(byteText(count.bytes), kBytesWidth);
  return line + "\n";
}

}  // namespace

bool inColour() {
  const char *terminal = getenv("TERM");
  const char *no_colour = getenv("NO_COLOR");
  return isatty(STDOUT_FILENO) && !(no_colour && *no_colour) && terminal &&
         std::string_view(terminal) != "dumb";
}

std::string summaryText(const Summary &summary) {
  std::vector<std::pair<std::string, Count>> directories(summary.directories.begin(),
                                                         summary.directories.end());
  std::stable_sort(directories.begin(), directories.end(),
                   [](const auto &a, const auto &b) { return a.second.objects > b.second.objects; });
  Count others;
  for (size_t at = kMostDirectories; at < directories.size(); ++at) {
    others.objects += directories[at].second.objects;
    others.bytes += directories[at].second.bytes;
  }
  directories.resize(std::min(directories.size(), kMostDirectories));
  for (auto &[path, count] : directories) path = shown(path);
  if (others.objects > 0) directories.emplace_back(frontText(FrontText::kOtherDirectories), others);

  size_t width = 0;
  std::vector<std::pair<std::string, Count>> effects;
  for (size_t at = 0; at < kEffects; ++at) {
    if (summary.effects[at].objects == 0) continue;
    effects.emplace_back(kSigns[at] + (" " + effectText(static_cast<Effect>(at))), summary.effects[at]);
    width = std::max(width, columns(effects.back().first));
  }
  for (const auto &[path, count] : directories) width = std::max(width, columns(path));
  std::string text = "  " + padded("", width) +
                     rightAligned(frontText(FrontText::kObjectsColumn), kCountWidth) +
                     rightAligned(frontText(FrontText::kBytesColumn), kBytesWidth) + "\n";
  for (const auto &[label, count] : effects) text += row(label, width, count);
  text += "  " + frontText(FrontText::kByDirectory) + "\n";
  for (const auto &[label, count] : directories) text += row(label, width, count);
  return text;
}

std::string objectLine(const ChangedObject &object, bool colour) {
  const auto at = static_cast<size_t>(object.effect);
  std::string line = kSigns[at] + (" " + shown(object.path));
  if (colour) line = kColours[at] + line + kPlain;
  std::string details;
  const auto add = [&](const std::string &detail) {
    details += (details.empty() ? "" : ", ") + detail;
  };
  if (object.effect == Effect::kMovesBack) add(frontText(FrontText::kStandsAt, shown(object.now)));
  if (!object.type.empty()) {
    add(object.type);
  } else {
    for (const std::string &kind : object.kinds)
      if (kind != "moved") add(kind);
  }
  if (object.bytes > 0) add(byteText(object.bytes));
  return line + (details.empty() ? "" : "  (" + details + ")") + "\n";
}

}  // namespace front
