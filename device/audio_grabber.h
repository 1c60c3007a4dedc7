// CAudioGrabber: records from a wave-in device and hands the recording out as float blocks.
#pragma once

#include <marlinda.h>
#include <mmsystem.h>

#include <cstdint>
#include <memory>
#include <mutex>

#include "core/com_object.h"
#include "device/device_format.h"

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
  STDMETHODIMP SetDevice(LONG nDeviceId) override {
    const std::lock_guard lock(mutex_);
    device_id_ = static_cast<UINT>(nDeviceId);
    return S_OK;
  }

  // IAudioReader
  STDMETHODIMP ReadAudio(__int64 nSamplePos, SAFEARRAY* psaAudioData) override;
  STDMETHODIMP GetFormat(LONG* pnSamplesPerSec, SHORT* pnChannels) override {
    const std::lock_guard lock(mutex_);
    return SetOut(pnSamplesPerSec, format_.nSamplesPerSec, pnChannels, format_.nChannels);
  }
  // A live source has no length.
  STDMETHODIMP GetSampleCount(__int64*) override { return E_NOTIMPL; }
  STDMETHODIMP OpenDevice() override;
  STDMETHODIMP CloseDevice() override {
    const std::lock_guard opening_lock(opening_mutex_);
    Close();
    return S_OK;
  }

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
  WAVEFORMATEX format_ = DeviceFormat(44100, 2, 16);
  // An explicit SetFormat gives 40 ms instead.
  std::uint32_t buffer_bytes_ = 4096;
  UINT device_id_ = WAVE_MAPPER;
};

}  // namespace marlinda
