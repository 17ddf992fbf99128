// Calls of the library that a test lets fail, as no kernel does on request.
#pragma once

#include <functional>
#include <string>

// Asked before a call that removes or moves a name: the error number that it fails with, 0: it is
// performed. Null: all are.
extern std::function<int(const std::string &call)> refusal;
