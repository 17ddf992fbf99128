// A fileset on a real file system, its snapshot, and handles and work directory for a run.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>

#include "run/run_handles.h"
#include "run/settings.h"
#include "run/trace_log.h"
#include "run/work_dir.h"
#include "run/work_file.h"
#include "support/loop_btrfs.h"
#include "support/tree_builder.h"

// Called before a library call that removes or moves a name. Returns the errno with which the call
// fails, or 0 to perform it. Null: perform all.
extern std::function<int(const std::string &call)> refusal;

class RealFileset : public ::testing::Test {
 protected:
  // The snapshot is empty until takeSnapshot().
  void SetUp() override {
    settings = Settings();
    settings.shareDir = active("RestoreTemp47");
    settings.pass = 1;
    settings.topDir = false;
    handles.rootPath = tree.root();
    takeSnapshot();
    tree.dirs("RestoreTemp47/checkpoint");
  }
  void TearDown() override {
    refusal = nullptr;
    closeTraceLog();
    closeWorkDirectory();
    closeHandles();
    settings = Settings();
  }
  void takeSnapshot() {
    closeHandles();
    const std::string name = "snap" + std::to_string(++snapshots_);
    handles.snapRootPath = btrfs.snapshot("home", name);
    const char *device = btrfs.mountPoint().c_str();
    handles.activeFsP = kest_get_fset_snaphandle_by_name(device, "home", nullptr);
    handles.oldFsP = kest_get_fset_snaphandle_by_name(device, "home", name.c_str());
    ASSERT_TRUE(handles.activeFsP && handles.oldFsP) << kest_error_text();
  }
  void closeHandles() {
    if (handles.oldFsP) kest_free_fssnaphandle(handles.oldFsP);
    if (handles.activeFsP) kest_free_fssnaphandle(handles.activeFsP);
    handles.oldFsP = handles.activeFsP = nullptr;
  }

  std::string active(const std::string &name) const { return tree.root() + "/" + name; }
  // Takes an absolute path.
  static bool exists(const std::string &path) { return std::filesystem::exists(path); }
  std::string read(const std::string &path) const {
    std::string text;
    return readWholeFile(path, &text) ? text : "";
  }

  testsupport::LoopBtrfs btrfs;
  testsupport::TreeBuilder tree{btrfs.createSubvolume("home")};

 private:
  int snapshots_ = 0;
};
