// After a failed run: the list without the records that checkpoints show as done.
#pragma once

#include <cstdint>
#include <string>

// `pid`: the process that started the run. 0 when the list was rewritten, else -1 or the result of a
// failed removal, after a trace line; the list is then as it was, unless the exchange itself failed.
int updateOpList(const std::string &opListPath, int32_t pid);
