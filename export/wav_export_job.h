// WavExportJob: one export from reader to file, run by the worker thread of a CWavExportFilter.
#pragma once

#include <marlinda.h>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <utility>

#include "core/com_ptr.h"
#include "core/handle.h"
#include "export/riff_chunk_writer.h"
#include "export/wav_layout.h"

namespace marlinda {

// The filter and its worker share a job, so that the job outlives whichever of them ends first.
// Reader and target belong to the filter until Run begins and to the worker until it has ended.
//
// Position and cancel flag are cleared at construction alone: one job serves one export. Given a
// new reader and target after its end it goes on at the position it has, which leaves a valid file
// without the frames before that position.
class WavExportJob {
 public:
  static constexpr std::int64_t kFramesPerBlock = 65536;

  void SetReader(IAudioReader* reader);
  // Closes the target there was. Without a valid handle the job has none.
  void SetTarget(FileHandle file);
  bool IsReady() const noexcept { return reader_ && file_.IsAttached(); }

  // Writes the whole file, closes it and lets go of the reader. Ends early when cancelled or out of
  // memory, with a valid file that holds what came before.
  void Run(std::int16_t bits, bool is_float) noexcept;

  // The calls below come from any thread, at any time.

  void Cancel() noexcept { cancelled_ = true; }
  std::int64_t Position() const noexcept { return position_; }
  std::int64_t Total() const noexcept { return total_; }

  // Calls `use` with the annotations, which the worker takes once the audio is written.
  template <class Use>
  auto WithAnnotations(Use&& use) {
    const std::lock_guard lock(annotations_mutex_);
    return std::forward<Use>(use)(annotations_);
  }

 private:
  // Begins the file and writes its samples; leaves "data" open.
  void WriteSamples(const WavFormat& format);

  RiffChunkWriter file_;
  ComPtr<IAudioReader> reader_;
  std::atomic<bool> cancelled_{false};
  std::atomic<std::int64_t> total_{0};
  std::atomic<std::int64_t> position_{0};
  std::mutex annotations_mutex_;
  WavAnnotations annotations_;
};

}  // namespace marlinda
