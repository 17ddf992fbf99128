// A work directory for one test.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "run/settings.h"
#include "run/trace_log.h"
#include "run/work_dir.h"

class WorkArea : public ::testing::Test {
 protected:
  void SetUp() override {
    settings = Settings();
    char pattern[] = "/tmp/work_area.XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    settings.shareDir = area_ = pattern;
    std::filesystem::create_directory(workPath(kCheckpointDir));
  }
  void TearDown() override {
    closeTraceLog();
    std::filesystem::remove_all(area_);
    settings = Settings();
  }

  // Takes paths in it, or absolute ones.
  std::string at(const std::string &path) const { return std::filesystem::path(area_) / path; }
  void put(const std::string &path, const std::string &text) {
    std::ofstream(at(path), std::ios::binary) << text;
  }
  std::string get(const std::string &path) const {
    std::ostringstream text;
    text << std::ifstream(at(path), std::ios::binary).rdbuf();
    return text.str();
  }
  bool exists(const std::string &path) const { return std::filesystem::exists(at(path)); }

  std::string area_;
};
