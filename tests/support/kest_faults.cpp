// kest_faults: preloaded into a run between the restore and libkest. Makes one call fail, or kills the
// calling process, according to the plan in the environment (fault_plan.h).
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
#include <string_view>
#include <type_traits>

#include "kest.h"
#include "support/fault_plan.h"

namespace {

using testsupport::FaultAction;
using testsupport::FaultRecord;

FaultRecord *record;  // null: do not count in this process
int phase;            // phase of a worker; 0: the master

void count(FaultRecord::Made &made, const char *which) {
  if (++made.inPhase[phase] == 1) snprintf(made.call, sizeof made.call, "%s", which);
}

// Counts the start of a program. Watches only the restore's own programs, because the commands of the
// file system use the library, too.
[[gnu::constructor]] void start(int argc, char **argv, char **) {
  const char *file = getenv(FaultRecord::kVariable);
  if (!file) return;
  const int fd = open(file, O_RDWR | O_CLOEXEC);
  void *there = mmap(nullptr, sizeof(FaultRecord), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  if (fd < 0 || there == MAP_FAILED) {
    fprintf(stderr, "kest_faults: no record %s: %s\n", file, strerror(errno));
    _exit(99);
  }
  close(fd);
  auto *whole = static_cast<FaultRecord *>(there);
  count(whole->made[__COUNTER__], testsupport::kProgramStart);
  std::string_view program = argv[0];
  program.remove_prefix(program.rfind('/') + 1);
  if (!program.starts_with("fsetrestore") && program != "fsetcompare") return;
  for (int i = 1; i + 1 < argc; ++i)
    if (strcmp(argv[i], "-p") == 0) phase = atoi(argv[i + 1]);
  if (phase < 0 || phase >= static_cast<int>(FaultRecord::kPhases)) phase = FaultRecord::kPhases - 1;
  record = whole;
}

bool strikes(const char *which) {
  const testsupport::Fault &fault = record->fault;
  if (strcmp(record->call, "*") != 0 && strcmp(record->call, which) != 0) return false;
  const bool here = fault.where == testsupport::kAnyProcess ||
                    (fault.where == testsupport::kAnyWorker ? phase != 0 : fault.where == phase);
  if (!here) return false;
  const uint64_t n = ++record->calls;
  if (n < fault.nth || (n - fault.nth) % fault.step != 0) return false;
  uint32_t before = record->struck;
  do {
    if (fault.times != 0 && before >= fault.times) return false;
  } while (!record->struck.compare_exchange_weak(before, before + 1));
  return true;
}

thread_local bool insideCall;  // calls from inside the library are not the restore's

template <unsigned index, typename Real, typename... Arguments>
auto around(const char *name, Real *real, Arguments... arguments) {
  using Result = decltype(real(arguments...));
  const int entry = errno;
  static_assert(index < FaultRecord::kCalls);
  const bool ours = !insideCall && record;
  if (ours) count(record->made[index], name);
  const bool struck = ours && strikes(name);
  const auto does = [&](FaultAction action) { return struck && record->fault.action == action; };
  if (does(FaultAction::kKillBefore)) kill(getpid(), SIGKILL);
  if (does(FaultAction::kKillEngine)) {
    if (kill(getppid(), SIGKILL) == 0) sleep(10);  // this process dies with the engine
    _exit(99);
  }
  if (does(FaultAction::kFail)) {
    errno = record->fault.error;
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
  if (does(FaultAction::kKillAfter)) kill(getpid(), SIGKILL);
  return result;
}

}  // namespace

#define WRAP(result, name, parameters, ...)                                               \
  extern "C" result name parameters {                                                     \
    static auto *const real = reinterpret_cast<decltype(&name)>(dlsym(RTLD_NEXT, #name)); \
    return around<__COUNTER__>(#name, real, __VA_ARGS__);                                 \
  }

// Only counts: how much of the trees the library reads.
extern "C" int ioctl(int fd, unsigned long request, ...) noexcept {
  static auto *const real = reinterpret_cast<decltype(&ioctl)>(dlsym(RTLD_NEXT, "ioctl"));
  va_list arguments;
  va_start(arguments, request);
  void *argument = va_arg(arguments, void *);
  va_end(arguments);
  if (request == BTRFS_IOC_TREE_SEARCH_V2 && record)
    count(record->made[__COUNTER__], testsupport::kTreeSearch);
  return real(fd, request, argument);
}

using Handle = kest_fssnap_handle_t *;

WRAP(Handle, kest_get_fset_snaphandle_by_name, (const char *d, const char *f, const char *s), d, f, s)
WRAP(int, kest_get_fssnapid_from_fssnaphandle, (const kest_fssnap_handle_t *h, kest_snapid_t *id), h,
     id)
WRAP(const char *, kest_get_pathname_from_fssnaphandle, (const kest_fssnap_handle_t *h), h)
WRAP(int, kest_is_writable, (const kest_fssnap_handle_t *h), h)
WRAP(int, kest_statfs64, (const char *p, kest_statfs64_t *b), p, b)
WRAP(int, kest_spans_nodes, (const kest_fssnap_handle_t *h), h)
WRAP(int, kest_names_outside, (const kest_fssnap_handle_t *h), h)
WRAP(int64_t, kest_metadata_room, (const kest_fssnap_handle_t *h), h)
WRAP(int, kest_is_quota_file, (const kest_fssnap_handle_t *h, const char *p, const char *n), h, p, n)
WRAP(int, kest_other_node, (const kest_fssnap_handle_t *h, const char *n, char *o, size_t s), h, n, o,
     s)
WRAP(int, kest_file_survives,
     (const kest_fssnap_handle_t *a, const kest_fssnap_handle_t *s, const char *p), a, s, p)
WRAP(int, kest_find_obstacles,
     (const kest_fssnap_handle_t *a, const kest_fssnap_handle_t *s, kest_iscan_t *c,
      void (*v)(void *, unsigned, const char *), void *x),
     a, s, c, v, x)
WRAP(kest_iscan_t *, kest_open_inodescan64, (Handle h, const kest_snapid_t *prev, uint64_t *most), h,
     prev, most)
WRAP(int, kest_next_inode64, (kest_iscan_t * s, uint64_t end, const kest_iattr64_t **a), s, end, a)
WRAP(int, kest_ichange, (kest_iscan_t * s, uint64_t i, kest_change_t *c), s, i, c)
WRAP(int, kest_stat_inode64, (kest_iscan_t * s, uint64_t i, uint64_t t, const kest_iattr64_t **a), s, i,
     t, a)
WRAP(int, kest_idifference, (kest_iscan_t * s, uint64_t i), s, i)
WRAP(int, kest_twin, (kest_iscan_t * s, uint64_t i, uint64_t *t), s, i, t)
WRAP(int64_t, kest_difference_size, (kest_iscan_t * s), s)
WRAP(int64_t, kest_passed_over, (kest_iscan_t * s), s)
WRAP(int, kest_junction_home, (kest_iscan_t * s, uint64_t i, uint64_t *d, char *n), s, i, d, n)
WRAP(int, kest_leads_to_change, (kest_iscan_t * s, uint64_t i), s, i)
WRAP(kest_ifile_t *, kest_iopen64, (Handle h, uint64_t i, int f, const void *a, const char *l), h, i, f,
     a, l)
WRAP(kest_ifile_t *, kest_iopen_path, (Handle h, const char *p), h, p)
WRAP(kest_ifile_t *, kest_icreate, (Handle h, const char *p, mode_t m), h, p, m)
WRAP(kest_ifile_t *, kest_iopen_same, (Handle h, const kest_ifile_t *f), h, f)
WRAP(int, kest_ifacts, (const kest_ifile_t *f, kest_facts_t *a), f, a)
WRAP(int, kest_younger, (Handle h, uint64_t i, uint64_t t), h, i, t)
WRAP(int, kest_settle, (Handle h), h)
WRAP(int, kest_lock, (Handle h), h)
WRAP(int, kest_remove_lock, (Handle h), h)
WRAP(int, kest_same_file, (const kest_ifile_t *a, const kest_ifile_t *b), a, b)
WRAP(int, kest_inode_names, (Handle h, uint64_t i, int (*e)(void *, const char *), void *a), h, i, e, a)
WRAP(int, kest_istat, (const kest_ifile_t *f, kest_iattr64_t *a), f, a)
WRAP(int, kest_ichown, (kest_ifile_t * f, uint64_t u, uint64_t g), f, u, g)
WRAP(int, kest_ichmod, (kest_ifile_t * f, mode_t m), f, m)
WRAP(int, kest_iset_times, (kest_ifile_t * f, int g, const kest_timestruc64_t t[4]), f, g, t)
WRAP(int, kest_igetacl, (kest_ifile_t * f, int g, void *b), f, g, b)
WRAP(int, kest_iputacl, (kest_ifile_t * f, int g, const void *b), f, g, b)
WRAP(int, kest_iset_protection, (kest_ifile_t * f, uint32_t p), f, p)
WRAP(int64_t, kest_igetxattr, (const kest_ifile_t *f, const char *n, void *b, size_t s), f, n, b, s)
WRAP(int, kest_isetxattr, (kest_ifile_t * f, const char *n, const void *v, size_t s), f, n, v, s)
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
WRAP(int, kest_fcntl, (int f, void *r), f, r)
WRAP(int, kest_ilost, (kest_iscan_t * s, uint64_t i, kest_lost_t *l), s, i, l)
WRAP(int, kest_carries_clone, (Handle h, const char *p), h, p)
WRAP(int, kest_unlink, (Handle h, const char *p, uint64_t i), h, p, i)
WRAP(int, kest_rmdir, (Handle h, const char *p, uint64_t i), h, p, i)
WRAP(int, kest_rename_noreplace, (Handle h, const char *a, const char *b, uint64_t i), h, a, b, i)
WRAP(int, kest_move_junction, (Handle h, const char *a, const char *b, uint64_t i), h, a, b, i)
WRAP(int, kest_truncate, (Handle h, const char *p, int64_t s, uint64_t i), h, p, s, i)
WRAP(int, kest_mkdir, (Handle h, const char *p, mode_t m), h, p, m)
WRAP(int, kest_mknod, (Handle h, const char *p, mode_t m, dev_t d), h, p, m, d)
WRAP(int, kest_symlink, (Handle h, const char *t, const char *p), h, t, p)
WRAP(int, kest_link, (Handle h, const char *a, const char *b, uint64_t i), h, a, b, i)
WRAP(int, kest_open_path, (Handle h, const char *p), h, p)
WRAP(int, kest_lstat, (Handle h, const char *p, struct stat *s), h, p, s)
WRAP(int, kest_path_descriptor, (const kest_ifile_t *f), f)
WRAP(int, kest_fset_times, (int f, int g, const kest_timestruc64_t t[4]), f, g, t)
