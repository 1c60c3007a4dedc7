#include "host/commands/shared.h"

#include <stdexcept>
#include <utility>

#include "core/apartment.h"
#include "host/timecode.h"

namespace marlinda {
CLI::App* AddCommand(CLI::App& app, const char* name, const char* description, const char* footer,
                     std::function<void()> action) {
  CLI::App* command = app.add_subcommand(name, description);
  command->footer(footer);
  command->callback([name, action = std::move(action)] {
    const Apartment apartment(COINIT_APARTMENTTHREADED);
    Check(apartment.result());
    try {
      action();
    } catch (const std::invalid_argument& error) {
      throw UsageError(name, error.what());
    }
  });
  return command;
}

void AddJson(CLI::App* command, bool& json) { command->add_flag("--json", json, "Report in JSON"); }

void AddProgress(CLI::App* command, Console& console) {
  command->add_flag_callback(
      "--progress", [&console] { console.WriteProgressLines(); },
      "Report progress on standard error, a line for each percent");
}

CLI::Option* AddOutput(CLI::App* command, std::string& output) {
  return command
      ->add_option("OUT.wav", output,
                   "File to write: .wav, .mp3 or .wma; an existing one is replaced")
      ->required();
}

void AddFiles(CLI::App* command, std::vector<std::string>& files) {
  command
      ->add_option("FILES", files,
                   "Audio files to read, in their order, and last the file to write")
      ->required();
}

std::pair<std::vector<std::string>, std::string> SplitFiles(const char* command,
                                                            std::vector<std::string> files) {
  if (files.size() < 2) throw UsageError(command, "OUT.wav is required");
  std::string output = std::move(files.back());
  files.pop_back();
  return {std::move(files), std::move(output)};
}

void AddFiles(CLI::App* command, std::string& input, std::string& output) {
  command->add_option("IN", input, "Audio file to read")->required();
  AddOutput(command, output);
}

void AddDevice(CLI::App* command, std::optional<int>& device) {
  command
      ->add_option("--device", device,
                   "Sound device by its index (the system's default unless given); \"marlinda "
                   "devices\" lists them")
      ->option_text("N")
      ->check(CLI::Range(0, 999));
}

void AddFromTo(CLI::App* command, std::string& from, std::string& to) {
  command->add_option("--from", from, "Start at this time")->option_text("TIME");
  command->add_option("--to", to, "End at this time")->option_text("TIME");
}

int OutputBits(const std::optional<int>& asked, const std::optional<int>& source_bits,
               const FileExport& wave) {
  if (asked && !wave.IsWave()) {
    throw HostError(ExitStatus::kUsage, "--bits", "only WAV files have a number of bits",
                    "Leave the option out.");
  }
  if (asked) return *asked;
  const int bits = source_bits.value_or(16);
  return bits == 24 || bits == 32 ? bits : 16;
}

std::string Serialize(const Json& report) {
  // Increase the version when a report loses a key or a key changes its meaning, not for new keys.
  constexpr int kSchemaVersion = 2;
  Json versioned = {{"schema_version", kSchemaVersion}};
  versioned.update(report);
  // Replace invalid UTF-8: names come from files, and one bad name must not prevent the report.
  return versioned.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
}

void to_json(Json& json, const Label& label) {
  json = {{"position", label.position}, {"name", label.name}};
}

void to_json(Json& json, const SectionMarker& marker) {
  json = {{"begin", marker.section.begin}, {"end", marker.section.end}, {"name", marker.name}};
}

std::string DescribeFile(const std::string& file, std::int64_t frames, const AudioFormat& format,
                         int bits) {
  return file + ": " + FormatDuration(frames, format.rate) + ", " + std::to_string(frames) +
         " frames, " + Describe(format) +
         (bits > 0 ? ", " + std::to_string(bits) + " bits\n" : "\n");
}

void PrintSummary(const WrittenFile& written, bool json, const Console& console) {
  const AudioFormat& format = written.format;
  // Compressed files have no bits per sample.
  const int bits = written.facts.block_align > 0 ? written.bits : 0;
  if (!json) {
    console.Print(DescribeFile(written.output, written.frames, format, bits));
    return;
  }
  console.Print(Serialize({{"input", written.inputs.front()},
                           {"inputs", written.inputs},
                           {"filter", written.filter},
                           {"output", written.output},
                           {"sample_rate", format.rate},
                           {"channels", format.channels},
                           {"bits_per_sample", bits > 0 ? Json(bits) : Json(nullptr)},
                           {"frames", written.frames},
                           {"duration_seconds", static_cast<double>(written.frames) / format.rate},
                           {"bytes", written.facts.bytes},
                           {"labels", written.annotations.labels},
                           {"markers", written.annotations.markers},
                           {"picture", OrNull(written.picture)}}));
}

}  // namespace marlinda
