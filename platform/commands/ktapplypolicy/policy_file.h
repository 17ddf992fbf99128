// The policy text: which script an external list is handed to, and with which words.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "commands/ktapplypolicy/run_directory.h"

namespace kest {

// What an EXTERNAL LIST rule says. The program is started as EXEC LIST <batch file> OPTIONS...
struct ScriptRule {
  std::string exec;                  // path as written, handed to execv as it is
  std::vector<std::string> options;  // OPTS, already split
};

// Finds the one `RULE ['name'] EXTERNAL LIST 'list' EXEC 'path' [OPTS 'words']` of `text`; keywords in
// either case, a quote inside a quoted string doubled, other rules skipped. False: *problem says why
// (no such rule or more than one, a clause other than EXEC and OPTS, an empty path, an open quote).
bool parsePolicy(std::string_view text, ScriptRule *rule, std::string *problem);

// Splits as a shell splits a command line: blanks separate; '...' is literal; in "..." a backslash
// escapes $ ` " \ and newline; elsewhere it escapes any character. Nothing is expanded and no other
// character means anything. False on an open quote or a backslash at the very end.
bool splitWords(std::string_view text, std::vector<std::string> *words, std::string *problem);

// Reads `path` and parses it.
bool readPolicyFile(const RunDirectory &directory, const std::string &path, ScriptRule *rule,
                    std::string *problem);

}  // namespace kest
