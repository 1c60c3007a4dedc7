// DocumentPlayer: plays a document on a thread of its own, and scrubs in it.
#pragma once

#include <marlinda.h>

#include <memory>
#include <optional>

#include "core/com_ptr.h"
#include "core/section.h"
#include "core/worker_thread.h"
#include "edit/document_content.h"

namespace marlinda {

// The playback object and the scrubber are created with the document. Where that fails,
// editing works nevertheless; a method that needs them tries once more and throws the error.
//
// Playing and scrubbing share the playback object, so that starting one ends the other.
class DocumentPlayer {
 public:
  explicit DocumentPlayer(std::shared_ptr<DocumentContent> content) noexcept;
  // Stops playing and scrubbing and waits for their threads, unless the playback thread calls.
  ~DocumentPlayer();

  // By its index from 0, -1 for the default; used by the next start.
  void SetDevice(LONG index) noexcept { device_ = index; }

  // Changes nothing while playback runs; ends scrubbing. A failure on the thread ends the playback
  // and is not reported.
  void Play(const CSection& section, ULONG channel_mask, bool looped);
  void StopPlay() noexcept;

  // The frame being heard; nothing when nothing plays.
  std::optional<__int64> Position() noexcept;
  // The channel mask of what plays; nothing unless it is looped.
  std::optional<ULONG> LoopedChannelMask() noexcept;
  HRESULT GetOutputLevel(SHORT channel, float* level);

  // Changes nothing while scrubbing runs; stops playing. Failures of the sources and the scrubber
  // are ignored: without a format or a device scrubbing is silent.
  void StartScrub();
  void SetScrubPosition(__int64 position);
  void StopScrub() noexcept;

 private:
  struct Job;

  IAudioPlayback* Playback();
  void SetUpPlayback(const DocumentFormat& format, LONG buffer_milliseconds);
  ComPtr<IAudioWriter> PlaybackWriter();
  // Forgets a thread that has ended.
  bool IsPlaying() noexcept;

  const std::shared_ptr<DocumentContent> content_;
  ComPtr<IAudioPlayback> playback_;
  ComPtr<IAudioScrubber> scrubber_;
  LONG device_ = -1;
  LONG scrub_frames_ = 0;
  bool scrubbing_ = false;
  // StartScrub has opened the sources, and StopScrub has not closed them.
  bool open_for_scrub_ = false;

  std::shared_ptr<Job> job_;
  std::optional<WorkerThread> thread_;
};

}  // namespace marlinda
