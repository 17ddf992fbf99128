// Builds and cuts paths, which must stay shorter than 4096 bytes.
#pragma once

#include <string>
#include <string_view>

// Appends "/" and `name` in place. If the lengths plus 3 reach 4096, returns false, leaves `dir`
// unchanged and sets path2long and longPath.
bool appendPath(std::string &dir, std::string_view name);

// Cuts the last component. A trailing "/" is cut alone, and a "/" at the start stays.
void cutPath(std::string &path);

// Returns true if `path` is `dir` or lies below it.
bool liesIn(std::string_view path, std::string_view dir);

// Appends a name to a path while the object lives. ok() is false if the path would be too long.
class PathName {
 public:
  PathName(std::string &dir, std::string_view name)
      : dir_(dir), length_(dir.size()), ok_(appendPath(dir, name)) {}
  ~PathName() { dir_.resize(length_); }
  PathName(const PathName &) = delete;
  PathName &operator=(const PathName &) = delete;
  bool ok() const { return ok_; }

 private:
  std::string &dir_;
  size_t length_;
  bool ok_;
};
