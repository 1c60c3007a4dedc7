// What a cut does, worked out in frames before anything is touched: which pieces are joined, where
// silence goes, where labels and markers lie in the result.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "host/annotations.h"
#include "host/timecode.h"

namespace marlinda {

// The options as they were written on the command line.
struct CutRequest {
  std::vector<std::string> keep = {};      // BEGIN:END
  std::vector<std::string> silences = {};  // AT:SECONDS
  std::vector<std::string> labels = {};    // AT:NAME
  std::vector<std::string> markers = {};   // BEGIN:END:NAME
};

struct SilenceInsertion {
  std::int64_t at = 0;
  std::int64_t length = 0;
};

// To be carried out in this order: the pieces are joined, each silence is inserted into what is
// there by then, and labels and markers lie in the finished result.
struct CutPlan {
  std::vector<FrameRange> pieces;
  std::vector<SilenceInsertion> silences;
  Annotations annotations;
  std::int64_t length = 0;
};

// Reads the options as far as that is possible without the audio, so that a slip of the pen is
// reported before a long import. Throws std::invalid_argument with a sentence naming the option.
void CheckSyntax(const CutRequest& request);

// Throws std::invalid_argument with a sentence naming the option, also for a range that is empty or
// backward and for a position outside the audio: nothing is moved or clipped silently.
CutPlan PlanCut(const CutRequest& request, std::int64_t source_frames, std::int32_t rate);

}  // namespace marlinda
