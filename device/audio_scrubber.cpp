// CAudioScrubber: makes scrubbing audible. A thread repeatedly crossfades the previous block with
// the block at the scrub position and passes the result to a writer.
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
#include "device/scrub_pacer.h"

namespace marlinda {
namespace {

using Clock = ScrubPacer::Clock;

constexpr DWORD kStopPollMilliSecs = 100;
// Stop calls Break after this time. With a buffer length of 100 ms, WriteAudio of a working
// playback object blocks for less.
constexpr ULONGLONG kBreakAfterMilliSecs = 1000;
// The pause after a failed or empty write.
constexpr DWORD kFailurePauseMilliSecs = 50;
// Several minutes of audio. Computing the window of a longer block would take long.
constexpr std::uint64_t kMaxBlockSamples = std::uint64_t{1} << 24;

}  // namespace

// The caller sets the writer's format before Start. The thread writes as fast as the writer accepts
// blocks and ignores the results. If the writer is a playback object, the thread writes only
// shortly before the queued audio runs out, so that a moved position is heard soon. The scrubber
// holds the writer until the next Start or the last release. Stop waits for the thread. After a
// second, Stop calls Break of a playback object, in case WriteAudio blocks.
//
// Start fails with E_FAIL while the scrubber runs, and with E_INVALIDARG for a negative block
// length, a block of more than 2^24 samples or a channel count below 1. Stop without Start does
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
      // Keeps the thread from calling WriteAudio until `job_` is set, because the writer may call
      // this object.
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
          is_playback(TryQuery<IAudioPlayback>(target) != nullptr),
          channel_count(channels),
          output(given_frames / 2 * channels),
          block(given_frames * channels),
          pacer(PassDuration(given_frames, rate)) {}

    // Returns the duration of one pass (half a block), or 0 without a rate.
    static Clock::duration PassDuration(std::size_t given_frames, LONG rate) noexcept {
      const auto frames = static_cast<double>(given_frames / 2);
      return std::chrono::duration_cast<Clock::duration>(
          std::chrono::duration<double>(rate > 0 ? frames / rate : 0));
    }

    // Samples per WriteAudio call: half a block. The last frame of an odd block length is unused.
    std::size_t OutputSamples() const noexcept {
      return block.size() / channel_count / 2 * channel_count;
    }

    void Run() {
      // Computes the window here, because in Start it would delay the caller.
      OverlapAdd overlap_add(block.size() / channel_count / 2 * 2, channel_count);
      while (!stop) {
        AwaitTurn();
        // Restores the size, in case the writer resized the array against its contract.
        output.Resize(OutputSamples());
        {
          const std::lock_guard lock(block_mutex);
          overlap_add.Pass(block, output.samples());
        }
        const auto begun = Clock::now();
        const bool taken = SUCCEEDED(writer->WriteAudio(output.get()));
        if (taken) pacer.Written(Clock::now() - begun);
        // A writer that fails or gets an empty block does not wait. Without a pause the thread
        // would spin.
        if (!taken || OutputSamples() == 0) Sleep(kFailurePauseMilliSecs);
      }
    }

    // Waits until the next pass is due. Returns at once unless the writer is a playback object,
    // because other writers set the pace by blocking.
    void AwaitTurn() {
      if (!is_playback) return;
      while (!stop && Clock::now() < pacer.Due()) {
        const auto rest = std::chrono::ceil<std::chrono::milliseconds>(pacer.Due() - Clock::now());
        Sleep(static_cast<DWORD>(std::clamp<std::int64_t>(rest.count(), 0, kStopPollMilliSecs)));
      }
      LONG ready = 0;
      if (SUCCEEDED(writer->QueryIsReady(&ready)) && ready != 0) pacer.RanDry(Clock::now());
    }

    const ComPtr<IAudioWriter> writer;
    const bool is_playback;  // the writer is a playback object
    const std::size_t channel_count;
    SampleArray output;
    // Guards the block. Start locks this mutex until the thread may call WriteAudio.
    std::mutex block_mutex;
    std::vector<float> block;
    ScrubPacer pacer;  // belongs to the thread
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
