// RiffChunkWriter: writes the nested chunks of a RIFF file and fills in their sizes.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "export/byte_sink.h"
#include "export/little_endian.h"

namespace marlinda {

// Two oddities, kept because files written with them exist:
// - A chunk is padded to a multiple of 4 bytes, not of 2 as RIFF asks, and the padding counts in
// its
//   size.
// - Sizes are 32-bit and nothing checks them: in a file past 4 GiB they wrap. Only the fields wrap;
//   writing goes on at the true end, so no sample is overwritten.
//
// A write or seek that fails is not reported: the file is finished as far as it goes.
class RiffChunkWriter {
 public:
  // Takes the sink and puts it at position 0. What was attached before is closed as it stands.
  void Attach(std::unique_ptr<ByteSink> sink);
  bool IsAttached() const noexcept { return sink_ != nullptr; }

  void Write(std::span<const std::byte> bytes) noexcept;

  // Writes `id` and a size of 0; everything up to the matching EndChunk is the chunk's body.
  void BeginChunk(FourCC id);

  // Pads the innermost open chunk and fills in its size. Throws std::logic_error when none is open.
  void EndChunk();

  // Ends all open chunks, the outermost last, and closes the sink. Destruction closes the sink
  // alone and leaves the sizes of open chunks at 0.
  void Close() noexcept;

 private:
  struct OpenChunk {
    std::uint64_t body_start;
    bool has_header;
  };

  void SeekTo(std::uint64_t position) noexcept;
  void EndInnermost() noexcept;

  std::unique_ptr<ByteSink> sink_;
  std::vector<OpenChunk> open_chunks_;  // innermost last
};

}  // namespace marlinda
