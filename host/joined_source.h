// Several input files one after another, as one.
#pragma once

#include <deque>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "host/engine.h"

namespace marlinda {

class JoinedSource {
 public:
  // Opens all files, at least one. Throws for the first that cannot be read.
  explicit JoinedSource(std::span<const std::string> files);

  // Its texts count for the whole.
  const Source& first() const { return sources_.front(); }

  // What Import will return, without the reader, where the exact length of all files is known.
  std::optional<ImportedAudio> Expected(std::optional<int> rate, std::optional<int> channels) const;
  // Decodes these parts of a single file, as Source does.
  bool CanImportParts() const { return sources_.size() == 1 && first().Expected(); }
  ImportedAudio ImportParts(std::vector<FrameRange> parts, const Console& console);

  // Decodes all files. Those in another format than `rate` and `channels`, or than the first file
  // where these are missing, are converted. Labels and markers move with their file.
  ImportedAudio Import(std::optional<int> rate, std::optional<int> channels,
                       const Console& console);
  // Of the whole, after Import.
  const Annotations& annotations() const { return annotations_; }

 private:
  std::deque<Source> sources_;
  Annotations annotations_;
};

}  // namespace marlinda
