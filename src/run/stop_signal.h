// The signals SIGINT, SIGTERM and SIGHUP ask a run to end. The master notes them, stops the command
// that it has started and ends by itself. Workers keep the default action and end at once, but on a
// clustered file system they end after the record at hand.
#pragma once

#include <sys/types.h>

// From now on notes these signals and passes each on as SIGTERM to the running command. A signal that
// was ignored stays ignored.
void catchStopSignals();

// Returns the first such signal, or 0. The loops of the master ask after every object and end with
// EINTR, and so do such workers.
int stopSignal();

// For the end of a run, which only removes the work directory: its commands may start in spite of an
// earlier signal, and no signal stops them.
void ignoreStopSignals();

// For shell_command alone. setCommandToStop names the process that gets SIGTERM (0: none), and
// mayStartCommands returns whether commands may still start. Block signals around both calls, or a
// signal that arrives between them is lost.
void setCommandToStop(pid_t pid);
bool mayStartCommands();
