// JoinedSource: several input files in sequence, used as a single file.
#pragma once

#include <deque>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "core/sample_count.h"
#include "host/converted_audio.h"
#include "host/engine.h"

namespace marlinda {

inline void Append(const Annotations& more, __int64 offset, Annotations& all) {
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

class JoinedSource {
 public:
  // Opens all files. At least one is required. Throws for the first file that cannot be read.
  explicit JoinedSource(std::span<const std::string> files) {
    for (const std::string& file : files) sources_.emplace_back(file);
  }

  // The first file, whose tags and bits per sample apply to the whole.
  const Source& first() const { return sources_.front(); }

  // Returns the format and length of the whole, or nothing if Source::Expected returns nothing for
  // a file.
  std::optional<ImportedAudio> Expected(std::optional<int> rate,
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
  // Call ImportParts, which works as in Source, only if CanImportParts returns true.
  bool CanImportParts() const { return sources_.size() == 1 && first().Expected(); }
  ImportedAudio ImportParts(std::vector<FrameRange> parts, const Console& console) {
    annotations_ = first().ReadAnnotations();
    return sources_.front().ImportParts(std::move(parts), console);
  }

  // Decodes all files. Converts each file to `rate` and `channels`, or to the first file's values
  // if these are not given. Labels and markers move with their file.
  ImportedAudio Import(std::optional<int> rate, std::optional<int> channels,
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
  // Labels and markers of the whole. Valid after Import or ImportParts.
  const Annotations& annotations() const { return annotations_; }

 private:
  std::deque<Source> sources_;
  Annotations annotations_;
};

}  // namespace marlinda
