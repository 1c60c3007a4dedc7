#include "host/commands/cut.h"

#include <stdexcept>

#include "host/commands/summary.h"
#include "host/engine.h"

namespace marlinda {
namespace {

HostError UsageError(const std::invalid_argument& error) {
  return {ExitStatus::kUsage, "", error.what(), "See \"marlinda cut --help\"."};
}

ComPtr<IEditedAudio> NewDocument(const AudioFormat& format, int bits) {
  auto document = CreateObject<IEditedAudio>(CLSID_CEditedAudio, "CEditedAudio");
  Check(document->SetFormat(format.rate, format.channels, static_cast<SHORT>(bits)));
  return document;
}

ComPtr<IAudioReader> Silence(__int64 frames, const AudioFormat& format) {
  const auto silence = CreateObject<INullReader>(CLSID_CNullReader, "CNullReader");
  Check(silence->Create(frames, format.rate, format.channels));
  return Query<IAudioReader>(silence.Get());
}

// The pieces are copied out of a document of the whole source, so that the labels and markers of
// the source come along with the audio they belong to.
ComPtr<IEditedAudio> Assemble(const CutPlan& plan, const ImportedAudio& audio,
                              const Annotations& source_annotations, int bits) {
  const auto whole = NewDocument(audio.format, bits);
  Check(whole->AppendSegment(audio.reader.Get(), 0, audio.frames));
  AddAnnotations(whole.Get(), source_annotations);

  auto result = NewDocument(audio.format, bits);
  const auto piece = NewDocument(audio.format, bits);
  __int64 length = 0;
  for (const FrameRange& range : plan.pieces) {
    Check(whole->Copy(piece.Get(), range.begin, range.end));
    Check(result->Insert(length, piece.Get()));
    length += range.end - range.begin;
  }
  for (const SilenceInsertion& silence : plan.silences) {
    Check(result->InsertSegment(silence.at, Silence(silence.length, audio.format).Get(), 0,
                                silence.length));
  }
  AddAnnotations(result.Get(), plan.annotations);
  return result;
}

}  // namespace

void RunCut(const CutOptions& options, const Console& console) {
  try {
    CheckSyntax(options.request);
  } catch (const std::invalid_argument& error) {
    throw UsageError(error);
  }
  Source source(options.input);
  WaveExport wave(options.output, options.input);
  const bool draws = !options.picture.file.empty();
  if (draws) CheckPicture(options.picture, options.input);
  const ImportedAudio audio = source.Import(console);
  CutPlan plan;
  try {
    plan = PlanCut(options.request, audio.frames, audio.format.rate);
  } catch (const std::invalid_argument& error) {
    throw UsageError(error);
  }

  const auto document = Assemble(plan, audio, source.ReadAnnotations(), options.bits);
  const Annotations annotations = ReadAnnotations(document.Get());
  wave.SetTags(source.ReadTags());
  // Loop data is left behind: its beat count tells of the whole source.
  wave.SetAnnotations(annotations);
  const auto reader = Query<IAudioReader>(document.Get());
  const WaveFileFacts facts = wave.Run(reader.Get(), options.bits, console);
  WrittenFile written = {options.input,  source.filter().class_name,
                         options.output, audio.format,
                         options.bits,   plan.length,
                         annotations,    facts};
  try {
    if (draws) {
      DrawDocument(document.Get(), annotations, options.picture);
      written.picture = options.picture.file;
    }
  } catch (...) {
    // The audio is whole without its picture: it stays, and the report says so.
    PrintSummary(written, options.json, console);
    throw;
  }
  PrintSummary(written, options.json, console);
}

}  // namespace marlinda
