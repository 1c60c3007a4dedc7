// "marlinda plot": draws the waveform of an audio file.
#include "host/commands/shared.h"
#include "host/document_picture.h"

namespace marlinda {
namespace {

constexpr const char* kPlotHelp =
    "Times are seconds such as 1.5, times such as 1:02:03.5, or frames such as 66150f.\n"
    "Each channel has a lane, which full scale fills; clipped samples are marked above it. Labels\n"
    "and markers of the file are drawn, too.\n"
    "Example: marlinda plot in.ogg out.png --width 1920 --from 10 --to 20";

struct PlotOptions {
  std::string input;
  PictureRequest picture;
  std::string from;  // `from` and `to` may be empty
  std::string to;
  std::string colour;
  bool json = false;
};

// Parses "26ab9c" or "#26ab9c".
Colour ParseColour(const std::string& text) {
  const std::string digits = text.starts_with('#') ? text.substr(1) : text;
  if (digits.size() != 6 ||
      digits.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) {
    throw UsageError("plot", "--colour: \"" + text + "\" is no colour such as 265c9e");
  }
  const auto part = [&](std::size_t at) {
    return static_cast<std::uint8_t>(std::stoi(digits.substr(at, 2), nullptr, 16));
  };
  return {part(0), part(2), part(4)};
}

void Plot(PlotOptions options, const Console& console) {
  options.picture.range = ParseFromTo(options.from, options.to);
  if (!options.colour.empty()) options.picture.style.wave = ParseColour(options.colour);
  CheckPicture(options.picture, {options.input});
  Source source(options.input);
  const Annotations annotations = source.ReadAnnotations();
  std::optional<int> height;
  const auto expected = source.Expected();
  if (expected) {
    // Draws while the file is decoded, without a pool.
    const FrameRange range =
        ResolveRange(options.picture.range, expected->frames, expected->format.rate);
    RangePicture picture(options.picture, range, expected->format);
    const ImportedAudio part = source.Stream(
        [&](const AudioFormat&, auto samples) { picture.Add(samples); }, console, range);
    if (part.frames == range.end - range.begin) height = picture.Draw(annotations);
    // Otherwise the file holds fewer frames than it announces. Decodes it again, into the pool.
    if (!height) source.Initialize();
  }
  const ImportedAudio audio = height ? *expected : source.Import(console);
  if (!height) height = DrawAudio(audio.reader.Get(), annotations, options.picture);

  if (options.json) {
    console.Print(Serialize(Json{{"input", options.input},
                                 {"filter", source.filter().class_name},
                                 {"picture", options.picture.file},
                                 {"width", options.picture.width},
                                 {"height", *height},
                                 {"frames", audio.frames},
                                 {"labels", annotations.labels},
                                 {"markers", annotations.markers}}));
  } else {
    console.Print("drew " + options.picture.file + ": " + std::to_string(options.picture.width) +
                  " x " + std::to_string(*height) + " pixels\n");
  }
}

}  // namespace

void AddPlot(CLI::App& app, Console& console) {
  const auto options = std::make_shared<PlotOptions>();
  CLI::App* command = AddCommand(app, "plot", "Draw the waveform of an audio file", kPlotHelp,
                                 [options, &console] { Plot(*options, console); });
  PictureRequest& picture = options->picture;
  command->add_option("IN", options->input, "Audio file to read")->required();
  command->add_option("OUT.png|OUT.svg", picture.file, "Picture; an existing one is replaced")
      ->required();
  const auto add_side = [command](const char* name, auto& side, const char* help) {
    command->add_option(name, side, help)->option_text("N")->check(CLI::Range(32, 16384));
  };
  add_side("--width", picture.width, "Pixels, 32 to 16384 (1200 unless given)");
  add_side("--height", picture.height, "Pixels (320 unless given, more for many channels)");
  command
      ->add_option_function<std::string>(
          "--scale", [&picture](const std::string& name) { picture.style.decibels = name == "db"; },
          "Vertical scale: linear, or level in dB down to -60 dB (linear unless given)")
      ->option_text("linear|db")
      ->check(CLI::IsMember({"linear", "db"}));
  command
      ->add_option_function<std::string>(
          "--theme", [&picture](const std::string& name) { picture.style.dark = name == "dark"; },
          "Colours (light unless given)")
      ->option_text("light|dark")
      ->check(CLI::IsMember({"light", "dark"}));
  command->add_option("--colour", options->colour, "Colour of the wave")->option_text("RRGGBB");
  command->add_flag("--rms", picture.rms, "Draw the root mean square as well");
  AddFromTo(command, options->from, options->to);
  AddProgress(command, console);
  AddJson(command, options->json);
}

}  // namespace marlinda
