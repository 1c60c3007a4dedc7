// Several input files one after another, as one.
#pragma once

#include <deque>
#include <span>
#include <string>

#include "host/engine.h"

namespace marlinda {

class JoinedSource {
 public:
  // Opens all files, at least one. Throws for the first that cannot be read.
  explicit JoinedSource(std::span<const std::string> files);

  // Its texts count for the whole.
  const Source& first() const { return sources_.front(); }

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
