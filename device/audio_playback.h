// CAudioPlayback: plays interleaved floats on a wave-out device.
#pragma once

#include <marlinda.h>
// After windows.h.
#include <mmsystem.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>

#include "core/com_object.h"
#include "core/worker_thread.h"

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

  CAudioPlayback() noexcept;
  ~CAudioPlayback();

  // IAudioPlayback
  STDMETHODIMP SetBufferLength(LONG nMilliSecs) override;
  STDMETHODIMP SetFormat(LONG nSamplesPerSec, SHORT nChannels, SHORT nBitsPerSample) override;
  STDMETHODIMP GetPlaybackPos(__int64* nPlaybackPos) override;
  STDMETHODIMP SetPosOffset(__int64 nOffset) override;
  STDMETHODIMP GetPosOffset(__int64* pnOffset) override;
  STDMETHODIMP Break() override;
  STDMETHODIMP SetDevice(ULONG nDeviceId) override;
  STDMETHODIMP GetOutputLevel(SHORT niChannel, float* pfOutputLevel) override;

  // IAudioWriter
  STDMETHODIMP WriteAudio(SAFEARRAY* psaAudioData) override;
  STDMETHODIMP OpenDevice() override;
  STDMETHODIMP CloseDevice() override;
  STDMETHODIMP SetFormat(LONG nSamplesPerSec, SHORT nChannels) override;
  STDMETHODIMP QueryIsReady(LONG* pbReady) override;

 private:
  struct Job;

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
  WAVEFORMATEX format_;
  std::uint32_t buffer_millisecs_ = 1000;
  UINT device_id_ = WAVE_MAPPER;
  std::int64_t pos_offset_ = 0;
};

}  // namespace marlinda
