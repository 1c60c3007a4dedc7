// CAudioPlayback: plays interleaved floats on a wave-out device.
#pragma once

#include <marlinda.h>
#include <mmsystem.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>

#include "core/com_object.h"
#include "core/worker_thread.h"
#include "device/device_format.h"

namespace marlinda {

// Each block written becomes one device buffer, queued at once. A writer waits while more than the
// buffer length is queued, which paces it to real time. A producer may be in WriteAudio while
// another thread asks for position and level or calls Break or CloseDevice.
//
// Level, QueryIsReady and Break return at once, also while the device stands still. The position
// waits up to 50 ms for a device call of another thread.
// OpenDevice and CloseDevice wait for the device.
//
// A device that stands still is waited for. A device is lost when it refuses a block or a reset,
// or when no buffer returns for some seconds and it then refuses to be paused. The object is then
// as after CloseDevice.
class CAudioPlayback final : public Object<CAudioPlayback, IAudioPlayback, IAudioWriter> {
 public:
  static constexpr const CLSID& kClassId = CLSID_CAudioPlayback;

  ~CAudioPlayback();

  // IAudioPlayback
  STDMETHODIMP SetBufferLength(LONG nMilliSecs) override {
    return Set([&] { buffer_millisecs_ = static_cast<std::uint32_t>(nMilliSecs); });
  }
  // Stores the format and returns E_NOTIMPL; ignore the result.
  STDMETHODIMP SetFormat(LONG nSamplesPerSec, SHORT nChannels, SHORT nBitsPerSample) override {
    Set([&] { format_ = DeviceFormat(nSamplesPerSec, nChannels, nBitsPerSample); });
    return E_NOTIMPL;
  }
  STDMETHODIMP GetPlaybackPos(__int64* nPlaybackPos) override;
  STDMETHODIMP SetPosOffset(__int64 nOffset) override {
    return Set([&] { pos_offset_ = nOffset; });
  }
  STDMETHODIMP GetPosOffset(__int64* pnOffset) override {
    const std::lock_guard lock(mutex_);
    return SetOut(pnOffset, pos_offset_);
  }
  STDMETHODIMP Break() override;
  STDMETHODIMP SetDevice(ULONG nDeviceId) override {
    return Set([&] { device_id_ = nDeviceId; });
  }
  STDMETHODIMP GetOutputLevel(SHORT niChannel, float* pfOutputLevel) override;

  // IAudioWriter
  STDMETHODIMP WriteAudio(SAFEARRAY* psaAudioData) override;
  STDMETHODIMP OpenDevice() override;
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
  STDMETHODIMP QueryIsReady(LONG* pbReady) override;

 private:
  struct Job;

  // Changes a setting, under the lock.
  template <class Change>
  HRESULT Set(Change change) {
    const std::lock_guard lock(mutex_);
    change();
    return S_OK;
  }
  // Null while closed.
  std::shared_ptr<Job> OpenJob();
  // Call with `opening_mutex_` held.
  void Close();

  // Held while the device is being opened or closed. Taken before `mutex_`.
  std::mutex opening_mutex_;
  std::optional<WorkerThread> worker_;

  // Guards what follows. Never held during a device call.
  std::mutex mutex_;
  std::shared_ptr<Job> job_;
  // For the next opening.
  WAVEFORMATEX format_ = DeviceFormat(0, 0, 16);
  std::uint32_t buffer_millisecs_ = 1000;
  UINT device_id_ = WAVE_MAPPER;
  std::int64_t pos_offset_ = 0;
};

}  // namespace marlinda
