// "marlinda convert": converts a whole file and its tags to WAV, MP3 or WMA and, if requested, to
// another sample rate or number of channels. WAV files also keep labels, markers and loop data.
#include "core/sample_count.h"
#include "host/commands/shared.h"
#include "host/converted_audio.h"
#include "host/host_streams.h"

namespace marlinda {
namespace {

constexpr const char* kConvertHelp =
    "Example: marlinda convert in.ogg out.wav --bits 24 --rate 48000";

struct ConvertOptions {
  std::string input;
  std::string output;
  std::optional<int> bits;
  // If empty, the output has the input's value.
  std::optional<int> rate;
  std::optional<int> channels;
  bool json = false;
};

// The destructor cancels the task, so that the connector and the filters release each other.
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

// Imports and exports at the same time, without a pool. Returns nothing if the import stalls or
// delivers less than the file announces. The missing samples are then silent in the output.
std::optional<WaveFileFacts> ConvertDirectly(Source& source, const AudioFormat& to, int bits,
                                             FileExport& wave, const Console& console) {
  const Connector connector;
  source.Initialize(Query<IAudioWriter>(connector.task()).Get());
  Check(connector->SetupImportToExport(source.filter_object(), wave.filter_object(), to.rate,
                                       to.channels));
  const auto complete = std::make_shared<std::atomic<bool>>(true);
  const auto reader = ReadWith(connector.reader().Get(),
                               [complete](IAudioReader* queue, __int64 position, SAFEARRAY* array) {
                                 const HRESULT hr = queue->ReadAudio(position, array);
                                 if (hr != S_OK) *complete = false;
                                 return hr;
                               });
  const WaveFileFacts facts =
      wave.Run(reader.Get(), bits, console, connector.task(), source.MayHoldFloats());
  if (!*complete) return std::nullopt;
  return facts;
}

// Exports an imported take. The connector needs the exact length, which the take has.
WaveFileFacts ConvertFromPool(const ImportedAudio& audio, const AudioFormat& to, int bits,
                              FileExport& wave, const Console& console) {
  if (to == audio.format) return wave.Run(audio.reader.Get(), bits, console);
  const Connector connector;
  Check(connector->SetupReaderToExport(audio.reader.Get(), wave.filter_object(), to.rate,
                                       to.channels));
  return wave.Run(connector.reader().Get(), bits, console, connector.task());
}

void Convert(const ConvertOptions& options, const Console& console) {
  Source source(options.input);
  std::optional<FileExport> wave(std::in_place, options.output, std::vector{options.input});
  const int bits = OutputBits(options.bits, source.BitsPerSample(), *wave);
  AudioFormat to;
  __int64 frames = 0;
  Annotations annotations;
  const auto write = [&](const ImportedAudio& audio) -> std::optional<WaveFileFacts> {
    to = TargetFormat(audio.format, options.rate, options.channels);
    frames = ConvertSampleCount(audio.frames, audio.format.rate, to.rate);
    if (to != audio.format) NewConverter(audio.format, to);
    annotations = AtRate(source.ReadAnnotations(), audio.format.rate, to.rate);
    wave->SetTexts({source.ReadTags(), annotations, source.ReadAcidData()});
    if (audio.reader) return ConvertFromPool(audio, to, bits, *wave, console);
    return ConvertDirectly(source, to, bits, *wave, console);
  };
  std::optional<WaveFileFacts> facts;
  if (const auto expected = source.Expected()) {
    facts = write(*expected);
    if (!facts) {
      wave->Remove();
      wave.emplace(options.output, std::vector{options.input});
      source.Initialize();
    }
  }
  if (!facts) facts = write(source.Import(console));
  PrintSummary({{options.input},
                source.filter().class_name,
                options.output,
                to,
                bits,
                frames,
                annotations,
                *facts},
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
