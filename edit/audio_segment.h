// CAudioSegment: one entry of the segment list, a range of frames of a source.
#pragma once

#include <utility>

#include "core/section.h"

namespace marlinda {

// `Source` is a handle with value semantics whose copy holds one reference; a null handle is
// silence. The range is in the source's own frame numbering and never checked against its length.
template <class Source>
class CAudioSegment final : public CSection {
 public:
  CAudioSegment(Source handle, std::int64_t first, std::int64_t past_last)
      : CSection(first, past_last), source(std::move(handle)) {}

  Source source;
};

}  // namespace marlinda
