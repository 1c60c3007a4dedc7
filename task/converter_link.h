// The external format converter, as the connector uses it.
#pragma once

#include <converter.h>

#include <cstddef>

#include "core/com_ptr.h"
#include "task/paced_queue.h"

namespace marlinda {

struct StreamFormat {
  LONG rate = 0;
  SHORT channels = 0;

  bool IsKnown() const noexcept { return rate > 0 && channels > 0; }
  bool operator==(const StreamFormat&) const = default;
};

class ConverterLink {
 public:
  ConverterLink() = default;

  // Creates and readies a converter. Where that fails there is none, and nobody is told: samples
  // then pass unchanged.
  ConverterLink(const StreamFormat& source, const StreamFormat& target);

  explicit operator bool() const noexcept { return converter_.Get() != nullptr; }

  // Puts what the converter makes of the block into the queue: nothing when it fails or gives no
  // array of floats.
  void Pass(SAFEARRAY* block, PacedQueue& queue);

  // The same for so many samples of silence, which push out what the converter holds back.
  void PassSilence(std::size_t samples, PacedQueue& queue);

 private:
  ComPtr<IFormatConverter> converter_;
};

}  // namespace marlinda
