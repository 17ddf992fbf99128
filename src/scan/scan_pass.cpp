#include "scan/scan_pass.h"

#include <cerrno>

#include "cfgmgr/messages.h"
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

int recordInode(const kest_iattr64_t &attr) {
  const int kind = checkScanned(attr.ia_inode);
  if (kind < 0) return -1;
  const auto flag = static_cast<uint8_t>(kind == kKindSame ? int{kDiffChanged} : kind);
  if (addItem(attr.ia_inode, attr.ia_generation, flag) != 0) {
    traceLog("main: no memory for ino %lld\n", number(attr.ia_inode));
    errno = ENOMEM;
    return -1;
  }
  ++scan.itemCnt;
  return 0;
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

}  // namespace

int scanPass() {
  scan.itemCnt = 0;
  for (;;) {
    if (stopSignal() != 0) return errno = EINTR;
    const kest_iattr64_t *attr = nullptr;
    if (int rc = kest_next_inode64(handles.iscanP, scan.maxIno, &attr); rc != 0) {
      const int err = errno;
      traceLog("main: kest_next_inode error %d \n", rc);
      errno = err;
      return err != 0 ? err : -1;
    }
    if (attr == nullptr) {
      scan.finalPass = true;
      userMessage(Message::kScanComplete, formatTimeStamp(), settings.pass, scan.maxIno);
      break;
    }
    const uint64_t ino = attr->ia_inode;
    scan.lastIno = ino;
    if (++scan.scannedCount % kProgressStep == 0) {
      const int percent = scan.maxIno == 0 ? 100 : static_cast<int>(ino * 100 / scan.maxIno);
      userMessage(Message::kScanProgress, formatTimeStamp(), settings.pass, ino, percent);
    }
    if (ino == handles.rootIno) continue;
    if (recordInode(*attr) != 0) return -1;
    if (scan.itemCnt >= scan.diffItemLimit) {
      scan.finalPass = ino == scan.maxIno;
      break;
    }
  }
  setRange();
  return 0;
}
