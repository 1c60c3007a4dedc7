// CAudioGrabber: records from a wave-in device and hands the recording out as float blocks.
#pragma once

#include <marlinda.h>
// After windows.h.
#include <mmsystem.h>

#include <cstdint>
#include <memory>
#include <mutex>

#include "core/com_object.h"

namespace marlinda {

// A read waits, without limit, until the recording holds as many samples as it asks for. It ignores
// the position: recording is strictly sequential. One reader at a time. CloseDevice from another
// thread, or the last release, ends a wait; the read then fails with E_FAIL, as on a closed device.
// Samples that were collected but not read stay readable after CloseDevice.
class CAudioGrabber final : public Object<CAudioGrabber, IAudioGrabber, IAudioReader> {
 public:
  static constexpr const CLSID& kClassId = CLSID_CAudioGrabber;

  CAudioGrabber();
  ~CAudioGrabber();

  // IAudioGrabber
  STDMETHODIMP SetFormat(LONG nSamplesPerSec, SHORT nChannels, SHORT nBitsPerSample) override;
  STDMETHODIMP SetDevice(LONG nDeviceId) override;

  // IAudioReader
  STDMETHODIMP ReadAudio(__int64 nSamplePos, SAFEARRAY* psaAudioData) override;
  STDMETHODIMP GetFormat(LONG* pnSamplesPerSec, SHORT* pnChannels) override;
  STDMETHODIMP GetSampleCount(__int64* pnSamples) override;
  STDMETHODIMP OpenDevice() override;
  STDMETHODIMP CloseDevice() override;

 private:
  struct Samples;
  struct Job;

  // Call with `opening_mutex_` held.
  void Close();

  const std::shared_ptr<Samples> samples_;

  // Held while the device is being opened or closed. Taken before `mutex_`.
  std::mutex opening_mutex_;

  // Guards what follows. Never held during a device call.
  std::mutex mutex_;
  // Null while closed.
  std::shared_ptr<Job> job_;
  // For the next opening.
  WAVEFORMATEX format_;
  std::uint32_t buffer_bytes_;
  UINT device_id_ = WAVE_MAPPER;
};

}  // namespace marlinda
