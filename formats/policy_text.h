// The policy file: which program the engine hands an external list to, and with which words.
#pragma once

#include <string>
#include <string_view>
#include <vector>

// What an EXTERNAL LIST rule says. The program is started as EXEC LIST <batch file> OPTIONS...
struct ScriptRule {
  std::string exec;                  // path as written, handed to execv as it is
  std::vector<std::string> options;  // OPTS, split as a shell does
};

// The policy of one engine run: starts `exec` with the words of `options`.
std::string formatPolicy(const std::string &exec, const std::string &options);

// Finds the one `RULE ['name'] EXTERNAL LIST 'list' EXEC 'path' [OPTS 'words']` of `text`; keywords in
// either case, a quote inside a quoted string doubled, other rules skipped. False: *problem says why
// (no such rule or more than one, a clause other than EXEC and OPTS, an empty path, an open quote).
bool parsePolicy(std::string_view text, ScriptRule *rule, std::string *problem);
