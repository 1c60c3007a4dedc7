#include "device/audio_grabber.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <vector>

#include "core/sample_array.h"
#include "core/samples/sample_converter.h"
#include "core/wave_format.h"
#include "device/device_format.h"

namespace marlinda {
namespace {

constexpr std::size_t kBufferCount = 16;
// What a fresh object records with; an explicit SetFormat gives 40 ms instead.
constexpr std::uint32_t kInitialBufferBytes = 4096;
constexpr std::uint32_t kBuffersPerSecond = 25;

}  // namespace

// One run of the device, from OpenDevice to CloseDevice.
struct CAudioGrabber::Recording {
  struct Buffer {
    explicit Buffer(std::size_t size) : data(size) {}
    WAVEHDR header = {};
    std::vector<std::byte> data;
  };

  // Makes everything that can fail before the device is open.
  Recording(const WAVEFORMATEX& wanted, std::uint32_t bytes, HANDLE event)
      : format(wanted),
        data_event(event),
        buffer_bytes(bytes),
        samples(std::size_t{bytes / format.nBlockAlign} * format.nChannels),
        // A width that is no multiple of 8 takes more bytes to convert than its block align tells.
        buffers(kBufferCount,
                Buffer(std::max<std::size_t>(
                    bytes, samples.size() * PcmBytesPerSample(wanted.wBitsPerSample)))) {}

  void Start() noexcept {
    for (auto& buffer : buffers) {
      buffer.header.lpData = reinterpret_cast<LPSTR>(buffer.data.data());
      buffer.header.dwBufferLength = buffer_bytes;
      Add(buffer);
    }
    waveInStart(device);
  }

  void Add(Buffer& buffer) const noexcept {
    waveInPrepareHeader(device, &buffer.header, sizeof buffer.header);
    waveInAddBuffer(device, &buffer.header, sizeof buffer.header);
  }

  void Remove(Buffer& buffer) const noexcept {
    waveInUnprepareHeader(device, &buffer.header, sizeof buffer.header);
  }

  // SetFormat meanwhile is for the next opening.
  const WAVEFORMATEX format;
  HANDLE data_event;
  const std::uint32_t buffer_bytes;
  HWAVEIN device = nullptr;
  // One buffer as floats.
  std::vector<float> samples;
  std::vector<Buffer> buffers;
  // The buffer that the device fills next.
  std::size_t next = 0;
  // Buffers filled and not yet collected.
  std::atomic<std::int32_t> done{0};
};

CAudioGrabber::CAudioGrabber() : data_event_(CreateEventW(nullptr, FALSE, FALSE, nullptr)) {
  format_ = DeviceFormat(44100, 2, 16);
  buffer_bytes_ = kInitialBufferBytes;
}

CAudioGrabber::~CAudioGrabber() {
  {
    const std::lock_guard lock(mutex_);
    Close();
  }
  readers_.SeeOut(data_event_.get());
  if (driver_keeps_event_) data_event_.Detach();
}

STDMETHODIMP CAudioGrabber::SetFormat(LONG nSamplesPerSec, SHORT nChannels, SHORT nBitsPerSample) {
  const std::lock_guard lock(mutex_);
  format_ = DeviceFormat(nSamplesPerSec, nChannels, nBitsPerSample);
  buffer_bytes_ = format_.nAvgBytesPerSec / kBuffersPerSecond;
  // Half a frame at the end of a buffer would be lost, and every later sample shifted.
  if (format_.nBlockAlign > 0) buffer_bytes_ -= buffer_bytes_ % format_.nBlockAlign;
  return S_OK;
}

STDMETHODIMP CAudioGrabber::SetDevice(LONG nDeviceId) {
  const std::lock_guard lock(mutex_);
  device_id_ = static_cast<UINT>(nDeviceId);
  return S_OK;
}

STDMETHODIMP CAudioGrabber::ReadAudio(__int64, SAFEARRAY* psaAudioData) {
  const CallsInside::Scope inside(readers_);
  return ComCall([&]() -> HRESULT {
    SampleArrayView block;
    Check(block.Lock(psaAudioData));
    Guard lock(mutex_);
    const std::uint32_t opening = opening_;
    while (queue_.Count() < block.samples().size()) {
      if (!recording_ || opening_ != opening) {
        // The event wakes one reader; what ended this wait ends another's.
        SetEvent(data_event_.get());
        return E_FAIL;
      }
      lock.unlock();
      WaitForSingleObject(data_event_.get(), INFINITE);
      lock.lock();
      Collect();
    }
    queue_.Read(block.samples());
    return S_OK;
  });
}

STDMETHODIMP CAudioGrabber::GetFormat(LONG* pnSamplesPerSec, SHORT* pnChannels) {
  if (pnSamplesPerSec == nullptr || pnChannels == nullptr) return E_POINTER;
  const std::lock_guard lock(mutex_);
  *pnSamplesPerSec = static_cast<LONG>(format_.nSamplesPerSec);
  *pnChannels = static_cast<SHORT>(format_.nChannels);
  return S_OK;
}

STDMETHODIMP CAudioGrabber::GetSampleCount(__int64*) {
  // A live source has no length.
  return E_NOTIMPL;
}

STDMETHODIMP CAudioGrabber::OpenDevice() {
  return ComCall([&]() -> HRESULT {
    const std::lock_guard lock(mutex_);
    Close();
    if (!data_event_ || !IsPlausible(format_) || buffer_bytes_ < format_.nBlockAlign) {
      return E_FAIL;
    }
    auto recording = std::make_unique<Recording>(format_, buffer_bytes_, data_event_.get());
    const auto callback = reinterpret_cast<DWORD_PTR>(&DataCallback);
    const auto instance = reinterpret_cast<DWORD_PTR>(recording.get());
    if (waveInOpen(&recording->device, device_id_, &format_, callback, instance,
                   CALLBACK_FUNCTION) != MMSYSERR_NOERROR) {
      const auto extensible = MakeExtensibleFormat(format_, IsFloat(format_), false);
      if (waveInOpen(&recording->device, device_id_, &extensible.Format, callback, instance,
                     CALLBACK_FUNCTION) != MMSYSERR_NOERROR) {
        return E_FAIL;
      }
    }
    recording_ = std::move(recording);
    ++opening_;
    recording_->Start();
    return S_OK;
  });
}

STDMETHODIMP CAudioGrabber::CloseDevice() {
  const std::lock_guard lock(mutex_);
  Close();
  return S_OK;
}

// Runs on a thread of the device and only counts and signals.
void CALLBACK CAudioGrabber::DataCallback(HWAVEIN, UINT message, DWORD_PTR recording, DWORD_PTR,
                                          DWORD_PTR) {
  if (message != WIM_DATA) return;
  auto* self = reinterpret_cast<Recording*>(recording);
  ++self->done;
  SetEvent(self->data_event);
}

void CAudioGrabber::Collect() {
  if (!recording_) return;
  Recording& device = *recording_;
  for (; device.done > 0; --device.done) {
    // The whole buffer is taken, whatever the device says that it recorded into it.
    Recording::Buffer& buffer = device.buffers[device.next];
    if (IsFloat(device.format)) {
      std::memcpy(device.samples.data(), buffer.data.data(), device.samples.size() * sizeof(float));
    } else {
      ConvertPcmToFloat(buffer.data, device.samples, device.format.wBitsPerSample);
    }
    queue_.Append(device.samples);
    device.Remove(buffer);
    device.Add(buffer);
    device.next = (device.next + 1) % device.buffers.size();
  }
}

void CAudioGrabber::Close() {
  if (!recording_) return;
  waveInReset(recording_->device);
  // A prepared header can only be unprepared while its device is open.
  for (auto& buffer : recording_->buffers) recording_->Remove(buffer);
  if (waveInClose(recording_->device) != MMSYSERR_NOERROR) {
    // The driver may still fill these buffers and signal the event: they are left to it.
    static_cast<void>(recording_.release());
    driver_keeps_event_ = true;
  }
  recording_.reset();
  // A reader that waits finds the device closed.
  SetEvent(data_event_.get());
}

MARLINDA_DEFINE_CLASS(CAudioGrabber)

}  // namespace marlinda
