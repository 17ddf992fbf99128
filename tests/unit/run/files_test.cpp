// The trace log, the marker and list files.
#include <cerrno>
#include <regex>

#include "run/fatal_error.h"
#include "run/work_file.h"
#include "unit/support/work_area.h"

namespace {

class Files : public WorkArea {};

TEST_F(Files, TraceLinesWaitForAMomentOnly) {
  std::string expected, lines;
  for (int i = 0; i < 2000; ++i) {
    if (i == 1999) {
      EXPECT_GT(get(kErrorLog).size() + 64 * 1024, 1999 * 60u);
      usleep(20000);  // so that the last write is long past
    }
    traceLog("line %d\n", i);
    expected += "]: line " + std::to_string(i) + "\n";
  }
  const std::string text = get(kErrorLog);
  for (size_t at = 0; (at = text.find("]: ", at)) != std::string::npos; ++at)
    lines += text.substr(at, text.find('\n', at) + 1 - at);
  EXPECT_EQ(lines, expected);
}

TEST_F(Files, TraceLinesCarryTheirPrefix) {
  settings.phase = 51;
  settings.pass = 3;
  errno = ENOSPC;
  traceLog("crDir: path %s, rc %d\n", "/m/%s", -1);
  traceLog("%s\n", std::string(5000, 'x').c_str());
  EXPECT_EQ(errno, ENOSPC);
  flushTraceLines();
  const std::string text = get(kErrorLog), first = text.substr(0, text.find('\n'));
  const std::string prefix = R"(\[\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\]\[[^\]\n]+\]\[pid:)" +
                             std::to_string(getpid()) + R"( phase:51 pass:3\]: )";
  EXPECT_TRUE(std::regex_match(first, std::regex(prefix + "crDir: path /m/%s, rc -1"))) << first;
  EXPECT_TRUE(text.ends_with("]: " + std::string(5000, 'x') + "\n"));
}

TEST_F(Files, FatalErrorMarker) {
  EXPECT_TRUE(recordedError());
  setFatalError(28);
  setFatalError(5);
  EXPECT_EQ(get(kFatalError), "28\n5\n");
  EXPECT_EQ(recordedError().rc, 28);
  EXPECT_TRUE(recordedError().full());
  for (const char *text : {"0\n", "-5\n", "abc\n", "", "\n7\n", "99999999999\n"}) {
    put(kFatalError, text);
    EXPECT_FALSE(recordedError()) << text;
    EXPECT_EQ(recordedError().err, EIO) << text;
  }
  std::filesystem::remove(at(kFatalError));
  std::filesystem::create_directory(at(kFatalError));
  EXPECT_EQ(recordedError().err, EIO) << "a marker that cannot be read";
  std::filesystem::remove(at(kFatalError));
  settings.shareDir += "/gone";
  setFatalError(1);
  settings.shareDir = area_;
  EXPECT_EQ(recordedError().err, 1) << "the marker could not be written";
}

TEST_F(Files, ListFilesKeepWholeRecords) {
  using Mode = WorkFile::Mode;
  const std::string record = std::string(70000, 'r') + "\n", between = "between\n";
  std::unique_ptr<WorkFile> file, other;
  ASSERT_TRUE(WorkFile::open(at("list"), Mode::kTruncate, &file));
  ASSERT_TRUE(WorkFile::open(at("list"), Mode::kShared, &other));
  for (int i = 0; i < 5; ++i) {
    ASSERT_TRUE(file->append(record));
    ASSERT_TRUE(other->append(between));
  }
  EXPECT_TRUE(closeWorkFile(file, "list"));
  EXPECT_TRUE(closeWorkFile(other, "list"));
  std::string rest = get("list");
  EXPECT_EQ(rest.size(), 5 * (record.size() + between.size()));
  while (!rest.empty()) {
    const size_t end = rest.find('\n') + 1;
    ASSERT_TRUE(end == between.size() || end == record.size());
    rest.erase(0, end);
  }
  ASSERT_TRUE(WorkFile::open(at("list"), Mode::kKeep, &file));
  ASSERT_TRUE(file->append("more\n"));
  EXPECT_TRUE(file->close());
  EXPECT_TRUE(get("list").ends_with("\nmore\n"));
}

TEST_F(Files, AFullDiskIsReportedAtTheClose) {
  std::unique_ptr<WorkFile> file;
  ASSERT_TRUE(WorkFile::open("/dev/full", WorkFile::Mode::kKeep, &file));
  ASSERT_TRUE(file->append("record\n"));
  testing::internal::CaptureStderr();
  EXPECT_EQ(closeWorkFile(file, "cpList").err, ENOSPC);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Error flushing work file cpList: No space left on device\n");
  ASSERT_EQ(symlink("/etc/passwd", at("link").c_str()), 0);
  EXPECT_FALSE(WorkFile::open(at("link"), WorkFile::Mode::kShared, &file));
}

}  // namespace
