#include "host/commands/convert.h"

#include "host/commands/summary.h"
#include "host/engine.h"

namespace marlinda {

void RunConvert(const ConvertOptions& options, const Console& console) {
  Source source(options.input);
  WaveExport wave(options.output, options.input);
  const ImportedAudio audio = source.Import(console);
  const Annotations annotations = source.ReadAnnotations();
  wave.SetTags(source.ReadTags());
  wave.SetAnnotations(annotations);
  if (const auto acid = source.ReadAcidData()) wave.SetAcidData(*acid);
  const WaveFileFacts facts = wave.Run(audio.reader.Get(), options.bits, console);
  PrintSummary({options.input, source.filter().class_name, options.output, audio.format,
                options.bits, audio.frames, annotations, facts},
               options.json, console);
}

}  // namespace marlinda
