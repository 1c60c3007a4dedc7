// CAudioGrabber: records from a wave-in device and hands the recording out as float blocks.
#pragma once

#include <marlinda.h>
// After windows.h.
#include <mmsystem.h>

#include <cstdint>
#include <memory>
#include <mutex>

#include "core/com_object.h"
#include "core/handle.h"
#include "core/samples/audio_queue.h"
#include "device/calls_inside.h"

namespace marlinda {

// A read waits until the recording holds as many samples as it asks for, however long that takes,
// and ignores the position: recording is strictly sequential. One reader at a time. CloseDevice
// from another thread, or the last release, ends a wait, also on a device that is lost; the read
// then fails with E_FAIL, and so does one on a closed device. Samples that were collected but not
// read stay readable after CloseDevice.
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
  using Guard = std::unique_lock<std::mutex>;
  struct Recording;

  static void CALLBACK DataCallback(HWAVEIN, UINT message, DWORD_PTR recording, DWORD_PTR,
                                    DWORD_PTR);

  // Each expects the lock to be held.
  // Appends the buffers that the device has filled to the queue and gives them back to it.
  void Collect();
  void Close();

  CallsInside readers_;
  std::mutex mutex_;
  WAVEFORMATEX format_ = {};
  std::uint32_t buffer_bytes_ = 0;
  UINT device_id_ = WAVE_MAPPER;
  KernelHandle data_event_;
  // Null while closed.
  std::unique_ptr<Recording> recording_;
  // Counts the openings, so that a reader which has waited knows its recording again.
  std::uint32_t opening_ = 0;
  // A driver that did not let itself be closed may signal the event at any time.
  bool driver_keeps_event_ = false;
  CAudioQueue queue_;
};

}  // namespace marlinda
