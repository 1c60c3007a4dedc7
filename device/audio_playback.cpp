// CAudioPlayback: plays interleaved floats on a wave-out device.
#include <marlinda.h>
#include <mmsystem.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <list>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <span>
#include <utility>
#include <vector>

#include "core/com_object.h"
#include "core/handle.h"
#include "core/sample_array.h"
#include "core/samples/sample_converter.h"
#include "core/worker_thread.h"
#include "device/device_format.h"

namespace marlinda {
namespace {

// If no buffer completes within this time plus the next buffer's duration, the worker probes the
// device.
constexpr std::uint64_t kProbeMilliSecs = 3000;
// How long GetPlaybackPos waits for a device call of another thread. A working device is faster.
constexpr std::chrono::milliseconds kMaxPositionWait{50};

// Runs on a device thread. Must not call wave-out functions, because they can deadlock here.
void CALLBACK PlaybackDoneCallback(HWAVEOUT, UINT message, DWORD_PTR event, DWORD_PTR, DWORD_PTR) {
  if (message == WOM_DONE) SetEvent(reinterpret_cast<HANDLE>(event));
}

// One block of samples as a device buffer.
class CAudioOutBuffer {
 public:
  // Throws E_INVALIDARG if the block is too large for the device. Omits an incomplete last frame.
  CAudioOutBuffer(std::span<const float> samples, const WAVEFORMATEX& format)
      : peaks(format.nChannels) {
    const std::size_t frames = samples.size() / format.nChannels;
    samples = samples.first(frames * format.nChannels);
    const std::size_t size = frames * format.nBlockAlign;
    if (size > static_cast<std::size_t>(std::numeric_limits<LONG>::max())) {
      throw HResultError(E_INVALIDARG);
    }
    // If wBitsPerSample is no multiple of 8, PCM frames can need more bytes than nBlockAlign.
    const int bits = format.wBitsPerSample;
    data_.resize(std::max(size, samples.size() * PcmBytesPerSample(bits)));
    if (IsFloat(format)) {
      std::ranges::copy(std::as_bytes(samples), data_.begin());
    } else {
      ConvertFloatToPcm(samples, data_, bits);
    }
    for (std::size_t i = 0; i < samples.size(); ++i) {
      float& peak = peaks[i % peaks.size()];
      // NaN never becomes a peak, because the comparison is false.
      if (samples[i] > peak) peak = samples[i];
    }
    header_.lpData = reinterpret_cast<LPSTR>(data_.data());
    header_.dwBufferLength = static_cast<DWORD>(size);
    header_.dwLoops = 1;
  }
  ~CAudioOutBuffer() { Unprepare(); }
  CAudioOutBuffer(const CAudioOutBuffer&) = delete;
  CAudioOutBuffer& operator=(const CAudioOutBuffer&) = delete;

  // Returns false if the device refuses the buffer. An empty buffer is not sent to the device. The
  // system's format converters refuse it, and two empty buffers in a row stop Wine's device.
  bool Play(HWAVEOUT device) noexcept {
    if (size() == 0) return true;
    device_ = device;
    waveOutPrepareHeader(device_, &header_, sizeof header_);
    return waveOutWrite(device_, &header_, sizeof header_) == MMSYSERR_NOERROR;
  }

  void Unprepare() noexcept {
    if (device_ == nullptr) return;
    waveOutUnprepareHeader(std::exchange(device_, nullptr), &header_, sizeof header_);
  }

  bool IsDone() const noexcept {
    // Volatile, because a device thread sets the flag.
    const volatile DWORD& flags = header_.dwFlags;
    const bool done = size() == 0 || (flags & WHDR_DONE) != 0;
    std::atomic_thread_fence(std::memory_order_acquire);
    return done;
  }

  DWORD size() const noexcept { return header_.dwBufferLength; }

  // The largest sample of each channel, at least 0. Compares signed values, not magnitudes. These
  // are the output levels once the buffer has been played.
  std::vector<float> peaks;

 private:
  HWAVEOUT device_ = nullptr;
  std::vector<std::byte> data_;
  WAVEHDR header_ = {};
};

using Buffers = std::list<CAudioOutBuffer>;

}  // namespace

// Each written block becomes one device buffer. WriteAudio waits while the queued audio exceeds the
// length from SetBufferLength, so its caller keeps the pace of the device. While one thread is in
// WriteAudio, another may query position and level or call Break or CloseDevice.
//
// GetOutputLevel, QueryIsReady and Break return at once, even if the device is stalled.
// GetPlaybackPos waits up to 50 ms for a device call of another thread. OpenDevice and CloseDevice
// wait for the device.
//
// If the device stalls, the worker thread waits until the device continues. A device is lost if it
// refuses a block or a reset, or if no buffer completes for some seconds and the device then
// refuses to pause. After a loss, the object behaves as after CloseDevice.
class CAudioPlayback final : public Object<CAudioPlayback, IAudioPlayback, IAudioWriter> {
 public:
  static constexpr const CLSID& kClassId = CLSID_CAudioPlayback;

  ~CAudioPlayback() { Close(); }

  // IAudioPlayback
  STDMETHODIMP SetBufferLength(LONG nMilliSecs) override {
    return Set([&] { buffer_millisecs_ = static_cast<std::uint32_t>(nMilliSecs); });
  }
  // Stores the format and returns E_NOTIMPL; ignore the result.
  STDMETHODIMP SetFormat(LONG nSamplesPerSec, SHORT nChannels, SHORT nBitsPerSample) override {
    Set([&] { format_ = DeviceFormat(nSamplesPerSec, nChannels, nBitsPerSample); });
    return E_NOTIMPL;
  }
  STDMETHODIMP GetPlaybackPos(__int64* nPlaybackPos) override {
    const auto job = OpenJob();
    const std::uint32_t played = job ? job->Position() : 0;
    const std::lock_guard lock(mutex_);
    return SetOut(nPlaybackPos,
                  static_cast<std::int64_t>(static_cast<std::uint64_t>(pos_offset_) + played));
  }
  STDMETHODIMP SetPosOffset(__int64 nOffset) override {
    return Set([&] { pos_offset_ = nOffset; });
  }
  STDMETHODIMP GetPosOffset(__int64* pnOffset) override {
    const std::lock_guard lock(mutex_);
    return SetOut(pnOffset, pos_offset_);
  }
  STDMETHODIMP Break() override {
    if (const auto job = OpenJob()) job->Break();
    return S_OK;
  }
  STDMETHODIMP SetDevice(ULONG nDeviceId) override {
    return Set([&] { device_id_ = nDeviceId; });
  }
  STDMETHODIMP GetOutputLevel(SHORT niChannel, float* pfOutputLevel) override {
    if (pfOutputLevel == nullptr) return E_POINTER;
    *pfOutputLevel = 0.0F;
    const auto job = OpenJob();
    if (!job) return S_OK;
    const std::lock_guard lock(job->mutex);
    const auto channel = static_cast<std::uint16_t>(niChannel);
    if (channel >= job->levels.size()) return E_INVALIDARG;
    return SetOut(pfOutputLevel, job->levels[channel]);
  }

  // IAudioWriter
  STDMETHODIMP WriteAudio(SAFEARRAY* psaAudioData) override {
    return ComCall([&]() -> HRESULT {
      SampleArrayView block;
      Check(block.Lock(psaAudioData));
      const auto job = OpenJob();
      return job ? job->Write(block.samples()) : E_FAIL;
    });
  }
  STDMETHODIMP OpenDevice() override {
    return ComCall([&]() -> HRESULT {
      const std::lock_guard opening_lock(opening_mutex_);
      Close();
      std::shared_ptr<Job> job;
      UINT device_id = WAVE_MAPPER;
      {
        const std::lock_guard lock(mutex_);
        if (!IsPlausible(format_)) return E_FAIL;
        job = std::make_shared<Job>(format_, buffer_millisecs_);
        device_id = device_id_;
      }
      if (!job->Open(device_id)) return E_FAIL;
      worker_.emplace();
      const HRESULT hr = worker_->Start([job] {
        // If the driver refuses to close, it may still use the job. The job is therefore leaked.
        if (!job->Run()) static_cast<void>(new (std::nothrow) std::shared_ptr<Job>(job));
      });
      if (FAILED(hr)) {
        // Leaks the job if the driver refuses to close, because the driver may still use it.
        if (!job->Close()) static_cast<void>(new (std::nothrow) std::shared_ptr<Job>(job));
        return E_FAIL;
      }
      const std::lock_guard lock(mutex_);
      job_ = std::move(job);
      return S_OK;
    });
  }
  STDMETHODIMP CloseDevice() override {
    const std::lock_guard opening_lock(opening_mutex_);
    Close();
    return S_OK;
  }
  STDMETHODIMP SetFormat(LONG nSamplesPerSec, SHORT nChannels) override {
    return Set([&] {
      format_ = DeviceFormat(nSamplesPerSec, nChannels, static_cast<SHORT>(format_.wBitsPerSample));
    });
  }
  STDMETHODIMP QueryIsReady(LONG* pbReady) override {
    if (pbReady == nullptr) return E_POINTER;
    const auto job = OpenJob();
    return SetOut(pbReady, !job || job->IsReady() ? 1 : 0);
  }

 private:
  // The state of one opening of the device, shared by the object, its writers and the worker. The
  // object may be released while WriteAudio waits, so WriteAudio uses only the job.
  struct Job {
    Job(const WAVEFORMATEX& wanted, std::uint32_t buffer_millisecs)
        : format(wanted),
          queue_limit_bytes(format.nBlockAlign * buffer_millisecs * format.nSamplesPerSec / 1000),
          played_levels(format.nChannels),
          levels(format.nChannels) {}

    bool Open(UINT device_id) {
      if (!event) return false;
      const auto try_format = [&](const WAVEFORMATEX& tried) {
        const auto callback = reinterpret_cast<DWORD_PTR>(&PlaybackDoneCallback);
        const auto instance = reinterpret_cast<DWORD_PTR>(event.get());
        return waveOutOpen(&device, device_id, &tried, callback, instance, CALLBACK_FUNCTION) ==
               MMSYSERR_NOERROR;
      };
      return try_format(format) ||
             try_format(MakeExtensibleFormat(format, IsFloat(format), true).Format);
    }

    HRESULT Write(std::span<const float> samples) {
      Buffers block;
      block.emplace_back(samples, format);
      const std::lock_guard write_lock(write_mutex);
      {
        std::unique_lock lock(mutex);
        if (TakesBlocks() && queued_bytes > queue_limit_bytes) {
          changed.wait(lock, [&] { return !TakesBlocks() || queued_bytes <= queue_limit_bytes; });
          levels = played_levels;
        }
      }
      const std::lock_guard device_lock(device_mutex);
      {
        const std::lock_guard lock(mutex);
        if (!TakesBlocks()) return E_FAIL;
      }
      if (!block.front().Play(device)) {
        block.clear();
        End();
        return E_FAIL;
      }
      {
        const std::lock_guard lock(mutex);
        queued_bytes += block.front().size();
        pending.splice(pending.end(), block);
      }
      // The device may have played the block before `pending` held it, so the worker checks it now.
      SetEvent(event.get());
      return S_OK;
    }

    void Break() noexcept {
      {
        const std::lock_guard lock(mutex);
        broken = true;
        reset_wanted = true;
      }
      Wake();
    }

    // Refuses further blocks. The worker then closes the device.
    void End() noexcept {
      {
        const std::lock_guard lock(mutex);
        open = false;
      }
      Wake();
    }

    // Returns the device's frame count, or 0 after Break. Returns the last known count while a
    // device call of another thread stalls.
    std::uint32_t Position() noexcept {
      if (IsBroken()) return 0;
      const std::unique_lock device_lock(device_mutex, kMaxPositionWait);
      MMTIME time = {};
      time.wType = TIME_SAMPLES;
      // The counter has 32 bits and may wrap.
      if (device_lock && device != nullptr &&
          waveOutGetPosition(device, &time, sizeof time) == MMSYSERR_NOERROR) {
        position = static_cast<std::uint32_t>(time.u.sample);
      }
      return position;
    }

    // The worker's loop. Frees played buffers, resets the device after Break and probes a stalled
    // device, until the device is closed or lost. Returns false if the driver refuses to close.
    bool Run() noexcept {
      for (bool alive = true; alive && IsOpen();) {
        const bool stalled = WaitForSingleObject(event.get(), MilliSecsToProbe()) == WAIT_TIMEOUT;
        Buffers played = Reap();
        const std::lock_guard device_lock(device_mutex);
        played.clear();
        if (reset_wanted.exchange(false)) {
          alive = Reset();
        } else if (stalled) {
          // The pause detects a lost device. Such a device reports no error, but refuses to pause.
          // A device that only stalls accepts the pause and drops no samples.
          alive = waveOutPause(device) == MMSYSERR_NOERROR &&
                  waveOutRestart(device) == MMSYSERR_NOERROR;
        }
      }
      End();
      return Close();
    }

    bool Close() noexcept {
      const std::lock_guard device_lock(device_mutex);
      // Buffers of a lost device never complete. Its next reset fails, which ends the loop.
      while (Reset()) {
        Reap();
        if (IsPlayed()) break;
        WaitForSingleObject(event.get(), static_cast<DWORD>(kProbeMilliSecs));
      }
      for (auto& buffer : pending) buffer.Unprepare();
      if (waveOutClose(std::exchange(device, nullptr)) != MMSYSERR_NOERROR) return false;
      const std::lock_guard lock(mutex);
      pending.clear();
      return true;
    }

    bool IsOpen() noexcept {
      const std::lock_guard lock(mutex);
      return open;
    }

    bool IsBroken() noexcept {
      const std::lock_guard lock(mutex);
      return broken;
    }

    bool IsPlayed() noexcept {
      const std::lock_guard lock(mutex);
      return pending.empty();
    }

    // True after Break, or if all blocks have been played. Updates `levels`.
    bool IsReady() noexcept {
      const std::lock_guard lock(mutex);
      levels = played_levels;
      return broken || pending.empty();
    }

    // Call with `mutex` held.
    bool TakesBlocks() const noexcept { return open && !broken; }

    bool Reset() const noexcept { return waveOutReset(device) == MMSYSERR_NOERROR; }

    void Wake() noexcept {
      changed.notify_all();
      SetEvent(event.get());
    }

    // Returns INFINITE while nothing is queued.
    DWORD MilliSecsToProbe() noexcept {
      const std::lock_guard lock(mutex);
      if (pending.empty()) return INFINITE;
      const std::uint64_t next =
          std::uint64_t{pending.front().size()} * 1000 / format.nBlockAlign / format.nSamplesPerSec;
      return static_cast<DWORD>(std::min<std::uint64_t>(next + kProbeMilliSecs, INFINITE - 1));
    }

    // Removes the played buffers from the queue. The caller frees them with `device_mutex` held.
    Buffers Reap() noexcept {
      Buffers played;
      const std::lock_guard lock(mutex);
      // The device completes buffers in the order in which they were written.
      while (!pending.empty() && pending.front().IsDone()) {
        queued_bytes -= pending.front().size();
        played_levels.swap(pending.front().peaks);
        played.splice(played.end(), pending, pending.begin());
      }
      changed.notify_all();
      return played;
    }

    const WAVEFORMATEX format;
    const std::uint32_t queue_limit_bytes;
    // Signalled for each played buffer and to wake the worker.
    const KernelHandle event{CreateEventW(nullptr, FALSE, FALSE, nullptr)};

    // Held by WriteAudio from the start of its wait to the end of its write.
    std::mutex write_mutex;

    // Held during every call on the open device, which can stall. Lock it before `mutex`.
    std::timed_mutex device_mutex;
    HWAVEOUT device = nullptr;
    std::atomic<std::uint32_t> position{0};

    // Guards the members below. Never held during a device call.
    std::mutex mutex;
    std::condition_variable changed;
    Buffers pending;
    std::uint32_t queued_bytes = 0;
    std::vector<float> played_levels;
    // GetOutputLevel returns these levels. QueryIsReady updates them, and WriteAudio does if it has
    // waited.
    std::vector<float> levels;
    bool open = true;
    bool broken = false;
    std::atomic<bool> reset_wanted{false};
  };

  // Changes a setting, under the lock.
  template <class Change>
  HRESULT Set(Change change) {
    const std::lock_guard lock(mutex_);
    change();
    return S_OK;
  }
  // Returns null while the device is closed, and after its loss.
  std::shared_ptr<Job> OpenJob() {
    const std::lock_guard lock(mutex_);
    return job_ && job_->IsOpen() ? job_ : nullptr;
  }
  // Call with `opening_mutex_` held.
  void Close() {
    {
      const std::lock_guard lock(mutex_);
      if (const auto job = std::exchange(job_, nullptr)) job->End();
    }
    // Waits until the worker has closed the device.
    worker_.reset();
  }

  // Held while the device is being opened or closed. Lock it before `mutex_`.
  std::mutex opening_mutex_;
  std::optional<WorkerThread> worker_;

  // Guards the members below. Never held during a device call.
  std::mutex mutex_;
  std::shared_ptr<Job> job_;
  // Settings for the next OpenDevice, except `pos_offset_`.
  WAVEFORMATEX format_ = DeviceFormat(0, 0, 16);
  std::uint32_t buffer_millisecs_ = 1000;
  UINT device_id_ = WAVE_MAPPER;
  std::int64_t pos_offset_ = 0;
};

MARLINDA_DEFINE_CLASS(CAudioPlayback)

}  // namespace marlinda
