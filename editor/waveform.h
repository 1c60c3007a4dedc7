// Caches the lowest and highest samples of the visible columns while the view scrolls.
#pragma once

#include <marlinda.h>

#include <cstdint>
#include <vector>

#include "editor/view.h"

namespace marlinda::editor {

struct Extremes {
  float lowest = 0;
  float highest = 0;
};

class Waveform {
 public:
  // Reads the missing columns of the view. A column is a pixel, or a frame if frames are wider than
  // a pixel. Throws if out of memory. Columns that cannot be read are silent.
  void Read(IEditedAudio* audio, int channels, const View& view);
  // Discards the columns from this frame on.
  void Forget(std::int64_t from_frame);

  int channels() const { return channels_; }
  // Columns are counted from the start of the document.
  std::int64_t begin() const { return begin_; }
  std::int64_t end() const;
  const Extremes& At(std::int64_t column, int channel) const {
    return columns_[static_cast<std::size_t>((column - begin_) * channels_ + channel)];
  }

  // Replaces all columns by `columns` of a running recording. `begin` is the first column's index.
  void Show(std::vector<Extremes> columns, int channels, std::int64_t begin);

 private:
  void ReadColumns(IEditedAudio* audio, std::int64_t begin, std::int64_t end);

  Zoom zoom_;
  int channels_ = 0;
  std::int64_t begin_ = 0;
  std::vector<Extremes> columns_;  // all channels of the first column, then those of the next
};

}  // namespace marlinda::editor
