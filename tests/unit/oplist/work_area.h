// A work directory of its own for one test.
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
    char pattern[] = "/tmp/oplist_test.XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    settings.shareDir = pattern;
    std::filesystem::create_directory(workPath(kCheckpointDir));
  }
  void TearDown() override {
    closeTraceLog();
    std::filesystem::remove_all(settings.shareDir);
  }

  static void put(const std::string &path, const std::string &text) {
    std::ofstream(path, std::ios::binary) << text;
  }
  static std::string get(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
  }
  static bool exists(const std::string &path) { return std::filesystem::exists(path); }
};
