// "marlinda plot": the waveform of an audio file as a picture.
#include <stdexcept>

#include "host/commands/commands.h"
#include "host/commands/shared.h"
#include "host/document_picture.h"

namespace marlinda {
namespace {

constexpr const char* kPlotHelp =
    "Times are seconds such as 1.5, times such as 1:02:03.5, or frames such as 66150f.\n"
    "One lane a channel; full scale fills a lane. Labels and markers of the file are drawn in.\n"
    "Example: marlinda plot in.ogg out.png --width 1920 --from 10 --to 20";

struct PlotOptions {
  std::string input;
  PictureRequest picture;
  std::string from;  // either may be empty
  std::string to;
  bool json = false;
};

void Plot(PlotOptions options, const Console& console) {
  try {
    options.picture.range = ParseFromTo(options.from, options.to);
  } catch (const std::invalid_argument& error) {
    throw UsageError("plot", error.what());
  }
  CheckPicture(options.picture, {options.input});
  Source source(options.input);
  const auto expected = source.Expected();
  const ImportedAudio audio =
      expected
          ? source.ImportParts(
                {ResolveRange(options.picture, expected->frames, expected->format.rate)}, console)
          : source.Import(console);
  const auto document = NewDocument(audio.format, 32);
  SetAudio(document.Get(), audio);
  const Annotations annotations = source.ReadAnnotations();
  DrawDocument(document.Get(), annotations, options.picture);

  if (options.json) {
    console.Print(Serialize(Json{{"input", options.input},
                                 {"filter", source.filter().class_name},
                                 {"picture", options.picture.file},
                                 {"width", options.picture.width},
                                 {"height", options.picture.height},
                                 {"frames", audio.frames},
                                 {"labels", ToJson(annotations.labels)},
                                 {"markers", ToJson(annotations.markers)}}));
  } else {
    console.Print("drew " + options.picture.file + ": " + std::to_string(options.picture.width) +
                  " x " + std::to_string(options.picture.height) + " pixels\n");
  }
}

}  // namespace

void AddPlot(CLI::App& app, Console& console) {
  const auto options = std::make_shared<PlotOptions>();
  CLI::App* command = AddCommand(app, "plot", "Draw the waveform of an audio file", kPlotHelp,
                                 [options, &console] { Plot(*options, console); });
  PictureRequest& picture = options->picture;
  command->add_option("IN", options->input, "Audio file to read")->required();
  command->add_option("OUT.png", picture.file, "Picture; an existing one is replaced")->required();
  command->add_option("--width", picture.width, "Pixels (1200 unless given)");
  command->add_option("--height", picture.height, "Pixels (320 unless given)");
  command->add_option("--from", options->from, "Draw from this time on");
  command->add_option("--to", options->to, "Draw up to this time");
  AddProgress(command, console);
  AddJson(command, options->json);
}

}  // namespace marlinda
