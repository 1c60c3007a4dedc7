// CAudioGrabber: records from a wave-in device and hands the recording out as float blocks.
#pragma once

#include <marlinda.h>
// After windows.h.
#include <mmsystem.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <vector>

#include "core/com_object.h"
#include "core/handle.h"
#include "device/audio_queue.h"
#include "device/calls_inside.h"

namespace marlinda {

// A read waits until the recording holds as many samples as it asks for, however long that takes,
// and ignores the position: recording is strictly sequential. One reader at a time. CloseDevice
// from another thread, or the last release, ends a wait; the read then fails with E_FAIL. Samples
// that were collected but not read stay readable after CloseDevice.
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
  struct DeviceBuffer {
    WAVEHDR header = {};
    std::vector<std::byte> data;
  };

  static void CALLBACK DataCallback(HWAVEIN, UINT message, DWORD_PTR grabber, DWORD_PTR, DWORD_PTR);

  // Each expects the lock to be held.
  void StartDevice();
  void Collect();
  void Close();

  CallsInside readers_;
  std::mutex mutex_;
  WAVEFORMATEX format_ = {};
  // What the open device was opened with; SetFormat meanwhile is for the next opening.
  WAVEFORMATEX recording_format_ = {};
  KernelHandle data_event_;
  HWAVEIN device_ = nullptr;
  UINT device_id_ = WAVE_MAPPER;
  std::atomic<std::int32_t> done_count_{0};
  std::uint32_t buffer_bytes_ = 0;
  std::size_t next_buffer_ = 0;
  std::vector<DeviceBuffer> buffers_;
  std::vector<float> scratch_;
  CAudioQueue queue_;
};

}  // namespace marlinda
