// Running the file system's commands: the only module that forks.
#pragma once

#include <string>
#include <string_view>

// `word` as it stands when it holds only characters that mean nothing to a shell, else in single
// quotes.
std::string shellWord(std::string_view word);

// Every command from now on, and what it starts, inherits this descriptor, which is close-on-exec in
// this process. -1: none.
void inheritInCommands(int fd);

// Runs "sh -c command" with no signal blocked and waits. `status` receives the exit code, 128 + signal
// for a shell that was killed. 0, or -1 and errno when it could not be started or waited for; EINTR
// when the run is to end.
//
// The shell is killed when this process dies: where the command is one program, start it with exec. If
// it is killed itself, what it leaves is waited for, so that nothing goes on beside the next step.
// (Except in a process that had other children when it started its first command.)
int runCommand(const std::string &command, int *status);

// Runs it and collects its standard output (at most `limit` bytes are kept, all are read); as above.
int runCommandOutput(const std::string &command, std::string *output, int *status,
                     size_t limit = size_t{1} << 30);
