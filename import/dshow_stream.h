// The sound of a file as a run of uncompressed blocks, decoded by the DirectShow filters of the
// system.
#pragma once

#include <windows.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "core/worker_thread.h"
#include "import/pcm_format.h"

namespace marlinda {

// Belongs to one thread. The graph is built, run and released on a thread of the stream's own,
// because it must not live in the apartment of a host, and because some decoders wait for ever for
// the missing part of a damaged file. A decoder that does not answer for fifteen seconds is given
// up: its thread is left behind and keeps the module loaded.
//
// A decoder without a threading model of its own is made on the host's first thread. Therefore
// Open and the destructor serve the calls that come to the apartment of the thread that waits.
class DShowStream {
 public:
  // Null when no filter can decode the file, or it has no sound.
  static std::unique_ptr<DShowStream> Open(const std::wstring& file_name);

  ~DShowStream();

  const PcmFormat& format() const noexcept { return format_; }

  // Frames by the duration that the filters report; 0 where they report none. Compressed files may
  // hold more or fewer.
  std::int64_t total_frames() const noexcept { return total_frames_; }

  // Puts the next whole frames into `block`. False at the end, which comes early after an error in
  // the graph, when it has delivered nothing for fifteen seconds, and once `cancelled` is set.
  bool Read(std::vector<std::byte>& block, const std::atomic<bool>& cancelled);

  // Everything has been read, to the end that the filters announced.
  bool has_ended_well() const noexcept { return ended_well_; }

 private:
  struct Job;

  DShowStream() = default;

  std::shared_ptr<Job> job_;
  WorkerThread worker_;
  PcmFormat format_;
  std::int64_t total_frames_ = 0;
  bool ended_ = false;
  bool ended_well_ = false;
};

}  // namespace marlinda
