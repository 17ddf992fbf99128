#include "front/info_files.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <charconv>
#include <nlohmann/json.hpp>

#include "base/file_io.h"
#include "base/unique_fd.h"

namespace front {

namespace {

constexpr size_t kMost = 256 * 1024;  // most bytes that are read of a file

// Returns the text of the first element that has this name and no attributes, unchanged.
std::optional<std::string_view> element(std::string_view text, const std::string &name) {
  const std::string opening = "<" + name + ">", closing = "</" + name + ">";
  const size_t start = text.find(opening);
  if (start == std::string_view::npos) return std::nullopt;
  text.remove_prefix(start + opening.size());
  const size_t end = text.find(closing);
  if (end == std::string_view::npos) return std::nullopt;
  return text.substr(0, end);
}

std::string withoutEntities(std::string_view text) {
  static constexpr std::pair<std::string_view, char> kEntities[] = {
      {"&amp;", '&'}, {"&lt;", '<'}, {"&gt;", '>'}, {"&quot;", '"'}, {"&apos;", '\''}};
  std::string plain;
  while (!text.empty()) {
    size_t taken = 1;
    char c = text.front();
    for (const auto &[entity, meant] : kEntities) {
      if (!text.starts_with(entity)) continue;
      taken = entity.size();
      c = meant;
    }
    plain += c;
    text.remove_prefix(taken);
  }
  return plain;
}

}  // namespace

std::optional<SnapperInfo> parseSnapperInfo(std::string_view text) {
  if (text.find("<snapshot>") == std::string_view::npos) return std::nullopt;
  const auto number = element(text, "num");
  SnapperInfo info;
  if (!number) return std::nullopt;
  const char *end = number->data() + number->size();
  const auto [stop, error] = std::from_chars(number->data(), end, info.number);
  if (error != std::errc() || stop != end) return std::nullopt;
  if (const auto description = element(text, "description"))
    info.description = withoutEntities(*description);
  return info;
}

std::optional<std::string> parseTimeshiftInfo(std::string_view text) {
  const auto info = nlohmann::json::parse(text, nullptr, false);
  if (!info.is_object() || !info.contains("created")) return std::nullopt;
  const auto word = [&](const char *key) {
    const auto at = info.find(key);
    return at != info.end() && at->is_string() ? at->get<std::string>() : std::string();
  };
  const std::string comment = word("comments"), tags = word("tags");
  return comment.empty() ? tags : comment;
}

std::optional<std::string> readInfoFile(int dir, const std::string &path) {
  open_how how{};
  how.flags = O_RDONLY | O_CLOEXEC | O_NONBLOCK;
  // Without RESOLVE_NO_XDEV, because a folder of snapshots can be a subvolume.
  how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS;
  const UniqueFd fd(static_cast<int>(syscall(SYS_openat2, dir, path.c_str(), &how, sizeof how)));
  struct stat status;
  std::string text;
  if (!fd || fstat(fd.get(), &status) != 0 || !S_ISREG(status.st_mode)) return std::nullopt;
  if (!readToEnd(fd.get(), &text, kMost)) return std::nullopt;
  return text;
}

}  // namespace front
