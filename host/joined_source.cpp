#include "host/joined_source.h"

#include "host/converted_audio.h"

namespace marlinda {
namespace {

void Append(const Annotations& more, __int64 offset, Annotations& all) {
  for (Label label : more.labels) {
    label.position += offset;
    all.labels.push_back(std::move(label));
  }
  for (SectionMarker marker : more.markers) {
    marker.section.begin += offset;
    marker.section.end += offset;
    all.markers.push_back(std::move(marker));
  }
}

}  // namespace

JoinedSource::JoinedSource(std::span<const std::string> files) {
  for (const std::string& file : files) sources_.emplace_back(file);
}

ImportedAudio JoinedSource::Import(std::optional<int> rate, std::optional<int> channels,
                                   const Console& console) {
  ImportedAudio whole;
  auto document = ComPtr<IEditedAudio>();
  for (Source& source : sources_) {
    const ImportedAudio audio = source.Import(console);
    if (!document) {
      whole.format = {static_cast<LONG>(rate.value_or(audio.format.rate)),
                      static_cast<SHORT>(channels.value_or(audio.format.channels))};
      document = NewDocument(whole.format, 32);
    }
    const ImportedAudio part = ConvertAudio(audio, whole.format, console);
    Append(AtRate(source.ReadAnnotations(), audio.format.rate, whole.format.rate), whole.frames,
           annotations_);
    Check(document->AppendSegment(part.reader.Get(), 0, part.frames));
    whole.frames += part.frames;
  }
  whole.reader = Query<IAudioReader>(document.Get());
  return whole;
}

}  // namespace marlinda
