#include "host/recorder.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <memory>

namespace marlinda {

Recorder::Recorder(ComPtr<IAudioReader> source, ComPtr<IAudioWriter> pool,
                   const AudioFormat& format, std::int64_t frames)
    : source_(std::move(source)),
      pool_(std::move(pool)),
      format_(format),
      frames_(frames),
      levels_(static_cast<std::size_t>(format.channels)) {
  Check(pool_->SetFormat(format.rate, format.channels));
  Check(pool_->OpenDevice());
  thread_ = std::thread([this] {
    try {
      Pump();
    } catch (const std::exception&) {
      result_ = E_OUTOFMEMORY;
    }
    running_ = false;
  });
}

Recorder::~Recorder() { Stop(); }

std::vector<float> Recorder::Levels() const { return {levels_.begin(), levels_.end()}; }

HRESULT Recorder::Stop() {
  if (!thread_.joinable()) return result_;
  stopping_ = true;
  // A block takes 40 ms. Who waits for longer waits for a device that is gone, and only closing
  // that ends the wait.
  constexpr auto kPatience = std::chrono::seconds(2);
  const auto start = std::chrono::steady_clock::now();
  while (running_ && std::chrono::steady_clock::now() - start < kPatience) Sleep(10);
  source_->CloseDevice();
  thread_.join();
  pool_->CloseDevice();
  return result_;
}

void Recorder::Pump() {
  const auto channels = static_cast<std::size_t>(format_.channels);
  const std::int64_t block_frames = std::max(1L, format_.rate / 25);
  auto block = std::make_unique<FloatArray>(static_cast<std::size_t>(block_frames) * channels);
  while (!stopping_ && recorded_ < frames_) {
    const std::int64_t rest = frames_ - recorded_;
    if (rest < block_frames) {
      block = std::make_unique<FloatArray>(static_cast<std::size_t>(rest) * channels);
    }
    result_ = source_->ReadAudio(0, block->get());
    if (FAILED(result_)) return;
    const std::span<const float> samples = block->samples();
    for (std::size_t channel = 0; channel < channels; ++channel) {
      float level = 0.0F;
      for (std::size_t i = channel; i < samples.size(); i += channels) {
        level = std::max(level, std::abs(samples[i]));
      }
      levels_[channel] = level;
    }
    result_ = pool_->WriteAudio(block->get());
    if (FAILED(result_)) return;
    recorded_ += static_cast<std::int64_t>(samples.size() / channels);
  }
}

}  // namespace marlinda
