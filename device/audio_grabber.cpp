#include "device/audio_grabber.h"

#include <cstring>

#include "core/sample_array.h"
#include "core/sample_converter.h"
#include "core/wave_format.h"
#include "device/device_format.h"

namespace marlinda {
namespace {

constexpr std::size_t kBufferCount = 16;
// What a fresh object records with; an explicit SetFormat gives 40 ms instead.
constexpr std::uint32_t kInitialBufferBytes = 4096;
constexpr std::uint32_t kBuffersPerSecond = 25;

}  // namespace

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
    while (queue_.Count() < block.samples().size()) {
      {
        const std::lock_guard lock(mutex_);
        if (device_ == nullptr) return E_FAIL;
      }
      WaitForSingleObject(data_event_.get(), INFINITE);
      const std::lock_guard lock(mutex_);
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

STDMETHODIMP CAudioGrabber::GetSampleCount(__int64* pnSamples) {
  // A live source has no length.
  return pnSamples == nullptr ? E_POINTER : E_NOTIMPL;
}

STDMETHODIMP CAudioGrabber::OpenDevice() {
  return ComCall([&]() -> HRESULT {
    const std::lock_guard lock(mutex_);
    Close();
    if (!data_event_ || !IsPlausible(format_) || buffer_bytes_ < format_.nBlockAlign) {
      return E_FAIL;
    }
    recording_format_ = format_;
    // All that can fail comes before the device is open.
    buffers_.resize(kBufferCount);
    for (auto& buffer : buffers_) buffer.data.resize(buffer_bytes_);
    scratch_.resize(buffer_bytes_ / format_.nBlockAlign * format_.nChannels);

    const auto callback = reinterpret_cast<DWORD_PTR>(&DataCallback);
    const auto self = reinterpret_cast<DWORD_PTR>(this);
    if (waveInOpen(&device_, device_id_, &format_, callback, self, CALLBACK_FUNCTION) !=
        MMSYSERR_NOERROR) {
      const auto extensible = MakeExtensibleFormat(format_, IsFloat(format_), false);
      if (waveInOpen(&device_, device_id_, &extensible.Format, callback, self, CALLBACK_FUNCTION) !=
          MMSYSERR_NOERROR) {
        device_ = nullptr;
        return E_FAIL;
      }
    }
    StartDevice();
    return S_OK;
  });
}

STDMETHODIMP CAudioGrabber::CloseDevice() {
  const std::lock_guard lock(mutex_);
  Close();
  return S_OK;
}

// Runs on a thread of the device and only counts and signals.
void CALLBACK CAudioGrabber::DataCallback(HWAVEIN, UINT message, DWORD_PTR grabber, DWORD_PTR,
                                          DWORD_PTR) {
  if (message != WIM_DATA) return;
  auto* self = reinterpret_cast<CAudioGrabber*>(grabber);
  ++self->done_count_;
  SetEvent(self->data_event_.get());
}

void CAudioGrabber::StartDevice() {
  next_buffer_ = 0;
  done_count_ = 0;
  for (auto& buffer : buffers_) {
    buffer.header = {};
    buffer.header.lpData = reinterpret_cast<LPSTR>(buffer.data.data());
    buffer.header.dwBufferLength = static_cast<DWORD>(buffer.data.size());
    waveInPrepareHeader(device_, &buffer.header, sizeof buffer.header);
    waveInAddBuffer(device_, &buffer.header, sizeof buffer.header);
  }
  waveInStart(device_);
}

void CAudioGrabber::Collect() {
  if (device_ == nullptr) return;
  for (; done_count_ > 0; --done_count_) {
    // The whole buffer is taken, whatever the device says that it recorded into it.
    DeviceBuffer& buffer = buffers_[next_buffer_];
    if (IsFloat(recording_format_)) {
      std::memcpy(scratch_.data(), buffer.data.data(), scratch_.size() * sizeof(float));
    } else {
      ConvertPcmToFloat(buffer.data, scratch_, recording_format_.wBitsPerSample);
    }
    queue_.Append(scratch_);
    waveInUnprepareHeader(device_, &buffer.header, sizeof buffer.header);
    waveInPrepareHeader(device_, &buffer.header, sizeof buffer.header);
    waveInAddBuffer(device_, &buffer.header, sizeof buffer.header);
    next_buffer_ = (next_buffer_ + 1) % buffers_.size();
  }
}

void CAudioGrabber::Close() {
  if (device_ == nullptr) return;
  waveInReset(device_);
  // A prepared header can only be unprepared while its device is open.
  for (auto& buffer : buffers_) {
    waveInUnprepareHeader(device_, &buffer.header, sizeof buffer.header);
  }
  if (waveInClose(device_) != MMSYSERR_NOERROR) {
    // The driver may still fill these buffers: they are left to it.
    static_cast<void>(new std::vector<DeviceBuffer>(std::move(buffers_)));
    buffers_.clear();
  }
  device_ = nullptr;
  // A reader that waits finds the device closed.
  SetEvent(data_event_.get());
}

MARLINDA_DEFINE_CLASS(CAudioGrabber)

}  // namespace marlinda
