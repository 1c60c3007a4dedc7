// CAudioGrabber: records from a wave-in device and serves the recording as float samples.
#include <marlinda.h>
#include <mmsystem.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <span>
#include <utility>
#include <vector>

#include "core/com_object.h"
#include "core/handle.h"
#include "core/sample_array.h"
#include "core/samples/audio_queue.h"
#include "core/samples/sample_converter.h"
#include "device/device_format.h"

namespace marlinda {
namespace {

constexpr std::size_t kBufferCount = 16;
constexpr std::uint32_t kBuffersPerSecond = 25;

}  // namespace

// ReadAudio waits without a time limit until enough samples are recorded. It ignores the position,
// because recording is sequential. Only one thread at a time may read. CloseDevice on another
// thread, or the last release, ends the wait. ReadAudio then fails with E_FAIL, as on a closed
// device. While it waits, ReadAudio moves the samples of all filled device buffers into a queue.
// Queued samples stay readable after CloseDevice.
class CAudioGrabber final : public Object<CAudioGrabber, IAudioGrabber, IAudioReader> {
 public:
  static constexpr const CLSID& kClassId = CLSID_CAudioGrabber;

  ~CAudioGrabber() { Close(); }

  // IAudioGrabber
  STDMETHODIMP SetFormat(LONG nSamplesPerSec, SHORT nChannels, SHORT nBitsPerSample) override {
    const std::lock_guard lock(mutex_);
    format_ = DeviceFormat(nSamplesPerSec, nChannels, nBitsPerSample);
    buffer_bytes_ = format_.nAvgBytesPerSec / kBuffersPerSecond;
    // Buffers hold whole frames, because a part of a frame at the end of a buffer would shift later
    // samples.
    if (format_.nBlockAlign > 0) buffer_bytes_ -= buffer_bytes_ % format_.nBlockAlign;
    return S_OK;
  }
  STDMETHODIMP SetDevice(LONG nDeviceId) override {
    const std::lock_guard lock(mutex_);
    device_id_ = static_cast<UINT>(nDeviceId);
    return S_OK;
  }

  // IAudioReader
  STDMETHODIMP ReadAudio(__int64, SAFEARRAY* psaAudioData) override {
    return ComCall([&]() -> HRESULT {
      SampleArrayView block;
      Check(block.Lock(psaAudioData));
      // The object may be released during the wait, so the wait uses only `samples` and `job`.
      const std::shared_ptr<Samples> samples = samples_;
      std::shared_ptr<Job> job;
      {
        const std::lock_guard lock(mutex_);
        job = job_;
      }
      while (!samples->Take(block.samples())) {
        if (!job || !job->WaitAndCollect()) return E_FAIL;
      }
      return S_OK;
    });
  }
  STDMETHODIMP GetFormat(LONG* pnSamplesPerSec, SHORT* pnChannels) override {
    const std::lock_guard lock(mutex_);
    return SetOut(pnSamplesPerSec, format_.nSamplesPerSec, pnChannels, format_.nChannels);
  }
  // A live source has no length.
  STDMETHODIMP GetSampleCount(__int64*) override { return E_NOTIMPL; }
  STDMETHODIMP OpenDevice() override {
    return ComCall([&]() -> HRESULT {
      const std::lock_guard opening_lock(opening_mutex_);
      Close();
      std::shared_ptr<Job> job;
      UINT device_id = WAVE_MAPPER;
      {
        const std::lock_guard lock(mutex_);
        if (!IsPlausible(format_) || buffer_bytes_ < format_.nBlockAlign) return E_FAIL;
        job = std::make_shared<Job>(format_, buffer_bytes_, samples_);
        device_id = device_id_;
      }
      if (!job->Open(device_id)) return E_FAIL;
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

 private:
  // Recorded samples that have not been read. They remain after the device is closed. While
  // ReadAudio waits, they also outlive the object.
  struct Samples {
    // Returns false and leaves the queue unchanged if there are too few samples.
    bool Take(std::span<float> destination) {
      const std::lock_guard lock(mutex);
      if (queue.Count() < destination.size()) return false;
      queue.Read(destination);
      return true;
    }

    std::mutex mutex;
    CAudioQueue queue;
  };

  // The state of one opening of the device, shared by the object, its readers and DataCallback.
  struct Job {
    struct Buffer {
      explicit Buffer(std::size_t size) : data(size) {}
      WAVEHDR header = {};
      std::vector<std::byte> data;
    };

    Job(const WAVEFORMATEX& wanted, std::uint32_t bytes, std::shared_ptr<Samples> target)
        : format(wanted),
          samples(std::move(target)),
          floats(std::size_t{bytes / format.nBlockAlign} * format.nChannels),
          // If wBitsPerSample is no multiple of 8, PCM frames can need more bytes than nBlockAlign.
          buffers(kBufferCount,
                  Buffer(std::max<std::size_t>(
                      bytes, floats.size() * PcmBytesPerSample(wanted.wBitsPerSample)))) {
      for (auto& buffer : buffers) {
        buffer.header.lpData = reinterpret_cast<LPSTR>(buffer.data.data());
        buffer.header.dwBufferLength = bytes;
      }
    }

    bool Open(UINT device_id) {
      if (!event) return false;
      const auto try_format = [&](const WAVEFORMATEX& tried) {
        return waveInOpen(&device, device_id, &tried, reinterpret_cast<DWORD_PTR>(&DataCallback),
                          reinterpret_cast<DWORD_PTR>(this), CALLBACK_FUNCTION) == MMSYSERR_NOERROR;
      };
      if (!try_format(format) &&
          !try_format(MakeExtensibleFormat(format, IsFloat(format), false).Format)) {
        return false;
      }
      for (auto& buffer : buffers) Add(buffer);
      waveInStart(device);
      return true;
    }

    // Waits for filled buffers and queues their samples. Returns false if the device is closed.
    bool WaitAndCollect() {
      WaitForSingleObject(event.get(), INFINITE);
      const std::lock_guard lock(mutex);
      if (!open) {
        // The event wakes only one reader, so each reader wakes the next.
        SetEvent(event.get());
        return false;
      }
      for (; done > 0; --done) {
        // Queues the samples of the whole buffer, even if dwBytesRecorded is smaller.
        Buffer& buffer = buffers[next];
        if (IsFloat(format)) {
          std::memcpy(floats.data(), buffer.data.data(), floats.size() * sizeof(float));
        } else {
          ConvertPcmToFloat(buffer.data, floats, format.wBitsPerSample);
        }
        try {
          samples->queue.Append(floats);
        } catch (...) {
          // Lets the next read collect the remaining buffers.
          SetEvent(event.get());
          throw;
        }
        Remove(buffer);
        Add(buffer);
        next = (next + 1) % buffers.size();
      }
      return true;
    }

    // Returns false if the driver refuses to close the device.
    bool Close() noexcept {
      {
        const std::lock_guard lock(mutex);
        open = false;
      }
      SetEvent(event.get());
      waveInReset(device);
      // A prepared header can only be unprepared while its device is open.
      for (auto& buffer : buffers) Remove(buffer);
      return waveInClose(device) == MMSYSERR_NOERROR;
    }

    void Add(Buffer& buffer) const noexcept {
      waveInPrepareHeader(device, &buffer.header, sizeof buffer.header);
      waveInAddBuffer(device, &buffer.header, sizeof buffer.header);
    }

    void Remove(Buffer& buffer) const noexcept {
      waveInUnprepareHeader(device, &buffer.header, sizeof buffer.header);
    }

    // Runs on a device thread. Must not call wave-in functions, because they can deadlock here.
    static void CALLBACK DataCallback(HWAVEIN, UINT message, DWORD_PTR job, DWORD_PTR, DWORD_PTR) {
      if (message != WIM_DATA) return;
      auto* const self = reinterpret_cast<Job*>(job);
      ++self->done;
      SetEvent(self->event.get());
    }

    const WAVEFORMATEX format;
    const std::shared_ptr<Samples> samples;
    // Signalled for each filled buffer, and when the device is closed.
    const KernelHandle event{CreateEventW(nullptr, FALSE, FALSE, nullptr)};
    HWAVEIN device = nullptr;
    // Filled buffers that have not been collected.
    std::atomic<std::int32_t> done{0};

    // Guards the members below.
    std::mutex mutex;
    bool open = true;
    // One buffer as floats.
    std::vector<float> floats;
    std::vector<Buffer> buffers;
    // The buffer to collect next.
    std::size_t next = 0;
  };

  // Call with `opening_mutex_` held.
  void Close() {
    std::shared_ptr<Job> job;
    {
      const std::lock_guard lock(mutex_);
      job.swap(job_);
    }
    // If the driver refuses to close, it may still use the job. The job is therefore leaked.
    if (job && !job->Close()) static_cast<void>(new (std::nothrow) std::shared_ptr<Job>(job));
  }

  const std::shared_ptr<Samples> samples_ = std::make_shared<Samples>();

  // Held while the device is being opened or closed. Lock it before `mutex_`.
  std::mutex opening_mutex_;

  // Guards the members below. Never held during a device call.
  std::mutex mutex_;
  // Null while the device is closed.
  std::shared_ptr<Job> job_;
  // Settings for the next OpenDevice.
  WAVEFORMATEX format_ = DeviceFormat(44100, 2, 16);
  // Bytes of a device buffer. SetFormat changes this to 40 ms of audio.
  std::uint32_t buffer_bytes_ = 4096;
  UINT device_id_ = WAVE_MAPPER;
};

MARLINDA_DEFINE_CLASS(CAudioGrabber)

}  // namespace marlinda
