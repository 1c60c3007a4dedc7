#include "host/cut_plan.h"

#include <limits>
#include <stdexcept>

namespace marlinda {
namespace {

// Runs `read` for every text of one option and adds the option's name to a refusal.
template <class Read>
void ForEach(const char* option, const std::vector<std::string>& texts, Read read) {
  for (const std::string& text : texts) {
    try {
      read(text);
    } catch (const std::invalid_argument& error) {
      throw std::invalid_argument(std::string(option) + " " + text + ": " + error.what());
    }
  }
}

void Lengthen(std::int64_t& length, std::int64_t by) {
  if (by > std::numeric_limits<std::int64_t>::max() - length) {
    throw std::invalid_argument("the result becomes too long");
  }
  length += by;
}

}  // namespace

void CheckSyntax(const CutRequest& request) {
  ForEach("--keep", request.keep, [](const std::string& text) { ParseRange(text); });
  ForEach("--silence", request.silences, [](const std::string& text) { ParseSpan(text); });
  ForEach("--label", request.labels, [](const std::string& text) { ParseNamedTime(text); });
  ForEach("--marker", request.markers, [](const std::string& text) { ParseNamedRange(text); });
}

CutPlan PlanCut(const CutRequest& request, std::int64_t source_frames, std::int32_t rate) {
  CutPlan plan;
  ForEach("--keep", request.keep, [&](const std::string& text) {
    plan.pieces.push_back(ResolveRange(ParseRange(text), source_frames, rate));
    Lengthen(plan.length, plan.pieces.back().end - plan.pieces.back().begin);
  });
  ForEach("--silence", request.silences, [&](const std::string& text) {
    const TimeSpan span = ParseSpan(text);
    const SilenceInsertion silence = {ResolvePosition(span.at, plan.length, rate),
                                      span.length.ToFrames(rate)};
    if (silence.length == 0) throw std::invalid_argument("the silence holds no frame");
    plan.silences.push_back(silence);
    Lengthen(plan.length, silence.length);
  });
  ForEach("--label", request.labels, [&](const std::string& text) {
    const NamedTime label = ParseNamedTime(text);
    plan.annotations.labels.push_back({ResolvePosition(label.at, plan.length, rate), label.name});
  });
  ForEach("--marker", request.markers, [&](const std::string& text) {
    const NamedRange marker = ParseNamedRange(text);
    const FrameRange frames = ResolveRange(marker.range, plan.length, rate);
    plan.annotations.markers.push_back({{frames.begin, frames.end}, marker.name});
  });
  return plan;
}

}  // namespace marlinda
