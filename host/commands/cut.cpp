// "marlinda cut": joins pieces of audio in the order given, and adds silence, labels and markers.
#include "host/commands/shared.h"
#include "host/cut_plan.h"
#include "host/document_picture.h"
#include "host/joined_source.h"
#include "host/wide_text.h"

namespace marlinda {
namespace {

constexpr const char* kCutHelp =
    "Several files are joined in their order, in the format of the first.\n"
    "Times are seconds such as 1.5, times such as 1:02:03.5, or frames such as 66150f.\n"
    "The pieces are joined in the order given; an empty BEGIN or END means the start or the end\n"
    "of the audio. Then every silence is inserted, in the order given, at its position in the\n"
    "result so far. Labels and markers are positions in the finished result.\n"
    "Example: marlinda cut in.ogg out.wav --keep 0:2.5 --keep 10: --silence 2.5:1 --label 3.5:Two";

struct CutOptions {
  std::vector<std::string> files;
  CutRequest request;
  PictureRequest picture;  // the result's picture; none if `picture.file` is empty
  std::optional<int> bits;
  bool replace_text = false;
  bool json = false;
};

// Copies the pieces from a document of the whole source, so that each piece keeps its labels and
// markers.
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

// Rejects characters that the code page lacks, because the engine would silently lose them.
void RequireText(const std::string& text) {
  if (FitsCodePage(Widen(text))) return;
  throw HostError(ExitStatus::kUsage, text, "the system's code page lacks some of these characters",
                  "Choose other characters, or use --replace-text to write \"?\" instead.");
}

void Cut(const CutOptions& options, const Console& console) {
  CheckSyntax(options.request);
  const auto [inputs, output] = SplitFiles("cut", options.files);
  JoinedSource source(inputs);
  FileExport wave(output, inputs);
  const bool draws = !options.picture.file.empty();
  if (draws) CheckPicture(options.picture, inputs);
  const int bits = OutputBits(options.bits, source.first().BitsPerSample(), wave);
  CutPlan plan;
  const auto expected = source.Expected({}, {});
  if (expected) {
    plan = PlanCut(options.request, expected->frames, expected->format.rate);
    wave.RequireRoom(plan.length, expected->format, bits);
  }
  const ImportedAudio audio = source.Import({}, {}, console, expected ? &plan.pieces : nullptr);
  if (!expected || audio.frames != expected->frames) {
    plan = PlanCut(options.request, audio.frames, audio.format.rate);
  }

  if (!options.replace_text) {
    for (const Label& label : plan.annotations.labels) RequireText(label.name);
    for (const SectionMarker& marker : plan.annotations.markers) RequireText(marker.name);
  }
  const auto document = Assemble(plan, audio, source.annotations(), bits);
  const Annotations annotations = ReadAnnotations(document.Get());
  // Omits the loop data, because its beat count belongs to the whole source.
  wave.SetTexts({source.first().ReadTags(), annotations});
  const auto reader = Query<IAudioReader>(document.Get());
  const WaveFileFacts facts = wave.Run(reader.Get(), bits, console);
  WrittenFile written = {inputs,      source.first().filter().class_name,
                         output,      audio.format,
                         bits,        plan.length,
                         annotations, facts};
  try {
    if (draws) {
      DrawAudio(reader.Get(), annotations, options.picture);
      written.picture = options.picture.file;
    }
  } catch (...) {
    // Report the audio file, which is complete without its picture.
    PrintSummary(written, options.json, console);
    throw;
  }
  PrintSummary(written, options.json, console);
}

// Adds an option that may be repeated, with one value each time.
CLI::Option* AddRepeated(CLI::App* command, const char* name, const char* form,
                         std::vector<std::string>& values, const char* help) {
  return command->add_option(name, values, help)->option_text(form)->allow_extra_args(false);
}

}  // namespace

void AddCut(CLI::App& app, Console& console) {
  const auto [command, options] = AddCommand(
      app, console, "cut", "Join pieces of audio files and write them as WAV", kCutHelp, Cut);
  AddFiles(command, options->files);
  CutRequest& request = options->request;
  AddRepeated(command, "--keep", "BEGIN:END", request.keep, "A piece to keep")->required();
  AddRepeated(command, "--silence", "AT:SECONDS", request.silences, "Insert silence");
  AddRepeated(command, "--label", "AT:NAME", request.labels, "Set a label");
  AddRepeated(command, "--marker", "BEGIN:END:NAME", request.markers, "Mark a section");
  command->add_option("--plot", options->picture.file, "Draw the result as a picture as well")
      ->option_text("OUT.png|OUT.svg");
  AddBits(command, options->bits, kSourceBits);
  command->add_flag("--replace-text", options->replace_text,
                    "Write \"?\" for characters outside the system's code page");
  AddProgress(command, console);
  AddJson(command, options->json);
}

}  // namespace marlinda
