#include "device/audio_scrubber.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <mutex>
#include <utility>
#include <vector>

#include "core/com_ptr.h"
#include "core/sample_array.h"
#include "device/overlap_add.h"

namespace marlinda {
namespace {

constexpr DWORD kStopPollMilliSecs = 100;
// Everything of a lost device is to be over in two seconds. What is left of them is for the pause
// before this wait, the check after it, and a machine that is busy.
constexpr ULONGLONG kLostAfterMilliSecs = 1000;
// Many minutes. A longer block is a mistake, and making its window would take long before memory
// ran out.
constexpr std::uint64_t kMostBlockSamples = std::uint64_t{1} << 24;

}  // namespace

// What the thread and the object share.
struct CAudioScrubber::Scrub {
  Scrub(IAudioWriter* target, std::size_t given_frames, LONG rate, std::size_t channels)
      : writer(target),
        channel_count(channels),
        output(given_frames / 2 * channels),
        block(given_frames * channels),
        pause_milliseconds(PauseMilliseconds(given_frames, rate)) {}

  // About as long as one pass sounds, but never so long that Stop would have to wait for it.
  static DWORD PauseMilliseconds(std::size_t given_frames, LONG rate) noexcept {
    if (rate <= 0) return kStopPollMilliSecs;
    const std::uint64_t pass = std::uint64_t{given_frames} * 500 / static_cast<std::uint64_t>(rate);
    return static_cast<DWORD>(std::clamp<std::uint64_t>(pass, 1, kStopPollMilliSecs));
  }

  // Samples that one pass gives: half a block of an even number of frames.
  std::size_t OutputSamples() const noexcept {
    return block.size() / channel_count / 2 * channel_count;
  }

  void Run() {
    // Here and not before, because its window takes longer than the start of the thread.
    OverlapAdd overlap_add(block.size() / channel_count / 2 * 2, channel_count);
    while (!stop) {
      // A writer that resized the array against the rules finds a whole one again.
      output.Resize(OutputSamples());
      {
        const std::lock_guard lock(block_mutex);
        overlap_add.Pass(block, output.samples());
      }
      // A writer that refuses the block, or gets an empty one, does not wait either; without a
      // pause the thread would spin.
      const bool taken = SUCCEEDED(writer->WriteAudio(output.get()));
      if (!taken || OutputSamples() == 0) Sleep(pause_milliseconds);
    }
  }

  // The object's, which holds it longer than the thread runs, but for one case: the writer itself
  // may release the object within WriteAudio, and is then kept until it has returned.
  IAudioWriter* const writer;
  ComPtr<IAudioWriter> kept_writer;
  const std::size_t channel_count;
  SampleArray output;
  std::mutex block_mutex;
  std::vector<float> block;
  const DWORD pause_milliseconds;
  std::atomic<bool> stop{false};
};

CAudioScrubber::~CAudioScrubber() {
  if (const auto scrub = Current()) scrub->kept_writer = writer_;
  Stop();
}

STDMETHODIMP CAudioScrubber::Start(IAudioWriter* pAudioWriter, LONG nSamplesInBlocks,
                                   LONG nSamplesPerSec, SHORT nChannels) {
  if (nChannels <= 0) return E_INVALIDARG;
  if (pAudioWriter == nullptr) return E_POINTER;
  if (nSamplesInBlocks < 0) return E_INVALIDARG;
  if (static_cast<std::uint64_t>(nSamplesInBlocks) * static_cast<std::uint64_t>(nChannels) >
      kMostBlockSamples) {
    return E_INVALIDARG;
  }
  if (Current()) return E_FAIL;
  return ComCall([&] {
    auto scrub = std::make_shared<Scrub>(pAudioWriter, static_cast<std::size_t>(nSamplesInBlocks),
                                         nSamplesPerSec, static_cast<std::size_t>(nChannels));
    Hold(writer_, pAudioWriter);
    writer_->OpenDevice();
    const HRESULT hr = thread_.Start([scrub] { scrub->Run(); });
    if (FAILED(hr)) {
      writer_->CloseDevice();
      return hr;
    }
    const std::lock_guard lock(mutex_);
    scrub_ = std::move(scrub);
    return S_OK;
  });
}

STDMETHODIMP CAudioScrubber::Stop() {
  const auto scrub = Current();
  if (!scrub) return S_OK;
  scrub->stop = true;
  // Also where the thread has ended by now: hosts count on this pause.
  Sleep(kStopPollMilliSecs);
  if (!thread_.PollUntilEnded(kStopPollMilliSecs, kLostAfterMilliSecs)) {
    // What it breaks off would be broken off by CloseDevice below just as well.
    if (const auto playback = TryQuery<IAudioPlayback>(writer_.Get())) playback->Break();
    thread_.PollUntilEnded(kStopPollMilliSecs);
  }
  {
    const std::lock_guard lock(mutex_);
    scrub_.reset();
  }
  writer_->CloseDevice();
  return S_OK;
}

STDMETHODIMP CAudioScrubber::WriteBlock(SAFEARRAY* psaAudio) {
  SampleArrayView given;
  const HRESULT hr = given.Lock(psaAudio);
  if (FAILED(hr)) return hr;
  const auto scrub = Current();
  if (!scrub) return E_FAIL;
  const std::size_t needed = 2 * scrub->OutputSamples();
  if (given.samples().size() < needed) return E_INVALIDARG;
  const std::lock_guard lock(scrub->block_mutex);
  std::copy_n(given.samples().data(), needed, scrub->block.data());
  return S_OK;
}

std::shared_ptr<CAudioScrubber::Scrub> CAudioScrubber::Current() {
  const std::lock_guard lock(mutex_);
  return scrub_;
}

MARLINDA_DEFINE_CLASS(CAudioScrubber)

}  // namespace marlinda
