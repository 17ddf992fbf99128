// Paths: building and cutting them under the 4096-byte rule.
#pragma once

#include <string>
#include <string_view>

// Appends "/" and `name` in place; false, with `dir` unchanged and path2long and longPath set, when the
// lengths plus 3 are not below 4096.
bool appendPath(std::string &dir, std::string_view name);

// Cuts the last component: a trailing "/" alone, else from the last "/" on, never a "/" at the start.
void cutPath(std::string &path);

// True when `path` is `dir` or begins with `dir` and a slash.
bool liesIn(std::string_view path, std::string_view dir);

// Appends a name for the life of the object and cuts it off again. `ok()` false: too long.
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
