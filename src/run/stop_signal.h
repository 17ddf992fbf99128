// Signals that ask a run to end: SIGINT, SIGTERM, SIGHUP. The master notes them, stops what it has
// started and ends by itself; workers end at once, as the signals have it.
#pragma once

#include <sys/types.h>

// From now on the signals are noted, and sent on as SIGTERM to the command that runs. Those that are
// ignored stay ignored.
void catchStopSignals();

// The first one that came, 0: none. Loops of the master ask after every object, and end with EINTR.
int stopSignal();

// The run has come to its end and only tidies up: its last commands are started and not stopped.
void ignoreStopSignals();

// For shell_command alone. The process that gets SIGTERM, 0: none. True as long as commands may start;
// call both with signals blocked where a signal in between would get lost.
void setCommandToStop(pid_t pid);
bool mayStartCommands();
