// DocumentPlayer: plays a document on its own thread, and scrubs in it.
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

// The constructor creates a playback object and a scrubber. If this fails, editing still works.
// A method that needs a missing object creates it, or throws the error.
//
// Playback and scrubbing share the playback object, so starting one of them ends the other.
class DocumentPlayer {
 public:
  explicit DocumentPlayer(std::shared_ptr<DocumentContent> content) noexcept
      : content_(std::move(content)) {
    CreateInstance(CLSID_CAudioPlayback, playback_);
    CreateInstance(CLSID_CAudioScrubber, scrubber_);
  }
  // Stops playback and scrubbing. Waits for both threads, except on the playback thread itself.
  ~DocumentPlayer() {
    StopPlay();
    StopScrub();
  }

  // Sets the device: an index from 0, or -1 for the default. The next Play or StartScrub uses it.
  void SetDevice(LONG index) noexcept { device_ = index; }

  // Ends scrubbing and starts playback. Does neither if playback runs or the section is empty. A
  // failure on the thread ends playback and is not reported.
  void Play(const CSection& section, ULONG channel_mask, bool looped) {
    const DocumentFormat format = content_->CurrentFormat();
    const bool starts = !IsPlaying() && section.begin < section.end;
    if (starts && scrubbing_) StopScrub();
    // Does not affect running playback, because the open device keeps its format.
    SetUpPlayback(format, kPlayBufferMilliSecs);
    const ComPtr<IAudioWriter> writer = PlaybackWriter();
    if (!starts) return;
    job_.reset(new Job{content_, writer, section, looped, channel_mask,
                       PlayBlockBytes(format.samples_per_sec, format.channels)});
    thread_.emplace();
    thread_->Start([job = job_]() mutable {
      const Apartment apartment(COINIT_APARTMENTTHREADED);
      // Releases the job, and perhaps its sources, while the thread is in the apartment.
      std::exchange(job, nullptr)->Run();
    });
  }
  void StopPlay() noexcept {
    // `thread_` may also hold a thread that has ended.
    if (!thread_) return;
    // Wakes a thread that waits for room in the device.
    playback_->Break();
    job_->stop = true;
    thread_->PollUntilEnded(kPollMilliSecs);
    IsPlaying();
  }

  // Returns the frame that is being heard, or nothing if playback does not run.
  std::optional<__int64> Position() noexcept {
    if (!IsPlaying()) return std::nullopt;
    __int64 played = 0;
    playback_->GetPlaybackPos(&played);
    return PositionInSection(job_->section, played);
  }
  // Returns the channel mask while looped playback runs, otherwise nothing.
  std::optional<ULONG> LoopedChannelMask() noexcept {
    if (!IsPlaying() || !job_->looped) return std::nullopt;
    return job_->channel_mask;
  }
  HRESULT GetOutputLevel(SHORT channel, float* level) {
    return Playback()->GetOutputLevel(channel, level);
  }

  // Ends playback and starts scrubbing. Does nothing while scrubbing runs. Ignores failures of the
  // sources and the scrubber: without a format or a device, scrubbing is silent.
  void StartScrub() {
    if (scrubbing_) return;
    // The playback object has one device, which playback and scrubber cannot share.
    StopPlay();
    if (!scrubber_) Check(CreateInstance(CLSID_CAudioScrubber, scrubber_));
    const DocumentFormat format = content_->CurrentFormat();
    const ComPtr<IAudioWriter> writer = PlaybackWriter();
    SetUpPlayback(format, kScrubBufferMilliSecs);
    const LONG frames = format.samples_per_sec / kScrubBlocksPerSecond;
    if (!std::exchange(open_for_scrub_, true)) content_->OpenDevice();
    scrubbing_ =
        SUCCEEDED(scrubber_->Start(writer.Get(), frames, format.samples_per_sec, format.channels));
    // A scrubber that did not start refuses every block, so SetScrubPosition reads no frames.
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
  // The state of one playback, shared by the document and the thread. The thread does not hold the
  // document, which looped playback would keep alive. The job can outlive the document: a source
  // that the job calls may release the last reference to the document.
  struct Job {
    // If the sources cannot be opened, the job keeps the writer open until the next playback or the
    // document's destruction.
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
    // Stores the format and returns E_NOTIMPL; ignore the result.
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
  // True while the playback thread runs. Discards a thread that has ended.
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
  // True from the time StartScrub has opened the sources until StopScrub has closed them.
  bool open_for_scrub_ = false;

  std::shared_ptr<Job> job_;
  std::optional<WorkerThread> thread_;
};

}  // namespace marlinda
