// "marlinda info": shows the properties that an import filter reports without decoding the file.
#include "host/commands/shared.h"
#include "host/engine.h"
#include "host/timecode.h"

namespace marlinda {
namespace {

Json ToJson(const std::optional<AcidData>& acid) {
  if (!acid) return nullptr;
  return {{"root_note", acid->root_note},
          {"meter_beats", acid->meter_beats},
          {"meter_delimiter", acid->meter_delimiter},
          {"beat_count", acid->beat_count},
          {"tempo", acid->tempo}};
}

Json ToJson(const Source& source) {
  const auto format = source.Format();
  const auto frames = source.Frames();
  const bool has_duration = format && format->rate > 0 && frames;
  const Tags tags = source.ReadTags();
  const Annotations annotations = source.ReadAnnotations();
  const FilterIdentity& filter = source.filter();
  return {{"file", source.file()},
          {"filter", {{"class", filter.class_name}, {"class_id", filter.class_id}}},
          {"sample_rate", format ? Json(format->rate) : Json(nullptr)},
          {"channels", format ? Json(format->channels) : Json(nullptr)},
          {"bits_per_sample", OrNull(source.BitsPerSample())},
          {"frames", OrNull(frames)},
          {"duration_seconds",
           has_duration ? Json(static_cast<double>(*frames) / format->rate) : Json(nullptr)},
          {"bit_rate", OrNull(source.BitRate())},
          {"tags",
           {{"title", tags.title},
            {"artist", tags.artist},
            {"album", tags.album},
            {"year", tags.year},
            {"genre", tags.genre}}},
          {"labels", annotations.labels},
          {"markers", annotations.markers},
          {"acid", ToJson(source.ReadAcidData())}};
}

void Line(std::string& text, const std::string& name, const std::string& value) {
  if (!value.empty()) text += name + std::string(12 - name.size(), ' ') + value + "\n";
}

template <class T>
std::string Number(const std::optional<T>& value, const char* unit) {
  return value ? std::to_string(*value) + unit : "unknown";
}

std::string ToText(const Source& source) {
  const auto format = source.Format();
  const auto frames = source.Frames();
  const LONG rate = format ? format->rate : 0;
  std::string text;
  Line(text, "file", source.file());
  const std::string& filter = source.filter().class_name;
  Line(text, "read by", filter.empty() ? "a filter that does not tell its name" : filter);
  Line(text, "format", format ? Describe(*format) : "unknown");
  Line(text, "duration", FormatDuration(frames.value_or(-1), rate));
  Line(text, "frames", Number(frames, ""));
  Line(text, "bits", Number(source.BitsPerSample(), ""));
  Line(text, "bit rate", Number(source.BitRate(), " bit/s"));
  const Tags tags = source.ReadTags();
  Line(text, "title", tags.title);
  Line(text, "artist", tags.artist);
  Line(text, "album", tags.album);
  Line(text, "year", tags.year);
  Line(text, "genre", tags.genre);
  const Annotations annotations = source.ReadAnnotations();
  for (const Label& label : annotations.labels) {
    Line(text, "label", FormatDuration(label.position, rate) + "  " + label.name);
  }
  for (const auto& [section, name] : annotations.markers) {
    Line(text, "marker",
         FormatDuration(section.begin, rate) + " to " + FormatDuration(section.end, rate) + "  " +
             name);
  }
  if (const auto acid = source.ReadAcidData()) {
    Line(text, "loop",
         std::to_string(acid->beat_count) + " beats of " + std::to_string(acid->meter_beats) + "/" +
             std::to_string(acid->meter_delimiter) + ", tempo " + std::to_string(acid->tempo) +
             ", root note " + std::to_string(acid->root_note));
  }
  return text;
}

struct InfoOptions {
  std::string file;
  bool json = false;
};

void PrintInfo(const InfoOptions& options, const Console& console) {
  const Source source(options.file);
  console.Print(options.json ? Serialize(ToJson(source)) : ToText(source));
}

}  // namespace

void AddInfo(CLI::App& app, Console& console) {
  const auto [command, options] = AddCommand(app, console, "info", "Describe an audio file",
                                             "Example: marlinda info in.ogg", PrintInfo);
  command->add_option("FILE", options->file, "Audio file")->required();
  AddJson(command, options->json);
}

}  // namespace marlinda
