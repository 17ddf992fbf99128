#include "front/command_line.h"

#include <CLI/CLI.hpp>
#include <cstdio>
#include <memory>
#include <vector>

#include "front/text.h"
#include "messages/front_texts.h"

namespace front {

namespace {

constexpr char kWords[] = "WORDS";

// The words of diff and restore: [PATH] SNAPSHOT.
struct Words {
  std::vector<std::string> words;
};

// To the library, the two words of diff and restore are one option. This formatter shows them as two.
class HelpFormatter : public CLI::Formatter {
 public:
  std::string make_usage(const CLI::App *app, std::string name) const override {
    if (!app->get_option_no_throw(kWords)) return CLI::Formatter::make_usage(app, name);
    return get_label("Usage") + ": " + name + " [" + get_label("OPTIONS") + "] [PATH] SNAPSHOT\n";
  }
  std::string make_option_name(const CLI::Option *option, bool is_positional) const override {
    const std::string name = CLI::Formatter::make_option_name(option, is_positional);
    return name == kWords ? "[PATH] SNAPSHOT" : name;
  }
};

void translateLabels(CLI::App *app) {
  const auto formatter = std::make_shared<HelpFormatter>();
  formatter->label("Usage", frontText(FrontText::kLabelUsage));
  formatter->label("OPTIONS", frontText(FrontText::kLabelOptions));
  formatter->label("SUBCOMMAND", frontText(FrontText::kLabelCommand));
  formatter->label("Positionals", frontText(FrontText::kLabelWords));
  formatter->label("Options", frontText(FrontText::kLabelOptionList));
  formatter->label("TEXT", "");
  formatter->column_width(28);
  app->formatter(formatter);
}

CLI::App *addCommand(CLI::App *app, const char *name, const std::string &description,
                     Request *request) {
  CLI::App *command = app->add_subcommand(name, description);
  command->add_option("--fileset", request->place.fileset, frontText(FrontText::kHelpFileset))
      ->type_name("NAME");
  command->add_flag("--json", request->json, frontText(FrontText::kHelpJson));
  command->set_help_flag("-h,--help", frontText(FrontText::kHelpHelp));
  command->group(frontText(FrontText::kLabelCommands));
  command->footer("");
  return command;
}

void addPath(CLI::App *command, Request *request) {
  command->add_option("PATH", request->place.path, frontText(FrontText::kHelpPath))->type_name("");
}

void addPathAndSnapshot(CLI::App *command, Words *words) {
  command->add_option(kWords, words->words, frontText(FrontText::kHelpPathAndSnapshot))
      ->type_name("")
      ->option_text("")
      ->expected(0, 2);
  command->footer(frontText(FrontText::kHelpSnapshot));
}

void addChanging(CLI::App *command, Request *request) {
  command->add_flag("-y,--yes", request->yes, frontText(FrontText::kHelpYes));
  command->add_flag("--no-backup", request->no_backup, frontText(FrontText::kHelpNoBackup));
}

}  // namespace

bool readCommandLine(int argc, char **argv, Request *request, int *status) {
  CLI::App app(frontText(FrontText::kHelpTitle), "fset");
  translateLabels(&app);
  app.set_help_flag("-h,--help", frontText(FrontText::kHelpHelp));
  app.set_version_flag("--version", "fset " FSETRESTORE_VERSION, frontText(FrontText::kHelpVersion));
  app.require_subcommand(1);
  app.footer(frontText(FrontText::kHelpFooter) + "\n\n" + frontText(FrontText::kHelpSnapshot));
  Words words;
  CLI::App *list = addCommand(&app, "list", frontText(FrontText::kHelpList), request);
  addPath(list, request);
  CLI::App *diff = addCommand(&app, "diff", frontText(FrontText::kHelpDiff), request);
  addPathAndSnapshot(diff, &words);
  diff->add_flag("--stat", request->stat, frontText(FrontText::kHelpStat));
  diff->add_flag("--full", request->full, frontText(FrontText::kHelpFull));
  CLI::App *restore = addCommand(&app, "restore", frontText(FrontText::kHelpRestore), request);
  addPathAndSnapshot(restore, &words);
  addChanging(restore, request);
  CLI::App *undo = addCommand(&app, "undo", frontText(FrontText::kHelpUndo), request);
  addPath(undo, request);
  addChanging(undo, request);
  CLI::App *progress = addCommand(&app, "progress", frontText(FrontText::kHelpProgress), request);
  addPath(progress, request);
  // An empty group hides this command, which only the shell's completion uses.
  CLI::App *complete = addCommand(&app, "complete", "", request);
  complete->group("");
  complete->add_option("KIND", request->snapshot)->required();
  addPath(complete, request);
  try {
    app.parse(argc, argv);
    if ((*diff || *restore) && words.words.empty())
      throw CLI::ValidationError(frontText(FrontText::kSnapshotMissing));
  } catch (const CLI::ParseError &error) {
    *status = *restore || *undo ? kNotDone : kFailed;
    if (error.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success)) {
      *status = app.exit(error);
    } else {
      fprintf(stderr, "fset: %s\n%s\n", shown(error.what()).c_str(),
              frontText(FrontText::kTryHelp).c_str());
    }
    return false;
  }
  request->command = app.get_subcommands().front()->get_name();
  if (!words.words.empty()) request->snapshot = words.words.back();
  if (words.words.size() == 2) request->place.path = words.words.front();
  return true;
}

}  // namespace front
