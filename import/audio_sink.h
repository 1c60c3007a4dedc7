// The last filter of a DirectShow graph: takes uncompressed audio of any format through one input
// pin and hands it to the thread that decodes the file.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <optional>
#include <span>
#include <vector>

#include "core/com_ptr.h"
#include "dshow/graph_filter.h"
#include "import/pcm_format.h"

namespace marlinda {

// The graph's own threads deliver into the pin, one other thread takes blocks out. A delivery waits
// until its block has been taken, so the graph decodes no faster than it is read, and never by the
// clock.
class AudioSink final : public GraphFilter {
 public:
  static ComPtr<AudioSink> Make() { return new AudioSink; }

  IPin* pin() noexcept { return pins().front().get(); }

  // The format of the latest connection.
  std::optional<PcmFormat> format() const;

  enum class Outcome { kBlock, kEnded, kNothingYet };
  // Waits at most `milliseconds` for the next block of whole frames and puts it into `block`.
  Outcome Take(std::vector<std::byte>& block, DWORD milliseconds);

  // From now on deliveries are refused and none waits, so that the graph can be stopped.
  void Abandon();

  // Ends the wait of a delivery, too.
  STDMETHODIMP Stop() override;

 private:
  class Pin;

  AudioSink();
  ~AudioSink() override = default;

  HRESULT Deliver(std::span<const std::byte> bytes);
  HRESULT End();
  void SetFormat(const std::optional<PcmFormat>& format);
  void SetFlushing(bool flushing);

  mutable std::mutex mutex_;
  std::condition_variable changed_;
  // All below is guarded by the mutex.
  std::optional<PcmFormat> format_;
  std::vector<std::byte> block_;  // delivered and not yet taken
  bool has_block_ = false;
  bool flushing_ = false;
  bool ended_ = false;
  bool abandoned_ = false;
};

}  // namespace marlinda
