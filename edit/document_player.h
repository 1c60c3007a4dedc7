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

// The playback object and the scrubber are created with the document and kept. Where that fails,
// the document edits as well as ever; a method that needs them tries once more, and throws why it
// cannot.
//
// Playing and scrubbing share the one playback object, so that they get in each other's way when
// they run at once.
class DocumentPlayer {
 public:
  explicit DocumentPlayer(std::shared_ptr<DocumentContent> content) noexcept;
  // Stops what runs and waits for its threads, unless it is the playback thread that destroys us.
  ~DocumentPlayer();
  DocumentPlayer(const DocumentPlayer&) = delete;
  DocumentPlayer& operator=(const DocumentPlayer&) = delete;

  // By its index from 0, -1 for the default; for what is started next.
  void SetDevice(LONG index) noexcept { device_ = index; }

  // Changes nothing while playback runs. What fails on the thread, or in making it, ends the
  // playback without a word.
  void Play(const CSection& section, ULONG channel_mask, bool looped);
  void StopPlay() noexcept;

  // The frame being heard; nothing when nothing plays.
  std::optional<__int64> Position() noexcept;
  // The channel mask of what plays; nothing unless it is looped.
  std::optional<ULONG> LoopedChannelMask() noexcept;
  HRESULT GetOutputLevel(SHORT channel, float* level);

  // Changes nothing while scrubbing runs. What the sources and the scrubber answer does not matter:
  // without a format or a device nothing is heard.
  void StartScrub();
  void SetScrubPosition(__int64 position);
  void StopScrub() noexcept;

 private:
  struct Job;

  IAudioPlayback* Playback();
  void SetUpPlayback(const DocumentFormat& format, LONG buffer_milliseconds);
  ComPtr<IAudioWriter> PlaybackWriter();
  // Lets go of a thread that has ended.
  bool IsPlaying() noexcept;

  const std::shared_ptr<DocumentContent> content_;
  ComPtr<IAudioPlayback> playback_;
  ComPtr<IAudioScrubber> scrubber_;
  LONG device_ = -1;
  LONG scrub_frames_ = 0;
  bool scrubbing_ = false;

  std::shared_ptr<Job> job_;
  std::optional<WorkerThread> thread_;
};

}  // namespace marlinda
