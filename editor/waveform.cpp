#include "editor/waveform.h"

#include <algorithm>
#include <utility>

#include "host/engine.h"

namespace marlinda::editor {

std::int64_t Waveform::end() const {
  if (channels_ == 0) return begin_;
  return begin_ + static_cast<std::int64_t>(columns_.size()) / channels_;
}

void Waveform::Read(IEditedAudio* audio, int channels, const View& view) {
  if (channels != channels_ || view.zoom() != zoom_) {
    columns_.clear();
    channels_ = channels;
    zoom_ = view.zoom();
  }
  // Also reads the columns just outside the window, because the lines drawn to their points cross
  // the window.
  const std::int64_t per_column = zoom_.pixels;
  const std::int64_t first = std::max<std::int64_t>(0, view.origin() / per_column - 1);
  const std::int64_t past = (view.origin() + view.width()) / per_column + 2;
  const std::int64_t all = zoom_.pixels > 1 ? view.length() : view.extent();
  const std::int64_t last = std::clamp(past, first, std::max(first, all));

  const std::int64_t kept_begin = std::clamp(begin_, first, last);
  const std::int64_t kept_end = std::max(kept_begin, std::min(end(), last));
  const auto width = static_cast<std::size_t>(channels_);
  std::vector<Extremes> old = std::exchange(
      columns_, std::vector<Extremes>(static_cast<std::size_t>(last - first) * width));
  if (kept_end > kept_begin) {
    std::copy_n(old.begin() + (kept_begin - begin_) * channels_,
                (kept_end - kept_begin) * channels_,
                columns_.begin() + (kept_begin - first) * channels_);
  }
  begin_ = first;
  if (kept_end <= kept_begin) return ReadColumns(audio, first, last);
  ReadColumns(audio, first, kept_begin);
  ReadColumns(audio, kept_end, last);
}

void Waveform::ReadColumns(IEditedAudio* audio, std::int64_t begin, std::int64_t end) {
  if (end <= begin || channels_ == 0) return;
  // Columns that the engine cannot read stay silent.
  const FloatArray pairs(static_cast<std::size_t>((end - begin) * channels_) * 2);
  audio->ReadWaveplot(begin * zoom_.frames, end * zoom_.frames, pairs.get());
  const auto samples = pairs.samples();
  auto target = columns_.begin() + (begin - begin_) * channels_;
  for (std::size_t i = 0; i + 1 < samples.size(); i += 2) *target++ = {samples[i], samples[i + 1]};
}

void Waveform::Forget(std::int64_t from_frame) {
  if (channels_ == 0) return;
  const std::int64_t column = std::clamp(from_frame / zoom_.frames, begin_, end());
  columns_.resize(static_cast<std::size_t>((column - begin_) * channels_));
}

void Waveform::Show(std::vector<Extremes> columns, int channels, std::int64_t begin) {
  columns_ = std::move(columns);
  channels_ = channels;
  begin_ = begin;
  zoom_ = {0, 0};  // matches no view, so the next Read reads all columns
}

}  // namespace marlinda::editor
