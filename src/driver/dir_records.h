// Handing dir.new over to one round of phase 6. Master only.
#pragma once

#include <string>

// Moves the records of `from` to the new list `to`, each directory (inode and path) once, in the order
// in which they were listed first; `from` is gone afterwards. 0 or an errno; EIO when a record is
// damaged.
int takeDirRecords(const std::string &from, const std::string &to);
