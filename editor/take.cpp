#include "editor/take.h"

#include <algorithm>
#include <utility>

namespace marlinda::editor {
namespace {

// About 40 ms. The pool's peaks match the frames only if blocks are multiples of 256 frames.
std::int64_t BlockFrames(LONG rate) { return (std::max(1L, rate / 25) + 255) / 256 * 256; }

}  // namespace

Take::Take(ComPtr<IAudioReader> source, ComPtr<IAudioPool> pool, const AudioFormat& format)
    : source_(std::move(source)),
      pool_(std::move(pool)),
      writer_(Query<IAudioWriter>(pool_.Get())),
      format_(format),
      block_frames_(BlockFrames(format.rate)) {
  Check(writer_->SetFormat(format.rate, format.channels));
  Check(writer_->OpenDevice());
  thread_ = std::thread([this] {
    result_ = ComCall([this] { return Pump(); });
    running_ = false;
  });
}

HRESULT Take::Pump() {
  const FloatArray block(static_cast<std::size_t>(block_frames_ * format_.channels));
  while (!stopping_) {
    Check(source_->ReadAudio(0, block.get()));
    Measure(block.samples());
    Check(writer_->WriteAudio(block.get()));
    frames_ += block_frames_;
  }
  return S_OK;
}

void Take::Measure(std::span<const float> block) {
  const auto channels = static_cast<std::size_t>(format_.channels);
  std::vector<Extremes> column(channels);
  for (std::size_t i = 0; i < block.size(); ++i) {
    auto& [lowest, highest] = column[i % channels];
    lowest = std::min(lowest, block[i]);
    highest = std::max(highest, block[i]);
  }
  const std::lock_guard lock(mutex_);
  columns_.insert(columns_.end(), column.begin(), column.end());
}

void Take::AppendColumns(std::vector<Extremes>& columns) const {
  const std::lock_guard lock(mutex_);
  columns.insert(columns.end(), columns_.begin() + static_cast<std::ptrdiff_t>(columns.size()),
                 columns_.end());
}

HRESULT Take::Stop() {
  if (!thread_.joinable()) return result_;
  stopping_ = true;
  // A read from a working device takes less time than this. A read from a lost device waits until
  // CloseDevice.
  constexpr ULONGLONG kPatienceMilliseconds = 2000;
  const ULONGLONG start = GetTickCount64();
  while (running_ && GetTickCount64() - start < kPatienceMilliseconds) Sleep(10);
  source_->CloseDevice();
  thread_.join();
  writer_->CloseDevice();
  return result_;
}

}  // namespace marlinda::editor
