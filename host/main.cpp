// marlinda: the audio engine on the command line. This file holds the grammar; what the commands do
// is in host/commands.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <exception>
#include <optional>
#include <sstream>

#include "host/commands/convert.h"
#include "host/commands/cut.h"
#include "host/commands/devices.h"
#include "host/commands/doctor.h"
#include "host/commands/filters.h"
#include "host/commands/info.h"
#include "host/commands/install_filters.h"
#include "host/commands/play.h"
#include "host/commands/plot.h"
#include "host/commands/record.h"
#include "host/commands/scrub.h"
#include "host/console.h"
#include "host/engine.h"
#include "host/messages.h"

namespace marlinda {
namespace {

constexpr const char* kExitStatuses =
    "Exit status: 0 success, 1 failure, 2 usage, 3 input, 4 output or disk, 6 registration, 7 "
    "sound "
    "device, 130 interrupted.";

constexpr const char* kInstallHelp =
    "Needs the right to write for all users. Listed filters are left alone.\n"
    "Example: marlinda install-filters --remove";

constexpr const char* kCutHelp =
    "Times are seconds such as 1.5, or frames such as 66150f. The pieces are joined in the order\n"
    "given; an empty BEGIN or END means the start or the end of the file. Then every silence is\n"
    "inserted, in the order given, at its position in the result so far. Labels and markers are\n"
    "positions in the finished result.\n"
    "Example: marlinda cut in.ogg out.wav --keep 0:2.5 --keep 10: --silence 2.5:1 --label 3.5:Two";

constexpr const char* kPlotHelp =
    "Times are seconds such as 1.5, or frames such as 66150f. One lane a channel; full scale "
    "fills\n"
    "a lane. Labels and markers of the file are drawn in.\n"
    "Example: marlinda plot in.ogg out.png --width 1920 --from 10 --to 20";

constexpr const char* kPlayHelp =
    "Times are seconds such as 1.5, or frames such as 66150f. Ctrl+C ends it.\n"
    "Example: marlinda play in.ogg --from 10 --to 12.5 --loop --channels 0";

constexpr const char* kRecordHelp =
    "Ctrl+C ends the recording early; what was recorded by then is written all the same.\n"
    "Example: marlinda record take.wav --seconds 60 --rate 48000 --bits 24";

constexpr const char* kScrubHelp =
    "Without --at the keys move: left and right by a tenth of a second, down and up by a second,\n"
    "Home and End; Escape, Enter or Q ends it.\n"
    "Example: marlinda scrub in.ogg --at 1,1.1,1.2,5 --hold 0.25";

void AddJson(CLI::App* command, bool& json) { command->add_flag("--json", json, "Report in JSON"); }

void AddProgress(CLI::App* command, Console& console) {
  command->add_flag_callback(
      "--progress", [&console] { console.WriteProgressLines(); },
      "Tell on standard error how far it is, a line for each percent");
}

void AddBits(CLI::App* command, int& bits) {
  command->add_option("--bits", bits, "Bits per sample of the output (16 unless given)")
      ->check(CLI::IsMember({8, 16, 24, 32}));
}

void AddFiles(CLI::App* command, std::string& input, std::string& output) {
  command->add_option("IN", input, "Audio file to read")->required();
  command->add_option("OUT.wav", output, "WAV file to write; an existing one is replaced")
      ->required();
}

template <class Number>
void AddFormat(CLI::App* command, Number& rate, Number& channels, const std::string& defaults) {
  command->add_option("--rate", rate, "Frames per second (" + defaults + ")")
      ->check(CLI::Range(1000, 768000));
  command->add_option("--channels", channels, "How many channels (" + defaults + ")")
      ->check(CLI::Range(1, 32));
}

void AddDevice(CLI::App* command, std::optional<int>& device) {
  command
      ->add_option("--device", device,
                   "Sound device by its index (the system's default unless given); \"marlinda "
                   "devices\" lists them")
      ->check(CLI::NonNegativeNumber);
}

// Any number of values, one after each occurrence of the option.
CLI::Option* AddRepeated(CLI::App* command, const char* name, const char* form,
                         std::vector<std::string>& values, const char* help) {
  return command->add_option(name, values, help)->type_name(form)->allow_extra_args(false);
}

// A flag has no value, and given twice it is a slip.
void RefuseFlagsTwice(CLI::App& app) {
  for (CLI::App* command : app.get_subcommands([](CLI::App*) { return true; })) {
    for (CLI::Option* option : command->get_options()) {
      if (option->get_items_expected_max() != 0) continue;
      option->disable_flag_override();
      option->multi_option_policy(CLI::MultiOptionPolicy::Throw);
    }
  }
}

// The parser would say no more than that a command is missing.
void RequireCommand(const CLI::App& app, const std::vector<std::string>& arguments) {
  if (arguments.empty() || arguments[0].starts_with('-')) return;
  const auto is_named = [&](const CLI::App* command) { return command->check_name(arguments[0]); };
  if (!app.get_subcommands(is_named).empty()) return;
  throw HostError(ExitStatus::kUsage, arguments[0], "there is no such command",
                  "See \"marlinda --help\".");
}

int Run(Console& console) {
  CLI::App app("The audio engine on the command line.", "marlinda");
  app.require_subcommand(1);
  app.set_version_flag("--version", "marlinda " MARLINDA_VERSION);
  app.footer(kExitStatuses);
  // A path may begin with a slash.
  app.allow_windows_style_options(false);
  const auto run_in_apartment = [&](auto command) {
    return [&console, command] {
      const Apartment apartment(COINIT_APARTMENTTHREADED);
      Check(apartment.result());
      command();
    };
  };

  bool json = false;
  CLI::App* doctor =
      app.add_subcommand("doctor", "Tell whether everything is in place, and what helps if not");
  AddJson(doctor, json);
  doctor->footer("Example: marlinda doctor");
  doctor->callback(run_in_apartment([&] { RunDoctor(json, console); }));

  CLI::App* filters = app.add_subcommand("filters", "List the import filters");
  AddJson(filters, json);
  filters->footer("Example: marlinda filters --json");
  filters->callback(run_in_apartment([&] { RunFilters(json, console); }));

  bool remove = false;
  CLI::App* install = app.add_subcommand(
      "install-filters", "List the built-in import filters in the registry, for all users");
  install->add_flag("--remove", remove, "Take them off the list");
  AddJson(install, json);
  install->footer(kInstallHelp);
  install->callback(run_in_apartment([&] { RunInstallFilters(remove, json, console); }));

  std::string file;
  CLI::App* info = app.add_subcommand("info", "Describe an audio file");
  info->add_option("FILE", file, "Audio file")->required();
  AddJson(info, json);
  info->footer("Example: marlinda info in.ogg");
  info->callback(run_in_apartment([&] { RunInfo(file, json, console); }));

  ConvertOptions convert_options;
  CLI::App* convert = app.add_subcommand("convert", "Write an audio file as WAV");
  AddFiles(convert, convert_options.input, convert_options.output);
  AddBits(convert, convert_options.bits);
  AddFormat(convert, convert_options.rate, convert_options.channels, "as the input unless given");
  AddProgress(convert, console);
  AddJson(convert, convert_options.json);
  convert->footer("Example: marlinda convert in.ogg out.wav --bits 24 --rate 48000");
  convert->callback(run_in_apartment([&] { RunConvert(convert_options, console); }));

  CutOptions cut_options;
  CLI::App* cut = app.add_subcommand("cut", "Join pieces of an audio file and write them as WAV");
  AddFiles(cut, cut_options.input, cut_options.output);
  AddRepeated(cut, "--keep", "BEGIN:END", cut_options.request.keep, "Pieces to keep")
      ->required()
      ->allow_extra_args();
  AddRepeated(cut, "--silence", "AT:SECONDS", cut_options.request.silences, "Insert silence");
  AddRepeated(cut, "--label", "AT:NAME", cut_options.request.labels, "Set a label");
  AddRepeated(cut, "--marker", "BEGIN:END:NAME", cut_options.request.markers, "Mark a section");
  cut->add_option("--plot", cut_options.picture.file, "Draw the result as a picture as well")
      ->type_name("OUT.png");
  AddBits(cut, cut_options.bits);
  AddProgress(cut, console);
  AddJson(cut, cut_options.json);
  cut->footer(kCutHelp);
  cut->callback(run_in_apartment([&] { RunCut(cut_options, console); }));

  PlotOptions plot_options;
  CLI::App* plot = app.add_subcommand("plot", "Draw the waveform of an audio file");
  plot->add_option("IN", plot_options.input, "Audio file to read")->required();
  plot->add_option("OUT.png", plot_options.picture.file, "Picture; an existing one is replaced")
      ->required();
  plot->add_option("--width", plot_options.picture.width, "Pixels (1200 unless given)");
  plot->add_option("--height", plot_options.picture.height, "Pixels (320 unless given)");
  plot->add_option("--from", plot_options.from, "Draw from this time on");
  plot->add_option("--to", plot_options.to, "Draw up to this time");
  AddProgress(plot, console);
  AddJson(plot, plot_options.json);
  plot->footer(kPlotHelp);
  plot->callback(run_in_apartment([&] { RunPlot(plot_options, console); }));

  CLI::App* devices = app.add_subcommand("devices", "List the sound devices");
  AddJson(devices, json);
  devices->footer("Example: marlinda devices");
  devices->callback(run_in_apartment([&] { RunDevices(json, console); }));

  PlayOptions play_options;
  CLI::App* play = app.add_subcommand("play", "Play an audio file");
  play->add_option("IN", play_options.input, "Audio file to read")->required();
  play->add_option("--from", play_options.from, "Play from this time on");
  play->add_option("--to", play_options.to, "Play up to this time");
  play->add_flag("--loop", play_options.loop, "Play again and again, until Ctrl+C");
  play->add_option("--channels", play_options.channels,
                   "Channels to be heard, counted from 0, such as 0,1 (all unless given)");
  AddDevice(play, play_options.device);
  AddProgress(play, console);
  AddJson(play, play_options.json);
  play->footer(kPlayHelp);
  play->callback(run_in_apartment([&] { RunPlay(play_options, console); }));

  RecordOptions record_options;
  CLI::App* record = app.add_subcommand("record", "Record a WAV file");
  record
      ->add_option("OUT.wav", record_options.output,
                   "WAV file to write; an existing one is replaced")
      ->required();
  record->add_option("--seconds", record_options.seconds, "How long to record")->required();
  AddFormat(record, record_options.rate, record_options.channels,
            "44100 Hz, 2 channels unless given");
  AddBits(record, record_options.bits);
  AddDevice(record, record_options.device);
  AddProgress(record, console);
  AddJson(record, record_options.json);
  record->footer(kRecordHelp);
  record->callback(run_in_apartment([&] { RunRecord(record_options, console); }));

  ScrubOptions scrub_options;
  CLI::App* scrub = app.add_subcommand("scrub", "Hear an audio file at a moving position");
  scrub->add_option("IN", scrub_options.input, "Audio file to read")->required();
  scrub->add_option("--at", scrub_options.at, "Positions to hear one after the other")
      ->type_name("TIME,TIME,...");
  scrub->add_option("--hold", scrub_options.hold, "Seconds to stay at each (0.5 unless given)")
      ->needs("--at");
  AddDevice(scrub, scrub_options.device);
  AddJson(scrub, scrub_options.json);
  scrub->footer(kScrubHelp);
  scrub->callback(run_in_apartment([&] { RunScrub(scrub_options, console); }));

  RefuseFlagsTwice(app);
  std::vector<std::string> arguments = Console::Arguments();
  RequireCommand(app, arguments);
  std::ranges::reverse(arguments);  // the order in which CLI11 takes them
  try {
    app.parse(arguments);
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() != 0) {
      throw HostError(ExitStatus::kUsage, "", error.what(), "See \"marlinda --help\".");
    }
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
