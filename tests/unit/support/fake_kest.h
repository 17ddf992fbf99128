// A stand-in for the client library, for what no kernel produces on request: chosen errors at chosen
// calls, scans with chosen inodes, short reads. A test program that links it uses it instead of
// libkest.so. Path calls work on a temporary folder, which holds the fileset, the snapshot and the work
// directory; the flags that a call meets are the fake's own.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "kest.h"

struct FakeKest {
  // The error number that the call fails with, 0: it is performed. `call` without the prefix kest_.
  std::function<int(const std::string &call, const std::string &path)> fault;
  std::vector<std::string> calls;         // "name path", the ones that change something
  std::set<std::string> immutable;        // paths, as the calls name them
  std::map<std::string, uint64_t> inoOf;  // paths whose inode number is another than the folder's
  std::set<uint64_t> replaced;            // numbers that mean another file in the snapshot
  std::map<std::string, std::vector<uint8_t>> attributes;  // of any file, by name
  std::vector<std::vector<uint8_t>> requests;              // flags requests, as they came

  std::vector<uint64_t> scanned;  // what the difference scan returns
  size_t scanPosition = 0;
  int scanError = 0;

  // Incremental reads and writes: what the next ones answer; afterwards they do all that is asked.
  std::vector<int64_t> reads, writes;
  bool readHole = false;
  int ioError = 0;  // errno of an answer below 0

  size_t count(const std::string &call) const;
};
extern FakeKest fakeKest;

// A folder with fileset, snapshot and work directory, and the handles for them.
class FakeFileset : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  std::string active(const std::string &name) const;
  std::string snap(const std::string &name) const;
  // Makes a file or directory in one tree or both; in both, they are the same inode.
  void makeFile(const std::string &path, const std::string &text = "");
  void makeDir(const std::string &path);
  void inBoth(const std::string &name, bool directory, uint64_t ino);
  static uint64_t inoOf(const std::string &path);
  static std::string read(const std::string &path);
  std::string traces() const;

  std::string folder_;
};
