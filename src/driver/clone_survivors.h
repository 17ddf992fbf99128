// Clones that survived while their parent was made again.
#pragma once

// Gives every clone that survived the number that its parent has now. Only where parents were made
// again in this run does it cost anything: a read of every inode of the snapshot. 0, or -1 and errno.
int followNewParents();
