// Builds and prints JSON objects for programs, as the page fset(8) describes them.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "front/difference.h"
#include "front/fileset.h"
#include "front/snapshots.h"

namespace front {

using Json = nlohmann::ordered_json;

// Sets object[key] to a name of any bytes. JSON holds only UTF-8, so in other names U+FFFD replaces
// each byte that does not fit, and object[key + "_hex"] holds all bytes in hexadecimal.
void putName(Json *object, const std::string &key, const std::string &bytes);

Json jsonOf(const Fileset &fileset);
Json jsonOf(const Snapshot &snapshot);
Json jsonOf(const Summary &summary);
Json jsonOf(const ChangedObject &object);

// Prints one object and a newline on standard output. Throws Trouble if the output fails.
void print(const Json &object);
// Throws Trouble if standard output did not accept everything.
void flushOutput();

}  // namespace front
