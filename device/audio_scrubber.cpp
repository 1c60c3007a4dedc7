// CAudioScrubber: makes scrubbing audible. A thread repeatedly writes the block at the scrub
// position to a writer, crossfaded with the previous block.
#include <marlinda.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include "core/com_object.h"
#include "core/com_ptr.h"
#include "core/sample_array.h"
#include "core/worker_thread.h"
#include "device/overlap_add.h"

namespace marlinda {
namespace {

constexpr DWORD kStopPollMilliSecs = 100;
// Stop calls Break after this time. A working playback object with 100 ms of buffer blocks for
// less.
constexpr ULONGLONG kBreakAfterMilliSecs = 1000;
// The time that WriteAudio should wait in each pass, a reserve against dropouts by a late thread.
constexpr double kWriterMilliSecs = 10;
// Several minutes of audio. Computing the window of a longer block would take long.
constexpr std::uint64_t kMaxBlockSamples = std::uint64_t{1} << 24;

}  // namespace

// The caller sets the writer's format before Start. The thread writes as fast as the writer accepts
// blocks and ignores the results. The scrubber holds the writer until the next Start or the last
// release. If WriteAudio of a playback object still blocks after a second, Stop calls Break.
//
// Start fails with E_FAIL while the scrubber runs, and with E_INVALIDARG for a negative block
// length, blocks of more than 2^24 samples and channel counts below 1. Stop without Start does
// nothing. WriteBlock fails with E_FAIL unless the scrubber runs, and with E_INVALIDARG for a short
// block.
class CAudioScrubber final : public Object<CAudioScrubber, IAudioScrubber> {
 public:
  static constexpr const CLSID& kClassId = CLSID_CAudioScrubber;

  ~CAudioScrubber() { CAudioScrubber::Stop(); }

  // IAudioScrubber
  STDMETHODIMP Start(IAudioWriter* pAudioWriter, LONG nSamplesInBlocks, LONG nSamplesPerSec,
                     SHORT nChannels) override {
    if (nChannels <= 0) return E_INVALIDARG;
    if (pAudioWriter == nullptr) return E_POINTER;
    if (nSamplesInBlocks < 0) return E_INVALIDARG;
    if (static_cast<std::uint64_t>(nSamplesInBlocks) * static_cast<std::uint64_t>(nChannels) >
        kMaxBlockSamples) {
      return E_INVALIDARG;
    }
    if (Current() || thread_.IsRunning()) return E_FAIL;
    return ComCall([&] {
      auto job = std::make_shared<Job>(pAudioWriter, static_cast<std::size_t>(nSamplesInBlocks),
                                       nSamplesPerSec, static_cast<std::size_t>(nChannels));
      pAudioWriter->OpenDevice();
      // The thread waits for this lock until `job_` is set: the writer may call this object.
      const std::lock_guard block_lock(job->block_mutex);
      const HRESULT hr = thread_.Start([job] { job->Run(); });
      if (FAILED(hr)) {
        job->running = false;
        pAudioWriter->CloseDevice();
      }
      const std::lock_guard lock(mutex_);
      job_.swap(job);
      return hr;
    });
  }
  STDMETHODIMP Stop() override {
    const auto job = Current();
    if (!job) return S_OK;
    job->stop = true;
    // Stop takes at least this long, even if the thread has already ended.
    Sleep(kStopPollMilliSecs);
    if (!thread_.PollUntilEnded(kStopPollMilliSecs, kBreakAfterMilliSecs)) {
      // If another thread has stopped this scrub meanwhile, the writer may play something else.
      // Break must not stop that.
      const auto playback = job->running ? TryQuery<IAudioPlayback>(job->writer.Get()) : nullptr;
      if (playback) playback->Break();
      thread_.PollUntilEnded(kStopPollMilliSecs);
    }
    if (job->running.exchange(false)) job->writer->CloseDevice();
    return S_OK;
  }
  STDMETHODIMP WriteBlock(SAFEARRAY* psaAudio) override {
    SampleArrayView given;
    const HRESULT hr = given.Lock(psaAudio);
    if (FAILED(hr)) return hr;
    const auto job = Current();
    if (!job) return E_FAIL;
    const std::size_t needed = 2 * job->OutputSamples();
    if (given.samples().size() < needed) return E_INVALIDARG;
    const std::lock_guard lock(job->block_mutex);
    std::copy_n(given.samples().data(), needed, job->block.data());
    return S_OK;
  }

 private:
  // The state of one scrub, from Start to Stop, shared by the object and the thread.
  struct Job {
    Job(IAudioWriter* target, std::size_t given_frames, LONG rate, std::size_t channels)
        : writer(target),
          channel_count(channels),
          output(given_frames / 2 * channels),
          block(given_frames * channels),
          pause_milliseconds(PauseMilliseconds(given_frames, rate)) {}

    // Returns about the duration of one pass, but at most 100 ms, so that Stop need not wait long.
    static DWORD PauseMilliseconds(std::size_t given_frames, LONG rate) noexcept {
      if (rate <= 0) return kStopPollMilliSecs;
      const std::uint64_t pass =
          std::uint64_t{given_frames} * 500 / static_cast<std::uint64_t>(rate);
      return static_cast<DWORD>(std::clamp<std::uint64_t>(pass, 1, kStopPollMilliSecs));
    }

    // Samples of one pass: half a block. An odd block length loses one frame.
    std::size_t OutputSamples() const noexcept {
      return block.size() / channel_count / 2 * channel_count;
    }

    void Run() {
      // Computes the window here, because in Start it would delay the caller.
      OverlapAdd overlap_add(block.size() / channel_count / 2 * 2, channel_count);
      while (!stop) {
        if (delay > 0) Sleep(delay);
        // Restores the size, in case the writer resized the array against its contract.
        output.Resize(OutputSamples());
        {
          const std::lock_guard lock(block_mutex);
          overlap_add.Pass(block, output.samples());
        }
        const auto begun = std::chrono::steady_clock::now();
        const bool taken = SUCCEEDED(writer->WriteAudio(output.get()));
        AdjustDelay(std::chrono::steady_clock::now() - begun);
        // A writer that fails or gets an empty block does not wait. Without a pause the thread
        // would spin.
        if (!taken || OutputSamples() == 0) Sleep(pause_milliseconds);
      }
    }

    // A pass that waits for room in the writer is out of date when it is heard. So the thread waits
    // before it reads the block. The delay is just long enough that the writer hardly waits.
    void AdjustDelay(std::chrono::duration<double, std::milli> waited) noexcept {
      const double longest = pause_milliseconds - kWriterMilliSecs;
      const double next =
          std::clamp(delay + waited.count() - kWriterMilliSecs, 0.0, std::max(longest, 0.0));
      delay = static_cast<DWORD>(next);
    }

    const ComPtr<IAudioWriter> writer;
    const std::size_t channel_count;
    SampleArray output;
    // Guards the block. Start locks this mutex until the thread may call the writer.
    std::mutex block_mutex;
    std::vector<float> block;
    const DWORD pause_milliseconds;
    DWORD delay = 0;  // the thread's wait before each pass
    std::atomic<bool> stop{false};
    // True until Stop closes the writer's device.
    std::atomic<bool> running{true};
  };

  std::shared_ptr<Job> Current() {
    const std::lock_guard lock(mutex_);
    return job_ && job_->running ? job_ : nullptr;
  }

  std::mutex mutex_;
  // Null before the first Start. Remains after Stop, because it holds the writer.
  std::shared_ptr<Job> job_;
  WorkerThread thread_;
};

MARLINDA_DEFINE_CLASS(CAudioScrubber)

}  // namespace marlinda
