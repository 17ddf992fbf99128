// Tells about one fileset.

#include <cstdio>

#include "commands/command_line.h"
#include "commands/fileset_lookup.h"

namespace kest {
namespace {

constexpr char kUsage[] =
    "Usage: ktlsfileset DEVICE FILESET -Y\n"
    "Prints a header line and a line about FILESET (path of the subvolume below the top of the file\n"
    "system), fields separated by colons. In a field %, colons and control characters are written as\n"
    "%XX. The field \"remote\" says where the fileset is cached from: \"-\", nowhere.\n";

std::string percentEncode(const std::string &text) {
  std::string encoded;
  for (unsigned char c : text) {
    char code[4];
    if (c == '%' || c == ':' || c < 0x20 || c == 0x7f) {
      snprintf(code, sizeof(code), "%%%02X", c);
      encoded += code;
    } else {
      encoded += static_cast<char>(c);
    }
  }
  return encoded;
}

std::string hex(const Uuid &uuid) {
  std::string text;
  for (uint8_t byte : uuid) {
    char digits[3];
    snprintf(digits, sizeof(digits), "%02x", byte);
    text += digits;
  }
  return text;
}

struct Field {
  const char *name;
  std::string value;
};

void printLine(const std::vector<Field> &fields, bool names) {
  for (size_t i = 0; i < fields.size(); i++) {
    printf("%s%s", i ? ":" : "", names ? fields[i].name : percentEncode(fields[i].value).c_str());
  }
  putchar('\n');
}

int list(const CommandLine &line) {
  Fileset fileset;
  std::string problem;
  if (!findFileset(line.word(0), line.word(1), &fileset, &problem)) return line.fail(problem);
  std::vector<Snapshot> snapshots;
  SubvolumeState state;
  int rc = findSnapshots(fileset, &snapshots);
  if (rc == 0) rc = readState(fileset, fileset.subvolume.id, &state);
  if (rc < 0) return line.fail(line.word(1), rc);
  const Subvolume &one = fileset.subvolume;
  std::string root;
  UniqueFd shown(openSubvolume(fileset.fs, one.id, fileset.path, &root));
  // Readers find the remote mark by its place, the nineteenth.
  std::vector<Field> fields = {
      {"record", "fileset"},
      {"format", "1"},
      {"device", line.word(0)},
      {"filesystem", hex(fileset.fs.fsid)},
      {"fileset", fileset.path.empty() ? "/" : fileset.path},
      {"id", std::to_string(one.id)},
      {"uuid", hex(one.uuid)},
      {"origin", hex(one.parent_uuid)},
      {"parent", std::to_string(one.parent_id)},
      {"directory", std::to_string(one.dir)},
      {"name", one.name},
      {"root", "256"},
      {"transaction", std::to_string(one.otransid)},
      {"created", std::to_string(state.created)},
      {"access", state.read_only ? "ro" : "rw"},
      {"linked", shown ? "yes" : "no"},
      {"path", shown ? root : ""},
      {"snapshots", std::to_string(snapshots.size())},
      {"remote", "-"},
  };
  printLine(fields, true);
  printLine(fields, false);
  return line.finish();
}

}  // namespace
}  // namespace kest

int main(int argc, char **argv) {
  kest::CommandLine line("ktlsfileset", kest::kUsage);
  int status;
  if (!line.parse(argc, argv, "Y", 2, &status)) return status;
  if (!line.has('Y')) return line.usageError("-Y is needed, there is no other form");
  return kest::list(line);
}
