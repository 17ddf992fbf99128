#include "front/json.h"

#include <string.h>

#include <cerrno>
#include <cstdio>
#include <string_view>

#include "front/text.h"
#include "front/trouble.h"
#include "front/when.h"
#include "messages/front_texts.h"

namespace front {

namespace {

std::string hex(const void *bytes, size_t size) {
  std::string text;
  for (size_t at = 0; at < size; ++at) {
    char code[4];
    snprintf(code, sizeof code, "%02x", static_cast<const unsigned char *>(bytes)[at]);
    text += code;
  }
  return text;
}

}  // namespace

void putName(Json *object, const std::string &key, const std::string &bytes) {
  if (isUtf8(bytes)) {
    (*object)[key] = bytes;
    return;
  }
  const std::string quoted = Json(bytes).dump(-1, ' ', false, Json::error_handler_t::replace);
  (*object)[key] = Json::parse(quoted);
  (*object)[key + "_hex"] = hex(bytes.data(), bytes.size());
}

Json jsonOf(const Fileset &fileset) {
  Json object;
  putName(&object, "path", fileset.name());
  object["id"] = fileset.id;
  object["uuid"] =
      fileset.uuid == Uuid{} ? Json() : Json(hex(fileset.uuid.data(), fileset.uuid.size()));
  putName(&object, "device", fileset.device);
  Json mounts = Json::array();
  for (const std::string &mount : fileset.mounts) {
    Json one;
    putName(&one, "path", mount);
    mounts.push_back(one);
  }
  object["mounts"] = mounts;
  return object;
}

Json jsonOf(const Snapshot &snapshot) {
  Json object;
  putName(&object, "name", snapshot.name);
  putName(&object, "path", snapshot.path);
  object["id"] = snapshot.id;
  object["created"] = isoTime(snapshot.created);
  object["created_epoch"] = snapshot.created;
  object["read_only"] = snapshot.read_only;
  object["made_by"] = makerName(snapshot.maker);
  object["number"] = snapshot.number ? Json(*snapshot.number) : Json();
  putName(&object, "description", snapshot.description);
  object["before"] = snapshot.backup == Backup::kBeforeRestore ? Json("restore")
                     : snapshot.backup == Backup::kBeforeUndo  ? Json("undo")
                                                               : Json();
  return object;
}

Json jsonOf(const Summary &summary) {
  Json object;
  object["lines"] = summary.lines;
  Json effects;
  for (size_t at = 0; at < kEffects; ++at)
    effects[effectName(static_cast<Effect>(at))] = {{"objects", summary.effects[at].objects},
                                                    {"bytes", summary.effects[at].bytes}};
  object["effects"] = effects;
  Json directories = Json::array();
  for (const auto &[path, count] : summary.directories) {
    Json one;
    putName(&one, "path", path);
    one["objects"] = count.objects;
    one["bytes"] = count.bytes;
    directories.push_back(one);
  }
  object["directories"] = directories;
  object["kinds"] = Json::object();
  for (const auto &[kind, lines] : summary.kinds) object["kinds"][kind] = lines;
  return object;
}

Json jsonOf(const ChangedObject &changed) {
  Json object;
  object["effect"] = effectName(changed.effect);
  putName(&object, "path", changed.path);
  if (changed.effect == Effect::kMovesBack) putName(&object, "now", changed.now);
  object["kinds"] = changed.kinds;
  object["type"] = changed.type.empty() ? Json() : Json(changed.type);
  object["bytes"] = changed.bytes;
  return object;
}

void print(const Json &object) {
  const std::string text = object.dump(2) + "\n";
  fwrite(text.data(), 1, text.size(), stdout);
  flushOutput();
}

void flushOutput() {
  if (fflush(stdout) != 0 || ferror(stdout) != 0)
    throw Trouble(frontText(FrontText::kOutputLost, strerror(errno)));
}

}  // namespace front
