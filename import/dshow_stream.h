// The sound of a file as a run of uncompressed blocks, decoded by the DirectShow filters of the
// system.
#pragma once

#include <windows.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "import/pcm_format.h"

namespace marlinda {

// Belongs to one thread, which is in a multithreaded apartment for as long as the stream lives. The
// graph behind it is released with it.
class DShowStream {
 public:
  // Null when no filter can decode the file or it has no sound.
  static std::unique_ptr<DShowStream> Open(const std::wstring& file_name);

  DShowStream(const DShowStream&) = delete;
  DShowStream& operator=(const DShowStream&) = delete;
  ~DShowStream();

  const PcmFormat& format() const noexcept { return format_; }

  // Frames by the duration that the filters report; 0 where they report none. Compressed files may
  // hold more or fewer.
  std::int64_t total_frames() const noexcept { return total_frames_; }

  // Puts the next whole frames into `block`. False at the end, which comes early after an error in
  // the graph, when it has delivered nothing for a minute, and once `cancelled` is set.
  bool Read(std::vector<std::byte>& block, const std::atomic<bool>& cancelled);

  // Everything has been read, to the end that the filters announced.
  bool has_ended_well() const noexcept { return ended_well_; }

 private:
  struct Graph;

  explicit DShowStream(std::unique_ptr<Graph> graph);

  std::unique_ptr<Graph> graph_;
  PcmFormat format_;
  std::int64_t total_frames_ = 0;
  bool running_ = false;
  bool ended_ = false;
  bool ended_well_ = false;
};

}  // namespace marlinda
