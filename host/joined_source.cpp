#include "host/joined_source.h"

#include "core/sample_count.h"
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

std::optional<ImportedAudio> JoinedSource::Expected(std::optional<int> rate,
                                                    std::optional<int> channels) const {
  std::optional<ImportedAudio> whole;
  for (const Source& source : sources_) {
    const auto part = source.Expected();
    if (!part) return std::nullopt;
    if (!whole) whole = {nullptr, TargetFormat(part->format, rate, channels), 0};
    whole->frames += ConvertSampleCount(part->frames, part->format.rate, whole->format.rate);
  }
  return whole;
}

ImportedAudio JoinedSource::ImportParts(std::vector<FrameRange> parts, const Console& console) {
  annotations_ = first().ReadAnnotations();
  return sources_.front().ImportParts(std::move(parts), console);
}

ImportedAudio JoinedSource::Import(std::optional<int> rate, std::optional<int> channels,
                                   const Console& console) {
  ImportedAudio whole;
  auto document = ComPtr<IEditedAudio>();
  for (Source& source : sources_) {
    const ImportedAudio audio = source.Import(console);
    if (!document) {
      whole.format = TargetFormat(audio.format, rate, channels);
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
