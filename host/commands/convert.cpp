// "marlinda convert": writes a whole file as WAV, MP3 or WMA with its tags, in another sample rate
// or number of channels if requested. WAV files also keep labels, markers and loop data.
#include "host/commands/commands.h"

#include "core/sample_count.h"
#include "host/commands/shared.h"
#include "host/converted_audio.h"

namespace marlinda {
namespace {

constexpr const char* kConvertHelp =
    "Example: marlinda convert in.ogg out.wav --bits 24 --rate 48000";

struct ConvertOptions {
  std::string input;
  std::string output;
  std::optional<int> bits;
  // The input's unless given.
  std::optional<int> rate;
  std::optional<int> channels;
  bool json = false;
};

// Disconnects the connector on destruction: it and the filters refer to each other.
class Connector {
 public:
  Connector() = default;
  ~Connector() { task_->Cancel(); }
  Connector(const Connector&) = delete;
  Connector& operator=(const Connector&) = delete;

  IAudioConnector* operator->() const { return connector_.Get(); }
  ComPtr<IAudioReader> reader() const { return Query<IAudioReader>(connector_.Get()); }
  ICoreTask* task() const { return task_.Get(); }

 private:
  const ComPtr<IAudioConnector> connector_ =
      CreateObject<IAudioConnector>(CLSID_CAudioConnector, "CAudioConnector");
  const ComPtr<ICoreTask> task_ = Query<ICoreTask>(connector_.Get());
};

void Convert(const ConvertOptions& options, const Console& console) {
  Source source(options.input);
  FileExport wave(options.output, {options.input});
  const int bits = OutputBits(options.bits, source.BitsPerSample(), wave);
  if (const auto expected = source.Expected()) {
    const AudioFormat to = TargetFormat(expected->format, options.rate, options.channels);
    wave.RequireRoom(ConvertSampleCount(expected->frames, expected->format.rate, to.rate), to,
                     bits);
  }
  // Import into a pool even if the format changes: the connector needs the exact length in advance,
  // and a filter may only estimate it.
  const ImportedAudio audio = source.Import(console);
  const AudioFormat to = TargetFormat(audio.format, options.rate, options.channels);
  const Annotations annotations = AtRate(source.ReadAnnotations(), audio.format.rate, to.rate);
  wave.SetTexts({source.ReadTags(), annotations, source.ReadAcidData()});
  __int64 frames = audio.frames;
  WaveFileFacts facts;
  if (to == audio.format) {
    facts = wave.Run(audio.reader.Get(), bits, console);
  } else {
    RequireConverter(audio.format, to);
    const Connector connector;
    Check(connector->SetupReaderToExport(audio.reader.Get(), wave.filter_object(), to.rate,
                                         to.channels));
    Check(connector.reader()->GetSampleCount(&frames));
    facts = wave.Run(connector.reader().Get(), bits, console, connector.task());
  }
  PrintSummary({{options.input},
                source.filter().class_name,
                options.output,
                to,
                bits,
                frames,
                annotations,
                facts},
               options.json, console);
}

}  // namespace

void AddConvert(CLI::App& app, Console& console) {
  const auto [command, options] = AddCommand(
      app, console, "convert", "Write an audio file as WAV, MP3 or WMA", kConvertHelp, Convert);
  AddFiles(command, options->input, options->output);
  AddBits(command, options->bits, kSourceBits);
  AddFormat(command, options->rate, options->channels, "as the input unless given");
  AddProgress(command, console);
  AddJson(command, options->json);
}

}  // namespace marlinda
