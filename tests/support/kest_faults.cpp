// kest_faults: preloaded into a run, it stands between the restore and libkest and lets one of its
// calls fail, or kills the process that makes it, as the plan in the environment says (fault_plan.h).
#include <dlfcn.h>
#include <fcntl.h>
#include <linux/btrfs.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <type_traits>

#include "kest.h"
#include "support/fault_record.h"

namespace {

using testsupport::FaultRecord;

// The words of a process's command line, each with its terminator.
std::string commandLine() {
  std::string text;
  int fd = open("/proc/self/cmdline", O_RDONLY | O_CLOEXEC);
  char buffer[4096];
  for (ssize_t n; fd >= 0 && (n = read(fd, buffer, sizeof buffer)) > 0;)
    text.append(buffer, static_cast<size_t>(n));
  if (fd >= 0) close(fd);
  return text;
}

// The record of the run; null where there is none.
FaultRecord *mapRecord() {
  const char *file = getenv(testsupport::kFaultRecordVariable);
  if (!file) return nullptr;
  int fd = open(file, O_RDWR | O_CLOEXEC);
  void *there = mmap(nullptr, sizeof(FaultRecord), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  if (fd < 0 || there == MAP_FAILED) {
    fprintf(stderr, "kest_faults: no record %s: %s\n", file, strerror(errno));
    _exit(99);
  }
  close(fd);
  return static_cast<FaultRecord *>(there);
}

void count(FaultRecord::Made &made, int phase, const char *which) {
  if (++made.inPhase[phase] == 1) snprintf(made.call, sizeof made.call, "%s", which);
}

struct Plan {
  char call[40] = "";
  char action[16] = "";
  int error = 0, where = 0;
  unsigned long long nth = 0, step = 0;
  unsigned times = 0;
  int phase = 0;                  // of this process
  FaultRecord *record = nullptr;  // null: nothing ever happens

  Plan();
  void count(unsigned index, const char *which) { ::count(record->made[index], phase, which); }
  bool names(const char *which) const {
    if ((strcmp(call, "*") != 0 && strcmp(call, which) != 0)) return false;
    return where == -1 || (where == -2 ? phase != 0 : where == phase);
  }
  bool strikes(const char *which);
};

Plan::Plan() {
  const char *words = getenv(testsupport::kFaultPlanVariable);
  if (!words || !getenv(testsupport::kFaultRecordVariable)) return;
  // The commands of the file system use the library as well; theirs are not the restore's calls.
  const std::string line = commandLine();
  const std::string program = line.substr(0, line.find('\0'));
  const std::string called = program.substr(program.rfind('/') + 1);
  if (called.rfind("fsetrestore", 0) != 0 && called != "fsetcompare") return;
  for (size_t at = 0; at < line.size(); at = line.find('\0', at) + 1)
    if (line.compare(at, 3, std::string("-p\0", 3)) == 0) phase = atoi(line.c_str() + at + 3);
  if (phase < 0 || phase >= static_cast<int>(FaultRecord::kPhases)) phase = FaultRecord::kPhases - 1;
  if (sscanf(words, "%39s %15s %d %d %llu %llu %u", call, action, &error, &where, &nth, &step,
             &times) != 7) {
    fprintf(stderr, "kest_faults: no plan: %s\n", words);
    _exit(99);
  }
  record = mapRecord();
}

bool Plan::strikes(const char *which) {
  const uint64_t n = ++record->calls;
  if (n < nth || (n - nth) % step != 0) return false;
  uint32_t before = record->struck;
  do {
    if (times != 0 && before >= times) return false;
  } while (!record->struck.compare_exchange_weak(before, before + 1));
  if (before < FaultRecord::kMostNoted) {
    FaultRecord::Strike &strike = record->noted[before];
    strike.nth = n;
    strike.process = getpid();
    strike.phase = phase;
    snprintf(strike.call, sizeof strike.call, "%s", which);
  }
  return true;
}

// The nearest process above this one that is the policy engine; 0: none.
pid_t engineAbove() {
  for (pid_t pid = getppid(); pid > 1;) {
    char path[40], text[400], state;
    snprintf(path, sizeof path, "/proc/%d/stat", pid);
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    ssize_t n = fd < 0 ? -1 : read(fd, text, sizeof text - 1);
    if (fd >= 0) close(fd);
    if (n <= 0) return 0;
    text[n] = '\0';
    if (strstr(text, "(ktapplypolicy)")) return pid;
    const char *after = strrchr(text, ')');
    if (!after || sscanf(after + 1, " %c %d", &state, &pid) != 2) return 0;
  }
  return 0;
}

Plan &plan() {
  static Plan one;
  return one;
}
thread_local bool insideCall;  // what the library calls itself is not the restore's

template <unsigned index, typename Real, typename... Arguments>
auto around(const char *name, Real *real, Arguments... arguments) {
  using Result = decltype(real(arguments...));
  const int entry = errno;
  static_assert(index < FaultRecord::kCalls);
  const bool ours = !insideCall && plan().record;
  if (ours) plan().count(index, name);
  const bool struck = ours && plan().names(name) && plan().strikes(name);
  const std::string_view action = struck ? plan().action : "";
  if (action == "kill-before") kill(getpid(), SIGKILL);
  if (action == "kill-engine") {
    const pid_t engine = engineAbove();
    if (engine > 0 && kill(engine, SIGKILL) == 0) sleep(10);  // it takes this process along
    _exit(99);
  }
  if (action == "fail") {
    errno = plan().error;
    if constexpr (std::is_pointer_v<Result>) {
      return Result(nullptr);
    } else {
      return Result(-1);
    }
  }
  errno = entry;
  const bool outer = insideCall;
  insideCall = true;
  Result result = real(arguments...);
  insideCall = outer;
  if (action == "kill-after") kill(getpid(), SIGKILL);
  return result;
}

}  // namespace

#define WRAP(result, name, parameters, ...)                                               \
  extern "C" result name parameters {                                                     \
    static auto *const real = reinterpret_cast<decltype(&name)>(dlsym(RTLD_NEXT, #name)); \
    return around<__COUNTER__>(#name, real, __VA_ARGS__);                                 \
  }

// Counted only: programs started.
__attribute__((constructor)) static void countStart() {
  FaultRecord *const record = mapRecord();
  if (!record) return;
  count(record->made[__COUNTER__], 0, testsupport::kProgramStart);
  munmap(record, sizeof *record);
}

// Counted only: how much of the trees the library reads.
extern "C" int ioctl(int fd, unsigned long request, ...) noexcept {
  static auto *const real = reinterpret_cast<decltype(&ioctl)>(dlsym(RTLD_NEXT, "ioctl"));
  va_list arguments;
  va_start(arguments, request);
  void *argument = va_arg(arguments, void *);
  va_end(arguments);
  if (request == BTRFS_IOC_TREE_SEARCH_V2 && plan().record)
    plan().count(__COUNTER__, testsupport::kTreeSearch);
  return real(fd, request, argument);
}

using Handle = kest_fssnap_handle_t *;

WRAP(Handle, kest_get_fset_snaphandle_by_name, (const char *d, const char *f, const char *s), d, f, s)
WRAP(int, kest_get_fssnapid_from_fssnaphandle, (const kest_fssnap_handle_t *h, kest_snapid_t *id), h,
     id)
WRAP(const char *, kest_get_pathname_from_fssnaphandle, (const kest_fssnap_handle_t *h), h)
WRAP(int, kest_is_writable, (const kest_fssnap_handle_t *h), h)
WRAP(int, kest_statfs64, (const char *p, kest_statfs64_t *b), p, b)
WRAP(int, kest_is_quota_file, (const kest_fssnap_handle_t *h, const char *p, const char *n), h, p, n)
WRAP(int, kest_file_survives,
     (const kest_fssnap_handle_t *a, const kest_fssnap_handle_t *s, const char *p), a, s, p)
WRAP(kest_iscan_t *, kest_open_inodescan64, (Handle h, const kest_snapid_t *prev, uint64_t *most), h,
     prev, most)
WRAP(int, kest_next_inode64, (kest_iscan_t * s, uint64_t end, const kest_iattr64_t **a), s, end, a)
WRAP(int, kest_stat_inode64, (kest_iscan_t * s, uint64_t i, uint64_t t, const kest_iattr64_t **a), s, i,
     t, a)
WRAP(int, kest_idifference, (kest_iscan_t * s, uint64_t i), s, i)
WRAP(int, kest_leads_to_change, (kest_iscan_t * s, uint64_t i), s, i)
WRAP(kest_ifile_t *, kest_iopen64, (Handle h, uint64_t i, int f, const void *a, const char *l), h, i, f,
     a, l)
WRAP(kest_ifile_t *, kest_iopen_fd, (Handle h, int f), h, f)
WRAP(int, kest_same_file, (const kest_ifile_t *a, const kest_ifile_t *b), a, b)
WRAP(int, kest_inode_names, (Handle h, uint64_t i, int (*e)(void *, const char *), void *a), h, i, e, a)
WRAP(int, kest_istat, (const kest_ifile_t *f, kest_iattr64_t *a), f, a)
WRAP(int, kest_idevice, (const kest_ifile_t *f, unsigned *a, unsigned *b), f, a, b)
WRAP(int64_t, kest_iread, (kest_ifile_t * f, void *b, int64_t s, int64_t *o), f, b, s, o)
WRAP(int64_t, kest_ireadx,
     (kest_ifile_t * f, kest_iscan_t *c, void *b, int64_t s, int64_t *o, int64_t t, int *h), f, c, b, s,
     o, t, h)
WRAP(int64_t, kest_iwritex, (kest_ifile_t * f, const void *b, int64_t l, int64_t o, int h), f, b, l, o,
     h)
WRAP(int, kest_ireaddir64, (kest_ifile_t * d, const kest_direntx64_t **e), d, e)
WRAP(int, kest_ireaddirx64, (kest_ifile_t * d, kest_iscan_t *s, const kest_direntx64_t **e), d, s, e)
WRAP(int, kest_ireaddirc64, (kest_ifile_t * d, kest_iscan_t *s, const kest_direntx64_t **e), d, s, e)
WRAP(int, kest_igetattrsx, (kest_ifile_t * f, int g, void *b, int s, int *n), f, g, b, s, n)
WRAP(int, kest_iputattrsx, (kest_ifile_t * f, int g, const void *b, const char *p), f, g, b, p)
WRAP(int, kest_iclone_snap, (kest_ifile_t * f), f)
WRAP(int, kest_iclone_copy, (kest_ifile_t * f, Handle h, const char *p), f, h, p)
WRAP(int, kest_iclone_attr, (kest_ifile_t * f, uint8_t *c, uint8_t *s), f, c, s)
WRAP(int, kest_iset_clone_parent, (kest_ifile_t * f, uint64_t p), f, p)
WRAP(int, kest_ishare, (kest_ifile_t * a, kest_ifile_t *b, int64_t o, int64_t l), a, b, o, l)
WRAP(int, kest_ishareable, (kest_ifile_t * a, kest_ifile_t *b), a, b)
WRAP(int, kest_fcntl, (int f, void *r), f, r)
WRAP(int, kest_unlink, (Handle h, const char *p, uint64_t i), h, p, i)
WRAP(int, kest_rmdir, (Handle h, const char *p, uint64_t i), h, p, i)
WRAP(int, kest_rename_noreplace, (Handle h, const char *a, const char *b, uint64_t i), h, a, b, i)
WRAP(int, kest_truncate, (Handle h, const char *p, int64_t s, uint64_t i), h, p, s, i)
WRAP(int, kest_open_file, (Handle h, const char *p, int f, mode_t m), h, p, f, m)
WRAP(int, kest_mkdir, (Handle h, const char *p, mode_t m), h, p, m)
WRAP(int, kest_mknod, (Handle h, const char *p, mode_t m, dev_t d), h, p, m, d)
WRAP(int, kest_symlink, (Handle h, const char *t, const char *p), h, t, p)
WRAP(int, kest_link, (Handle h, const char *a, const char *b, uint64_t i), h, a, b, i)
WRAP(int, kest_open_path, (Handle h, const char *p), h, p)
WRAP(int, kest_lstat, (Handle h, const char *p, struct stat *s), h, p, s)
WRAP(int, kest_path_descriptor, (const kest_ifile_t *f), f)
WRAP(int, kest_fgetacl, (int f, int g, void *b), f, g, b)
WRAP(int, kest_fputacl, (int f, int g, const void *b), f, g, b)
WRAP(int, kest_fset_times, (int f, int g, const kest_timestruc64_t t[4]), f, g, t)
WRAP(int, kest_fchown, (int f, uint64_t u, uint64_t g), f, u, g)
