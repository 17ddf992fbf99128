// The command by which GNU parallel reaches a node: this program in place of ssh.
#pragma once

#include <chrono>
#include <string>

// Environment variable with the directory in which an engine and its node shells keep what they know.
inline constexpr char kNodeStateVariable[] = "KT_NODE_STATE";
// Environment variable with the process ID of the engine.
inline constexpr char kNodeEngineVariable[] = "KT_NODE_ENGINE";
// Files in that directory. The first holds the exit status of the first part that failed. The second
// says that the run is to end now. The third, with the name of a node at its end, says that the node is
// lost.
inline constexpr char kFailedPart[] = "failed", kStopRun[] = "stop";
inline constexpr char kLostNode[] = "lost.";

// Runs what parallel hands to ssh: a node, and the words of a command for its shell. Runs it here if
// the node is this machine. Returns the command's exit status.
//
// Two things differ from plain ssh. If ssh loses the node (255), the node is marked as lost and is not
// asked again, and this returns only when nothing on the node works for the run any more; parallel then
// gives the part to another node. If the command fails, that is marked too, and every later command
// fails with the same status without being started; so parallel's retries change nothing, and no part
// begins after a failure.
int runNodeShell(int argc, char **argv);
