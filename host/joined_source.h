// JoinedSource: several input files in sequence, used as a single file.
#pragma once

#include <algorithm>
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

  // Decodes all files. Converts each file to `rate` and `channels`, or to the first file's values
  // if these are not given. Labels and markers move with their file.
  //
  // If `parts` is given, frames outside `parts` may be silent. If a file then holds less than it
  // announces, this file and the next files are decoded completely.
  ImportedAudio Import(std::optional<int> rate, std::optional<int> channels, const Console& console,
                       const std::vector<FrameRange>* parts = nullptr) {
    ImportedAudio whole;
    auto document = ComPtr<IEditedAudio>();
    for (Source& source : sources_) {
      const auto expected = parts != nullptr ? source.Expected() : std::nullopt;
      const ImportedAudio audio = expected
                                      ? ImportPartsOf(source, *expected, *parts, whole, console)
                                      : source.Import(console);
      // If a damaged file lacks its announced length, the next files begin elsewhere, so `parts` no
      // longer applies.
      if (expected && audio.frames != expected->frames) parts = nullptr;
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
  // Labels and markers of the whole. Valid after Import.
  const Annotations& annotations() const { return annotations_; }

 private:
  // Decodes the frames of `source` that lie in `parts`. `file` is the expected audio of `source`,
  // and `before` is the audio of the earlier files. Decodes all of a file whose format differs from
  // that of `before`.
  static ImportedAudio ImportPartsOf(Source& source, const ImportedAudio& file,
                                     const std::vector<FrameRange>& parts,
                                     const ImportedAudio& before, const Console& console) {
    if (before.frames > 0 && file.format != before.format) return source.Import(console);
    std::vector<FrameRange> own;
    for (const FrameRange& part : parts) {
      const FrameRange range = {std::max<__int64>(part.begin - before.frames, 0),
                                std::min(part.end - before.frames, file.frames)};
      if (range.begin < range.end) own.push_back(range);
    }
    if (!own.empty()) return source.ImportParts(std::move(own), console);
    return {Silence(file.frames, file.format), file.format, file.frames};
  }

  std::deque<Source> sources_;
  Annotations annotations_;
};

}  // namespace marlinda
