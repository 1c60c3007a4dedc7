// "marlinda join": joins several files into one.
#include "host/commands/shared.h"
#include "host/joined_source.h"

namespace marlinda {
namespace {

constexpr const char* kJoinHelp =
    "Files in another sample rate or number of channels are converted; labels and markers keep\n"
    "their places. Titles are those of the first file.\n"
    "Example: marlinda join first.wav second.ogg third.mp3 whole.wav --rate 48000";

struct JoinOptions {
  std::vector<std::string> files;
  std::optional<int> bits;
  // If empty, the output has the first file's value.
  std::optional<int> rate;
  std::optional<int> channels;
  bool json = false;
};

void Join(const JoinOptions& options, const Console& console) {
  const auto [inputs, output] = SplitFiles("join", options.files);
  JoinedSource source(inputs);
  FileExport wave(output, inputs);
  const int bits = OutputBits(options.bits, source.first().BitsPerSample(), wave);
  if (const auto expected = source.Expected(options.rate, options.channels)) {
    wave.RequireRoom(expected->frames, expected->format, bits);
  }
  const ImportedAudio audio = source.Import(options.rate, options.channels, console);
  wave.SetTexts({source.first().ReadTags(), source.annotations()});
  const WaveFileFacts facts = wave.Run(audio.reader.Get(), bits, console);
  PrintSummary({inputs, source.first().filter().class_name, output, audio.format, bits,
                audio.frames, source.annotations(), facts},
               options.json, console);
}

}  // namespace

void AddJoin(CLI::App& app, Console& console) {
  const auto [command, options] = AddCommand(
      app, console, "join", "Write several audio files as one WAV file", kJoinHelp, Join);
  AddFiles(command, options->files);
  AddBits(command, options->bits, kSourceBits);
  AddFormat(command, options->rate, options->channels, "as the first file unless given");
  AddProgress(command, console);
  AddJson(command, options->json);
}

}  // namespace marlinda
