// CAudioPlayback: plays interleaved floats on a wave-out device.
#pragma once

#include <marlinda.h>
// After windows.h.
#include <mmsystem.h>

#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <vector>

#include "core/com_object.h"
#include "core/handle.h"
#include "core/sample_array.h"
#include "core/stall_watch.h"
#include "device/audio_out_buffer.h"
#include "device/calls_inside.h"

namespace marlinda {

// Each block written becomes one device buffer, queued at once; a writer waits while more than the
// buffer length is queued, which paces it to real time. A producer thread may be in WriteAudio
// while another thread asks for position and level or calls Break or CloseDevice.
//
// A device can be lost without a word: no buffer comes back any more while the position calls go on
// succeeding. It counts as lost when, before the eyes of a writer that waits or of QueryIsReady,
// its position stands still and the next buffer is five seconds late; when a reset fails; and when
// it is being closed and returns no buffer for two seconds. Then it is closed, its buffers are
// freed, and the object can be opened again.
class CAudioPlayback final : public Object<CAudioPlayback, IAudioPlayback, IAudioWriter> {
 public:
  static constexpr const CLSID& kClassId = CLSID_CAudioPlayback;

  CAudioPlayback();
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
  using Guard = std::unique_lock<std::mutex>;

  // Each expects the lock to be held.
  // Waits while too much is queued. False when the device does not take the block: closed, broken,
  // lost, or opened anew meanwhile.
  bool WaitForRoom(Guard& lock);
  void Queue(std::span<const float> samples);
  // Storage of a buffer that came back, if it suits `capacity`.
  std::vector<std::byte> SpareStorage(std::size_t capacity);
  // Frees the buffers that have been played.
  void Reap();
  // The device's counter of frames; 0 when it does not tell.
  std::uint32_t PlayedFrames() const;
  // Closes a device that holds buffers and goes on with none of them.
  void CloseIfLost();
  void Close();
  void WaitForBuffers();
  // Closes the device whatever it still holds.
  void LetGo();

  CallsInside writers_;
  std::mutex mutex_;
  WAVEFORMATEX format_ = {};       // for the next opening
  WAVEFORMATEX open_format_ = {};  // what the open device takes
  KernelHandle done_event_;
  HWAVEOUT device_ = nullptr;
  std::int64_t pos_offset_ = 0;
  std::uint32_t buffer_millisecs_ = 1000;
  std::uint32_t queue_limit_bytes_ = 0;
  std::uint32_t queued_bytes_ = 0;
  std::uint64_t bytes_per_sec_ = 1;
  // Buffers that came back, and whether more do.
  std::uint32_t returned_ = 0;
  StallWatch progress_;
  bool broken_ = false;
  // Counts the openings, so that a writer which has waited knows its device again.
  std::uint32_t opening_ = 0;
  int waiting_writers_ = 0;
  // A driver that did not let itself be closed may signal the event at any time.
  bool driver_keeps_event_ = false;
  UINT device_id_ = WAVE_MAPPER;
  std::deque<std::unique_ptr<CAudioOutBuffer>> pending_;
  // The storage of buffers that came back, for the next ones: never more of them than were pending.
  std::vector<std::vector<std::byte>> spare_;
  std::vector<float> output_levels_;
};

}  // namespace marlinda
