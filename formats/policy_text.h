// The policy file, which names the program that the engine starts for an external list, and its
// options.
#pragma once

#include <string>
#include <string_view>
#include <vector>

// The contents of an EXTERNAL LIST rule. The program is started as EXEC LIST <batch file> OPTIONS...
struct ScriptRule {
  std::string exec;                  // path as written; execve gets it unchanged
  std::vector<std::string> options;  // OPTS, split like a shell command
};

// Returns the policy of one engine run, which starts `exec` with the words of `options`.
std::string formatPolicy(const std::string &exec, const std::string &options);

// Finds the only `RULE ['name'] EXTERNAL LIST 'list' EXEC 'path' [OPTS 'words']` of `text`. Keywords
// can be in either case, a quote inside a quoted string is doubled, and other rules are skipped.
// Returns false and explains in *problem: no such rule or several, a clause other than EXEC and OPTS,
// an empty path, an unterminated quote.
bool parsePolicy(std::string_view text, ScriptRule *rule, std::string *problem);
