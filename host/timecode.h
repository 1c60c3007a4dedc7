// Times as a user writes them: seconds such as 1.5, times such as 1:02:03.5, or frames with an f
// such as 44100f.
#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace marlinda {

// A time that was written in seconds or in frames; which frame seconds mean depends on the rate.
class Timecode {
 public:
  // "SECONDS", "MINUTES:SECONDS" or "HOURS:MINUTES:SECONDS" with at most nine decimals, where
  // minutes and seconds behind a colon have two digits; or digits and an f. No signs, no exponents.
  // Throws std::invalid_argument with a reason in words.
  static Timecode Parse(std::string_view text);

  // The frame nearest to the time, the later one of two that are equally near. `rate` is positive.
  // Throws std::invalid_argument when the frame does not fit in 64 bits.
  std::int64_t ToFrames(std::int32_t rate) const;

 private:
  std::int64_t whole_ = 0;  // seconds or frames
  std::int64_t nanoseconds_ = 0;
  bool is_frames_ = false;
};

// A range whose missing ends mean the start and the end of the audio.
struct TimeRange {
  std::optional<Timecode> begin;
  std::optional<Timecode> end;
};

// "BEGIN:END"; either side may be empty. A text that can be cut at more than one colon is refused.
// Throws std::invalid_argument.
TimeRange ParseRange(std::string_view text);

// The values of --from and --to; either may be empty. The reason of a refusal names the option.
TimeRange ParseFromTo(std::string_view from, std::string_view to);

// Calls `parse` and puts the option's name before the reason of a refusal.
template <class Parse>
auto ForOption(const char* option, Parse parse, std::string_view text) {
  try {
    return parse(text);
  } catch (const std::invalid_argument& error) {
    throw std::invalid_argument(std::string(option) + ": " + error.what());
  }
}

struct FrameRange {
  std::int64_t begin = 0;
  std::int64_t end = 0;  // exclusive
};

// The frames of a range, or the frame of a position, in audio of so many frames. A range that is
// empty, backward or reaches past the end is refused, and so is a position past the end: nothing is
// moved or clipped silently. Throws std::invalid_argument.
FrameRange ResolveRange(const TimeRange& range, std::int64_t frames, std::int32_t rate);
std::int64_t ResolvePosition(const Timecode& at, std::int64_t frames, std::int32_t rate);

// A time and the text after its colon: "AT:NAME". The name may hold colons; the time is the longest
// that can be read. Throws std::invalid_argument.
struct NamedTime {
  Timecode at;
  std::string name;
};
NamedTime ParseNamedTime(std::string_view text);

// "BEGIN:END:NAME". Throws std::invalid_argument.
struct NamedRange {
  TimeRange range;
  std::string name;
};
NamedRange ParseNamedRange(std::string_view text);

// "AT:LENGTH". Throws std::invalid_argument.
struct TimeSpan {
  Timecode at;
  Timecode length;
};
TimeSpan ParseSpan(std::string_view text);

// Times with commas between them: "1,2.5,44100f". Throws std::invalid_argument.
std::vector<Timecode> ParseTimes(std::string_view text);

// "H:MM:SS.mmm", rounded down to the millisecond. A rate that is not positive gives "unknown".
std::string FormatDuration(std::int64_t frames, std::int32_t rate);

}  // namespace marlinda
