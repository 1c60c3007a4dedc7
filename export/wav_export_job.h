// WavExportJob: one export from reader to file, run by the worker thread of a CWavExportFilter.
#pragma once

#include <marlinda.h>

#include <cstdint>
#include <mutex>
#include <utility>

#include "core/com_ptr.h"
#include "core/filter_task.h"
#include "export/wav_file.h"
#include "export/wav_layout.h"

namespace marlinda {

// Reader and target belong to the filter until Run begins and to the worker until it has ended.
//
// Position and cancel flag are cleared at construction alone: one job serves one export. Given a
// new reader and target after its end it goes on at the position it has, which leaves a valid file
// without the frames before that position.
class WavExportJob : public TaskJob {
 public:
  static constexpr std::int64_t kFramesPerBlock = 65536;

  void SetReader(IAudioReader* reader);
  // Closes the target there was. Without a valid handle the job has none.
  void SetTarget(FileHandle file) noexcept { file_.Attach(std::move(file)); }
  bool IsReady() const noexcept { return reader_ && file_.IsOpen(); }

  // Writes the whole file, closes it and releases the reader. Ends early when cancelled or out of
  // memory, with a valid file that holds what came before.
  void Run(std::int16_t bits, bool is_float) noexcept;

  // Calls `use` with the annotations, from any thread. The worker takes them once the audio is
  // written.
  template <class Use>
  auto WithAnnotations(Use&& use) {
    const std::lock_guard lock(annotations_mutex_);
    return std::forward<Use>(use)(annotations_);
  }

 private:
  void WriteSamples(const WavFormat& format);

  WavFile file_;
  ComPtr<IAudioReader> reader_;
  std::mutex annotations_mutex_;
  WavAnnotations annotations_;
};

}  // namespace marlinda
