// marlinda: the audio engine on the command line. This file lists the commands. host/commands has
// one file for each command.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <exception>
#include <sstream>

#include "core/com_call.h"
#include "host/commands/shared.h"
#include "host/console.h"
#include "host/messages.h"

namespace marlinda {
namespace {

constexpr const char* kExitStatuses =
    "Exit status: 0 success, 1 failure, 2 usage, 3 input, 4 output or disk, 6 registration,\n"
    "7 sound device, 130 interrupted.";

// Shows only the name and form of each option. The parser would add types and limits.
class PlainHelp final : public CLI::Formatter {
 public:
  std::string make_option_opts(const CLI::Option* option) const override {
    return option->get_option_text().empty() ? "" : " " + option->get_option_text();
  }
};

// Rejects repeated flags with a usage error, because the parser accepts them.
void RefuseFlagsTwice(CLI::App& app) {
  for (CLI::App* command : app.get_subcommands([](CLI::App*) { return true; })) {
    for (CLI::Option* option : command->get_options()) {
      if (option->get_items_expected_max() != 0) continue;
      option->disable_flag_override();
      option->multi_option_policy(CLI::MultiOptionPolicy::Throw);
    }
  }
}

// Reports an unknown command by name. The parser would only report that a command is missing.
void RequireCommand(const CLI::App& app, const std::vector<std::string>& arguments) {
  if (arguments.empty() || arguments[0].starts_with('-')) return;
  const auto is_named = [&](const CLI::App* command) { return command->check_name(arguments[0]); };
  if (!app.get_subcommands(is_named).empty()) return;
  throw HostError(ExitStatus::kUsage, arguments[0], "there is no such command",
                  "See \"marlinda --help\".");
}

// Returns the error for a command line that does not parse.
HostError WrongLine(const CLI::App& app, const std::vector<std::string>& arguments,
                    const CLI::ParseError& error) {
  std::string reason = error.what();
  if (arguments.empty() || arguments[0].starts_with('-')) {
    return {ExitStatus::kUsage, "", reason, "See \"marlinda --help\"."};
  }
  const CLI::App* command = app.get_subcommand(arguments[0]);
  for (const std::string& argument : arguments) {
    if (argument == "--") break;
    const std::string name = argument.substr(0, argument.find('='));
    const bool names_option = name.size() > 1 && name[0] == '-' && (name[1] < '0' || name[1] > '9');
    if (!names_option || command->get_option_no_throw(name) != nullptr) continue;
    return {ExitStatus::kUsage, argument, "\"" + arguments[0] + "\" has no such option",
            "Put \"--\" before file names that begin with a dash, or see \"marlinda " +
                arguments[0] + " --help\"."};
  }
  const std::size_t colon = reason.find(':');
  if (error.get_name() == "ArgumentMismatch" && colon != reason.npos) {
    // A message that ends in "missing" reports a missing value, any other a repeated option.
    const bool missing = reason.ends_with("missing");
    reason.replace(colon, reason.npos,
                   missing ? ": its value is missing" : ": it may be given only once");
  }
  return UsageError(arguments[0], reason);
}

int Run(Console& console) {
  CLI::App app("The audio engine on the command line.", "marlinda");
  app.require_subcommand(1);
  app.set_version_flag("--version", "marlinda " MARLINDA_VERSION);
  app.footer(kExitStatuses);
  app.formatter(std::make_shared<PlainHelp>());
  // Otherwise the parser would treat a path that begins with a slash as an option.
  app.allow_windows_style_options(false);
  for (const auto add :
       {AddDoctor, AddFilters, AddInstallFilters, AddInfo, AddConvert, AddCut, AddJoin, AddPlot,
        AddPeaks, AddStats, AddDevices, AddPlay, AddRecord, AddScrub}) {
    add(app, console);
  }

  RefuseFlagsTwice(app);
  std::vector<std::string> arguments = Console::Arguments();
  if (!arguments.empty() && arguments[0] == "help") {
    arguments.erase(arguments.begin());
    arguments.insert(arguments.empty() ? arguments.end() : arguments.begin() + 1, "--help");
  }
  RequireCommand(app, arguments);
  try {
    // The parser expects the arguments in reverse.
    app.parse(std::vector<std::string>(arguments.rbegin(), arguments.rend()));
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() != 0) throw WrongLine(app, arguments, error);
    std::ostringstream help;
    app.exit(error, help, help);
    console.Print(help.str());
  }
  if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
    throw HostError(ExitStatus::kOutput, "standard output", "it could not be written");
  }
  return static_cast<int>(ExitStatus::kSuccess);
}

}  // namespace
}  // namespace marlinda

int main() {
  using marlinda::ExitStatus;
  try {
    marlinda::Console console;
    try {
      return marlinda::Run(console);
    } catch (const marlinda::HostError& error) {
      console.Tell(error.what());
      return static_cast<int>(error.status());
    } catch (const marlinda::HResultError& error) {
      const auto explained = marlinda::Explain(error.code(), "", ExitStatus::kFailure);
      console.Tell(explained.what());
      return static_cast<int>(explained.status());
    } catch (const std::exception& error) {
      console.Tell(error.what());
    }
  } catch (const marlinda::HResultError&) {
    std::fputs("marlinda: the console cannot be used\n", stderr);
  }
  return static_cast<int>(ExitStatus::kFailure);
}
