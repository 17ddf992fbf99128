// Runs the commands of the file system through a shell.
#pragma once

#include <string>
#include <string_view>

#include "base/result.h"
#include "formats/shell_words.h"

constexpr size_t kCommandMax = 2048;  // the longest command of a run in bytes, with the terminator

// Returns success if the command is shorter than `limit`, else E2BIG after a message. A command that
// was cut off could name another object, so it must not run.
Result checkCommand(const std::string &command, size_t limit = kCommandMax);

// From now on every command, and what it starts, inherits `fd`, which stays close-on-exec in this
// process. -1 ends that.
void inheritInCommands(int fd);

// Runs "sh -c command", or without a shell where the command needs none, with no signal blocked and
// waits for it. `status` receives the exit code, or 128 + the signal that killed the shell. A failure
// means that the command could not be started or waited for; its rc is the errno, and EINTR means that
// a stop signal ends the run.
//
// The shell is killed when this process dies; begin a command of one program with exec, so that the
// program takes the shell's place. If the shell itself is killed, this waits for the processes that it
// leaves behind, so that none of them overlaps the next step. (Not in a process that already had other
// children when it started its first command.)
Result runCommand(const std::string &command, int *status);

// Like runCommand, but collects standard output: keeps at most `limit` bytes and reads all.
Result runCommandOutput(const std::string &command, std::string *output, int *status,
                        size_t limit = size_t{1} << 30);
