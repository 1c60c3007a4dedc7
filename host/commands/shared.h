// The commands of marlinda, and the options, JSON forms and file report that several of them share.
#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "host/annotations.h"
#include "host/console.h"
#include "host/engine.h"

namespace marlinda {

// Each function adds one command with its options to the parser. The parser runs the command after
// reading the whole command line. Failures throw a HostError or an HResultError.
void AddConvert(CLI::App& app, Console& console);
void AddCut(CLI::App& app, Console& console);
void AddDevices(CLI::App& app, Console& console);
void AddDoctor(CLI::App& app, Console& console);
void AddFilters(CLI::App& app, Console& console);
void AddInfo(CLI::App& app, Console& console);
void AddInstallFilters(CLI::App& app, Console& console);
void AddJoin(CLI::App& app, Console& console);
void AddPeaks(CLI::App& app, Console& console);
void AddPlay(CLI::App& app, Console& console);
void AddPlot(CLI::App& app, Console& console);
void AddRecord(CLI::App& app, Console& console);
void AddScrub(CLI::App& app, Console& console);
void AddStats(CLI::App& app, Console& console);

// Adds a command. `action` runs in a single-threaded apartment after the command line is parsed. A
// std::invalid_argument that `action` throws is reported as a usage error.
CLI::App* AddCommand(CLI::App& app, const char* name, const char* description, const char* footer,
                     std::function<void()> action);

// Adds a command in the same way and passes its parsed options to `run`.
template <class Options>
std::pair<CLI::App*, std::shared_ptr<Options>> AddCommand(
    CLI::App& app, Console& console, const char* name, const char* description, const char* footer,
    void (*run)(const Options&, const Console&)) {
  const auto options = std::make_shared<Options>();
  return {AddCommand(app, name, description, footer,
                     [options, run, &console] { run(*options, console); }),
          options};
}

void AddJson(CLI::App* command, bool& json);
void AddProgress(CLI::App* command, Console& console);
// Adds FILES: the inputs, then the output. SplitFiles separates them and throws if the output is
// missing.
void AddFiles(CLI::App* command, std::vector<std::string>& files);
std::pair<std::vector<std::string>, std::string> SplitFiles(const char* command,
                                                            std::vector<std::string> files);
// Adds the input and output arguments, which the help shows as IN and OUT.wav.
void AddFiles(CLI::App* command, std::string& input, std::string& output);
CLI::Option* AddOutput(CLI::App* command, std::string& output);
void AddDevice(CLI::App* command, std::optional<int>& device);
void AddFromTo(CLI::App* command, std::string& from, std::string& to);

// `standard` describes the default value in the help text.
template <class Number>
void AddBits(CLI::App* command, Number& bits, const std::string& standard) {
  command->add_option("--bits", bits, "Bits per sample of the output (" + standard + ")")
      ->option_text("8|16|24|32")
      ->check(CLI::IsMember({8, 16, 24, 32}));
}

template <class Number>
void AddFormat(CLI::App* command, Number& rate, Number& channels, const std::string& standard) {
  command->add_option("--rate", rate, "Frames per second, 1000 to 768000 (" + standard + ")")
      ->option_text("HZ")
      ->check(CLI::Range(1000, 768000));
  command->add_option("--channels", channels, "Number of channels, 1 to 32 (" + standard + ")")
      ->option_text("N")
      ->check(CLI::Range(1, 32));
}

constexpr const char* kSourceBits = "24 and 32 as in the input unless given, else 16";
// Returns `asked` if it is given, otherwise the source's bits if they are 24 or 32, otherwise 16.
int OutputBits(const std::optional<int>& asked, const std::optional<int>& source_bits,
               const FileExport& wave);

// Prints the keys in the order in which they were added.
using Json = nlohmann::ordered_json;

// Returns the report as text, with the schema version added.
std::string Serialize(const Json& report);
// nlohmann::json calls these functions for lists of labels and markers.
void to_json(Json& json, const Label& label);
void to_json(Json& json, const SectionMarker& marker);

template <class T>
Json OrNull(const std::optional<T>& value) {
  return value ? Json(*value) : Json(nullptr);
}

struct WrittenFile {
  std::vector<std::string> inputs;
  std::string filter;  // class name of the first input's filter
  std::string output;
  AudioFormat format;
  int bits = 16;
  std::int64_t frames = 0;
  Annotations annotations;
  WaveFileFacts facts;
  std::optional<std::string> picture = {};  // file of the picture, if any
};

void PrintSummary(const WrittenFile& written, bool json, const Console& console);
// Returns "out.wav: 0:00:01.000, 44100 frames, 44100 Hz, 2 channels, 16 bits" and a newline. Omits
// the bits if they are 0.
std::string DescribeFile(const std::string& file, std::int64_t frames, const AudioFormat& format,
                         int bits);

}  // namespace marlinda
