// Objects for programs, as the page fset(8) describes them.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "front/difference.h"
#include "front/fileset.h"
#include "front/snapshots.h"

namespace front {

using Json = nlohmann::ordered_json;

// Sets object[key] to a name, which may be any bytes. JSON holds UTF-8 alone: where the name is none,
// each byte that does not fit stands as U+FFFD, and object[key + "_hex"] has all bytes in hexadecimal.
void putName(Json *object, const std::string &key, const std::string &bytes);

Json jsonOf(const Fileset &fileset);
Json jsonOf(const Snapshot &snapshot);
Json jsonOf(const Summary &summary);
Json jsonOf(const ChangedObject &object);

// Prints one object and a newline on standard output. Throws Trouble where it does not get there.
void print(const Json &object);
// Throws Trouble where standard output did not take all.
void flushOutput();

}  // namespace front
