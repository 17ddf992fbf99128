#include "oplist/policy_file.h"

#include <cerrno>
#include <memory>

#include "run/trace_log.h"
#include "run/work_dir.h"
#include "run/work_file.h"

namespace {

// A quoted text of the policy language: a single quote in it is doubled.
std::string policyText(const std::string &text) {
  std::string quoted;
  for (char c : text) {
    quoted += c;
    if (c == '\'') quoted += c;
  }
  return quoted;
}

}  // namespace

int writePolicyFile(const std::string &exe, const std::string &options, const std::string &policyPath) {
  const std::string path = policyPath.empty() ? workPath(kPolicy) : policyPath;
  std::unique_ptr<WorkFile> file = WorkFile::open(path, WorkFile::Mode::kTruncate);
  if (!file) {
    int err = errno;
    traceLog("Write policy file %s failed.\n", path.c_str());
    return err;
  }
  const std::string text = "RULE EXTERNAL LIST 'all'  EXEC '" + policyText(exe) + "' OPTS ' " +
                           policyText(options) +
                           "'\n          RULE 'noop' LIST 'all' DIRECTORIES_PLUS\n"
                           "          SHOW('d')WHERE MODE LIKE 'd%'\n";
  int rc = file->append(text) == 0 ? 0 : errno;
  closeWorkFile(file, path, &rc);
  if (rc != 0) traceLog("Write policy file");
  return rc;
}
