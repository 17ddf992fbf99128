// Makes room for the work directory and the lists on a file system, or under a quota, that is full.
// Master only.
#pragma once

#include <functional>

#include "base/result.h"

// Repeats `attempt`, which has failed for lack of room, and between attempts removes files that the
// restore would remove anyway: regular files with one name that only the fileset has, largest first.
// Touches nothing else and reports in a message how many files and bytes it removed. First checks for
// mounts and other obstacles, as the restore itself does. Returns the result of the last attempt: the
// first one that does not fail for lack of room, or the one after the last such file was removed.
Result makeRoom(const std::function<Result()> &attempt);

// Checks that the file system can take the lists, and makes room if it cannot. Call it once the work
// directory and the difference exist. If there is still too little room, returns success, because the
// lists may need less. rc of a failure is an errno, after a message.
Result makeRoomForLists();
