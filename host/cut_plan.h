// Converts the options of "marlinda cut" (pieces, silence, labels and markers) to frames before any
// file is written.
#pragma once

#include <cstdint>
#include <limits>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "host/annotations.h"
#include "host/timecode.h"

namespace marlinda {

// Calls `read` for each value of an option. If `read` throws, adds the option and the value to the
// exception's message.
template <class Read>
void ForEachText(const char* option, const std::vector<std::string>& texts, Read read) {
  for (const std::string& text : texts) ForOption(option + (" " + text), read, text);
}

inline void Lengthen(std::int64_t& length, std::int64_t by) {
  if (by > std::numeric_limits<std::int64_t>::max() - length) {
    throw std::invalid_argument("the result becomes too long");
  }
  length += by;
}

// The options as written on the command line.
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

// Carry out a plan in this order: join the pieces, insert each silence into the result so far, then
// add labels and markers at positions of the finished result.
struct CutPlan {
  std::vector<FrameRange> pieces;
  std::vector<SilenceInsertion> silences;
  Annotations annotations;
  std::int64_t length = 0;
};

// Checks the options' syntax, so that a typing error is reported before a long import. Throws
// std::invalid_argument that names the option.
inline void CheckSyntax(const CutRequest& request) {
  ForEachText("--keep", request.keep, ParseRange);
  ForEachText("--silence", request.silences, ParseSpan);
  ForEachText("--label", request.labels, ParseNamedTime);
  ForEachText("--marker", request.markers, ParseNamedRange);
}

// Makes the plan. If a range is empty or backward, or a position lies outside the audio, throws a
// std::invalid_argument that names the option. Nothing is clipped.
inline CutPlan PlanCut(const CutRequest& request, std::int64_t source_frames, std::int32_t rate) {
  CutPlan plan;
  ForEachText("--keep", request.keep, [&](std::string_view text) {
    plan.pieces.push_back(ResolveRange(ParseRange(text), source_frames, rate));
    Lengthen(plan.length, plan.pieces.back().end - plan.pieces.back().begin);
  });
  ForEachText("--silence", request.silences, [&](std::string_view text) {
    const TimeSpan span = ParseSpan(text);
    const SilenceInsertion silence = {ResolvePosition(span.at, plan.length, rate),
                                      span.length.ToFrames(rate)};
    if (silence.length == 0) throw std::invalid_argument("the silence holds no frame");
    plan.silences.push_back(silence);
    Lengthen(plan.length, silence.length);
  });
  ForEachText("--label", request.labels, [&](std::string_view text) {
    const NamedTime label = ParseNamedTime(text);
    plan.annotations.labels.push_back({ResolvePosition(label.at, plan.length, rate), label.name});
  });
  ForEachText("--marker", request.markers, [&](std::string_view text) {
    const NamedRange marker = ParseNamedRange(text);
    const FrameRange frames = ResolveRange(marker.range, plan.length, rate);
    plan.annotations.markers.push_back({{frames.begin, frames.end}, marker.name});
  });
  return plan;
}

}  // namespace marlinda
