// Room for the work directory and the lists, on a file system or under a quota that is full. Master
// only.
#pragma once

#include <functional>

#include "base/result.h"

// Whether an errno says that there is no space, or no quota.
bool isFull(int err);

// Runs `attempt`, which has failed for want of room, again and again, and removes files in between that
// the restore would remove anyway: regular files with one name that only the fileset has, the largest
// first. Nothing else is touched, and a message tells how many and how much. Before that, nothing may
// be mounted on what the restore would have to touch. The result is that of the last attempt; it ends
// with the first that does not fail for want of room, or when nothing is left to remove.
Result makeRoom(const std::function<Result()> &attempt);

// Once the work directory and the difference are there: looks whether it can take the lists, and makes
// room where it cannot. What is left is no failure: the lists may need less. rc of a failure is an
// errno, after a message.
Result makeRoomForLists();
