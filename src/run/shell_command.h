// Running the file system's commands through a shell.
#pragma once

#include <string>
#include <string_view>

#include "base/result.h"
#include "formats/shell_words.h"

// Most bytes of a command line, its terminator included: of the commands of a run, and of the engine
// for the lists of one directory.
constexpr size_t kCommandMax = 2048, kNestedCommandMax = 4096;

// Done where the command is shorter than `limit`; else E2BIG, after a message. A command that would be
// cut off could name something else.
Result checkCommand(const std::string &command, size_t limit = kCommandMax);

// Every command from now on, and what it starts, inherits this descriptor, which is close-on-exec in
// this process. -1: none.
void inheritInCommands(int fd);

// Runs "sh -c command" with no signal blocked and waits. `status` receives the exit code, 128 + signal
// for a shell that was killed. A failure, whose rc is the errno, means that it could not be started or
// waited for; EINTR that the run is to end.
//
// The shell is killed when this process dies: where the command is one program, start it with exec. If
// it is killed itself, the processes that it leaves are waited for, so that nothing goes on beside the
// next step. (Except in a process that had other children when it started its first command.)
Result runCommand(const std::string &command, int *status);

// Runs it and collects its standard output (at most `limit` bytes are kept, all are read); as above.
Result runCommandOutput(const std::string &command, std::string *output, int *status,
                        size_t limit = size_t{1} << 30);
