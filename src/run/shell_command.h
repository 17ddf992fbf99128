// Running the file system's commands: the only module that forks.
#pragma once

#include <string>
#include <string_view>

// `word` as it stands when it holds only characters that mean nothing to a shell, else in single
// quotes.
std::string shellWord(std::string_view word);

// Runs "sh -c command" with no signal blocked and waits. `status` receives the exit code, 128 + signal
// for a shell that was killed. 0, or -1 and errno when it could not be started or waited for.
int runCommand(const std::string &command, int *status);

// Runs it and collects its standard output (at most `limit` bytes are kept, all are read); as above.
int runCommandOutput(const std::string &command, std::string *output, int *status,
                     size_t limit = size_t{1} << 30);
