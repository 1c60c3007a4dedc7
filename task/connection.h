// Connection: one set-up of a CAudioConnector, from the source to the export filter.
#pragma once

#include <marlinda.h>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <span>

#include "core/com_ptr.h"
#include "core/scratch_array.h"
#include "task/converter_link.h"
#include "task/paced_queue.h"

namespace marlinda {

// Who takes part: a reader or an import filter at one end, an export filter at the other. None of
// them in the state before the first set-up, in which a connection is a plain queue.
struct Parties {
  ComPtr<IAudioReader> reader;
  ComPtr<IImportFilter> import_filter;
  ComPtr<ICoreTask> import_task;
  ComPtr<IExportFilter> export_filter;
  ComPtr<ICoreTask> export_task;
};

// Read runs on the export filter's thread, Write on the import filter's, everything else on the
// host's. A thread that is inside a connection shares its ownership, so that a new set-up, or the
// end of the connector, takes nothing away from under it.
class Connection {
 public:
  Connection() = default;
  // Asks the source for its format.
  Connection(Parties parties, const StreamFormat& target);
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  const StreamFormat& target() const noexcept { return target_; }

  // Starts the export and then the import, whatever comes of it.
  void Start();
  // Ends both: the export first, which leaves a valid file, then the import. Lets go of the
  // filters.
  void Cancel();
  // The same for what is still running, when another set-up takes this one's place. A filter that
  // has ended is left alone: it may be ready for its next run already.
  void Replace();
  // As the export task says. Once that has ended, ends the import and lets go of the filters.
  HRESULT QueryIsRunning(VARIANT_BOOL* running);
  // As the export task says; 1.0 when there is none.
  HRESULT GetProgress(float* progress);
  // The source's frames, at the target's rate.
  HRESULT GetSampleCount(__int64* count);
  bool HasRoom() const noexcept { return queue_.HasRoom(); }

  // S_FALSE and 0.0 for the rest when the source has stopped delivering.
  HRESULT Read(SAFEARRAY* array);
  // Waits for room first. Drops the samples once the connection has ended.
  HRESULT Write(SAFEARRAY* array);

 private:
  // A copy: the host's thread lets go of the originals.
  Parties Members() const;
  void ReleaseExport();
  void Release();
  void EndImport(const Parties& parties);

  // Reads the source's format and length and gets a converter to match. Does nothing once started.
  void LearnSource();
  StreamFormat SourceFormat() const;
  bool ExportIsRunning() const;

  // Both bring the queue to `wanted` samples; false when the source does not deliver them.
  bool PullSamples(IAudioReader* reader, std::size_t wanted);
  bool AwaitSamples(std::size_t wanted, int& timeouts);
  void PullBlock(IAudioReader* reader, const ScratchLease& block, const StreamFormat& format);
  void SilenceBeyondEnd(std::span<float> samples, __int64 first_frame, SHORT channels) const;
  // Puts a block of the source into the queue, converted where there is a converter.
  void Push(SAFEARRAY* array, std::span<const float> samples);
  bool HasWholeSource() const;
  // Gets the last frames out of the converter. False when there is none, or it had enough silence.
  bool PushSilence();

  const StreamFormat target_{};
  PacedQueue queue_;

  mutable std::mutex parties_mutex_;  // also of what the source says about itself
  Parties parties_;
  StreamFormat source_;
  __int64 source_frames_ = 0;

  std::mutex pull_mutex_;
  ScratchCache scratch_;
  __int64 read_position_ = 0;

  mutable std::mutex conversion_mutex_;
  ConverterLink converter_;
  std::uint64_t samples_in_ = 0;
  int silent_blocks_ = 0;

  std::atomic<bool> started_ = false;
  std::atomic<bool> export_was_seen_ = false;  // running
  std::atomic<bool> import_has_ended_ = false;
  std::atomic<bool> starved_ = false;  // a read waited in vain and nothing has come since
};

}  // namespace marlinda
