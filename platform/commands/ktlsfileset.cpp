// ktlsfileset: describes one fileset.

#include <cstdio>

#include "commands/command_line.h"
#include "filesystem/error_text.h"

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
  std::unique_ptr<FileSystem> fs;
  if (int failed = line.openDevice(line.word(0), &fs); failed != 0) return failed;
  FilesetInfo info;
  int rc = fs->describeFileset(line.word(1), &info);
  if (rc == -ENOENT) return line.fail("no fileset " + line.word(1) + " on " + line.word(0));
  if (rc < 0) return line.fail(errorText(), rc);
  // Readers find the field "remote" by its position, the nineteenth.
  std::vector<Field> fields = {
      {"record", "fileset"},
      {"format", "1"},
      {"device", line.word(0)},
      {"filesystem", info.file_system},
      {"fileset", info.path.empty() ? "/" : info.path},
      {"id", std::to_string(info.id)},
      {"uuid", info.uuid},
      {"origin", info.origin_uuid},
      {"parent", std::to_string(info.parent_id)},
      {"directory", std::to_string(info.parent_dir)},
      {"name", info.name},
      {"root", std::to_string(info.root_ino)},
      {"transaction", std::to_string(info.transaction)},
      {"created", std::to_string(info.created)},
      {"access", info.read_only ? "ro" : "rw"},
      {"linked", info.mounted ? "yes" : "no"},
      {"path", info.mounted ? info.mounted_at : ""},
      {"snapshots", std::to_string(info.snapshots)},
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
