#include "scan/scan_pass.h"

#include <cerrno>

#include "messages/messages.h"
#include "run/run_handles.h"
#include "run/settings.h"
#include "run/stop_signal.h"
#include "run/trace_log.h"
#include "scan/diff_table.h"
#include "scan/same_file.h"

ScanState scan;

namespace {

constexpr uint64_t kProgressStep = 1000;

long long number(uint64_t value) {
  return static_cast<long long>(value);
}

Result recordInode(uint64_t ino) {
  FileKind kind = kKindSame;
  if (Result r = checkScanned(ino, &kind); !r) return r;
  const auto flag = static_cast<uint8_t>(kind == kKindSame ? int{kDiffChanged} : int{kind});
  if (Result r = addItem(ino, flag); !r) {
    traceLog("main: no memory for ino %lld\n", number(ino));
    return failed(0, r.err);
  }
  ++scan.itemCnt;
  return {};
}

void setRange() {
  scan.scannedInoLow = scan.scannedInoHigh + 1;
  scan.scannedInoHigh = static_cast<int64_t>(scan.finalPass ? scan.maxIno : scan.lastIno);
  const long long low = scan.scannedInoLow, high = scan.scannedInoHigh;
  if (scan.finalPass) {
    traceLog("FinalPass: scannedInoLow %lld scannedInoHigh %lld maxIno %lld itemCnt %lld\n", low, high,
             number(scan.maxIno), number(scan.itemCnt));
  } else {
    traceLog(
        "itemCnt in this pass: %lld scannedInoLow %lld scannedInoHigh %lld addCount: %d freeCount: "
        "%d\n",
        number(scan.itemCnt), low, high, addCount, freeCount);
  }
}

Result tellPassedOver() {
  const int64_t count = kest_passed_over(handles.iscanP);
  if (count < 0) return failedErrno(0);
  if (count > 0) userMessage(Message::kPassedOver, count);
  return {};
}

}  // namespace

Result scanPass() {
  scan.itemCnt = 0;
  for (;;) {
    if (stopSignal() != 0) return errnoResult(EINTR);
    const kest_iattr64_t *attr = nullptr;
    if (const int rc = kest_next_inode64(handles.iscanP, scan.maxIno, &attr); rc != 0) {
      const Result r = failedErrno(0);
      traceLog("main: kest_next_inode error %d \n", rc);
      return r;
    }
    if (attr == nullptr) {
      scan.finalPass = true;
      userMessage(Message::kScanComplete, formatTimeStamp(), settings.pass, scan.maxIno);
      if (Result r = tellPassedOver(); !r) return r;
      break;
    }
    const uint64_t ino = attr->ia_inode;
    scan.lastIno = ino;
    if (++scan.scannedCount % kProgressStep == 0) {
      const int percent = scan.maxIno == 0 ? 100 : static_cast<int>(ino * 100 / scan.maxIno);
      userMessage(Message::kScanProgress, formatTimeStamp(), settings.pass, ino, percent);
    }
    // The last step of the run restores the root directory.
    if (ino == handles.rootIno) continue;
    if (Result r = recordInode(ino); !r) return r;
    if (scan.itemCnt >= scan.diffItemLimit) {
      scan.finalPass = ino == scan.maxIno;
      break;
    }
  }
  setRange();
  return {};
}
