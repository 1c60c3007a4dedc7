// DocumentPlayer: plays a document on a thread of its own, and scrubs in it.
#pragma once

#include <marlinda.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <memory>
#include <optional>
#include <utility>

#include "core/apartment.h"
#include "core/com_ptr.h"
#include "core/sample_array.h"
#include "core/section.h"
#include "core/worker_thread.h"
#include "edit/document_content.h"
#include "edit/play_section.h"

namespace marlinda {

inline constexpr LONG kPlayBufferMilliSecs = 1000;
inline constexpr LONG kScrubBufferMilliSecs = 100;
inline constexpr LONG kScrubBlocksPerSecond = 10;
inline constexpr DWORD kPollMilliSecs = 10;

// The playback object and the scrubber are created with the document. Where that fails,
// editing works nevertheless; a method that needs them tries once more and throws the error.
//
// Playing and scrubbing share the playback object, so that starting one ends the other.
class DocumentPlayer {
 public:
  explicit DocumentPlayer(std::shared_ptr<DocumentContent> content) noexcept
      : content_(std::move(content)) {
    CreateInstance(CLSID_CAudioPlayback, playback_);
    CreateInstance(CLSID_CAudioScrubber, scrubber_);
  }
  // Stops playing and scrubbing and waits for their threads, unless the playback thread calls.
  ~DocumentPlayer() {
    StopPlay();
    StopScrub();
  }

  // By its index from 0, -1 for the default; used by the next start.
  void SetDevice(LONG index) noexcept { device_ = index; }

  // Changes nothing while playback runs; ends scrubbing. A failure on the thread ends the playback
  // and is not reported.
  void Play(const CSection& section, ULONG channel_mask, bool looped) {
    const DocumentFormat format = content_->CurrentFormat();
    const bool starts = !IsPlaying() && section.begin < section.end;
    if (starts && scrubbing_) StopScrub();
    // Also while it plays: the device that is open keeps the format that it was opened with.
    SetUpPlayback(format, kPlayBufferMilliSecs);
    const ComPtr<IAudioWriter> writer = PlaybackWriter();
    if (!starts) return;
    job_.reset(new Job{content_, writer, section, looped, channel_mask,
                       PlayBlockBytes(format.samples_per_sec, format.channels)});
    thread_.emplace();
    thread_->Start([job = job_]() mutable {
      const Apartment apartment(COINIT_APARTMENTTHREADED);
      // The last holder of the sources releases them inside the apartment.
      std::exchange(job, nullptr)->Run();
    });
  }
  void StopPlay() noexcept {
    // Also a thread that has ended and was not asked for yet.
    if (!thread_) return;
    // Wakes the thread where it waits for room in the device.
    playback_->Break();
    job_->stop = true;
    thread_->PollUntilEnded(kPollMilliSecs);
    IsPlaying();
  }

  // The frame being heard; nothing when nothing plays.
  std::optional<__int64> Position() noexcept {
    if (!IsPlaying()) return std::nullopt;
    __int64 played = 0;
    playback_->GetPlaybackPos(&played);
    return PositionInSection(job_->section, played);
  }
  // The channel mask of what plays; nothing unless it is looped.
  std::optional<ULONG> LoopedChannelMask() noexcept {
    if (!IsPlaying() || !job_->looped) return std::nullopt;
    return job_->channel_mask;
  }
  HRESULT GetOutputLevel(SHORT channel, float* level) {
    return Playback()->GetOutputLevel(channel, level);
  }

  // Changes nothing while scrubbing runs; stops playing. Failures of the sources and the scrubber
  // are ignored: without a format or a device scrubbing is silent.
  void StartScrub() {
    if (scrubbing_) return;
    // The playback object has one device, which the playback would share with the scrubber.
    StopPlay();
    if (!scrubber_) Check(CreateInstance(CLSID_CAudioScrubber, scrubber_));
    const DocumentFormat format = content_->CurrentFormat();
    const ComPtr<IAudioWriter> writer = PlaybackWriter();
    SetUpPlayback(format, kScrubBufferMilliSecs);
    const LONG frames = format.samples_per_sec / kScrubBlocksPerSecond;
    if (!std::exchange(open_for_scrub_, true)) content_->OpenDevice();
    scrubbing_ =
        SUCCEEDED(scrubber_->Start(writer.Get(), frames, format.samples_per_sec, format.channels));
    // A block that the scrubber refuses may be of any size and is not read.
    scrub_frames_ = scrubbing_ ? frames : 0;
  }
  void SetScrubPosition(__int64 position) {
    const __int64 samples =
        static_cast<__int64>(scrub_frames_) * content_->CurrentFormat().channels;
    const SampleArray block(static_cast<std::size_t>(std::max<__int64>(samples, 0)));
    content_->ReadAudio(ScrubBlockBegin(position, scrub_frames_), block.get());
    if (scrubber_) scrubber_->WriteBlock(block.get());
  }
  void StopScrub() noexcept {
    scrubbing_ = false;
    if (scrubber_) scrubber_->Stop();
    if (std::exchange(open_for_scrub_, false)) content_->CloseDevice();
  }

 private:
  // One playback, shared by the document and the thread. The thread does not hold the document: a
  // looped playback must not keep it alive, and its last release may come from a source that the
  // thread reads.
  struct Job {
    // When the sources cannot be opened, the writer stays open and held until the next playback or
    // the end of the document.
    void Run() noexcept {
      const DocumentFormat format = content->CurrentFormat();
      writer->SetFormat(format.samples_per_sec, format.channels);
      if (SUCCEEDED(writer->OpenDevice())) {
        if (FAILED(content->OpenDevice())) return;
        ComCall([&] {
          PlaySection(format.channels);
          Drain();
        });
        writer->CloseDevice();
        content->CloseDevice();
      }
      writer.Reset();
    }

    void PlaySection(SHORT channels) {
      SampleArray block;
      for (PlayCursor cursor(section, looped, block_bytes, channels); !cursor.AtEnd() && !stop;
           cursor.Advance()) {
        block.Resize(cursor.Samples());
        Check(content->ReadAudio(cursor.Position(), block.get()));
        ApplyChannelMask(block.samples(), static_cast<std::size_t>(channels), channel_mask);
        Check(writer->WriteAudio(block.get()));
      }
    }

    void Drain() const {
      for (LONG ready = 0; ready == 0 && !stop; Sleep(kPollMilliSecs)) {
        Check(writer->QueryIsReady(&ready));
      }
    }

    const std::shared_ptr<DocumentContent> content;
    ComPtr<IAudioWriter> writer;
    const CSection section;
    const bool looped;
    const ULONG channel_mask;
    const __int64 block_bytes;
    std::atomic<bool> stop{false};
  };

  IAudioPlayback* Playback() {
    if (!playback_) Check(CreateInstance(CLSID_CAudioPlayback, playback_));
    return playback_.Get();
  }
  void SetUpPlayback(const DocumentFormat& format, LONG buffer_milliseconds) {
    IAudioPlayback* const playback = Playback();
    // Returns E_NOTIMPL and stores the format.
    playback->SetFormat(format.samples_per_sec, format.channels, format.bits_per_sample);
    playback->SetDevice(static_cast<ULONG>(device_));
    playback->SetBufferLength(buffer_milliseconds);
  }
  ComPtr<IAudioWriter> PlaybackWriter() {
    ComPtr<IAudioWriter> writer;
    Check(Playback()->QueryInterface(__uuidof(IAudioWriter),
                                     reinterpret_cast<void**>(writer.GetAddressOf())));
    return writer;
  }
  // Forgets a thread that has ended.
  bool IsPlaying() noexcept {
    if (thread_ && !thread_->IsRunning()) thread_.reset();
    return thread_.has_value();
  }

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
