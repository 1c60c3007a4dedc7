// Parses the times of a command line: seconds such as 1.5, times such as 1:02:03.5, or frames such
// as 44100f.
#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace marlinda {

// A time in seconds or in frames. Converting seconds to frames needs a sample rate.
class Timecode {
 public:
  // Parses "SECONDS", "MINUTES:SECONDS" or "HOURS:MINUTES:SECONDS" with at most nine decimals, or
  // "FRAMESf". Minutes and seconds after a colon have two digits. Signs and exponents are not
  // allowed. Throws std::invalid_argument with the reason.
  static Timecode Parse(std::string_view text);

  // Returns the nearest frame, or the later of two equally near frames. `rate` must be positive.
  // Throws std::invalid_argument if the frame does not fit in 64 bits.
  std::int64_t ToFrames(std::int32_t rate) const;

 private:
  std::int64_t whole_ = 0;  // seconds or frames
  std::int64_t nanoseconds_ = 0;
  bool is_frames_ = false;
};

// A range of time. A side without a value means the start or the end of the audio.
struct TimeRange {
  std::optional<Timecode> begin;
  std::optional<Timecode> end;
  std::string typed = {};  // for messages: the options as typed, then a space
};

// Parses "BEGIN:END"; either side may be empty. Throws std::invalid_argument if the text is not of
// this form or if more than one of its colons splits it into two times.
TimeRange ParseRange(std::string_view text);

// Parses the values of --from and --to; either may be empty. Failures name the option.
TimeRange ParseFromTo(std::string_view from, std::string_view to);

// Calls `parse`. If `parse` throws, adds the option's name to the exception's message.
template <class Parse>
auto ForOption(const std::string& option, Parse parse, std::string_view text) {
  try {
    return parse(text);
  } catch (const std::invalid_argument& error) {
    throw std::invalid_argument(option + ": " + error.what());
  }
}

struct FrameRange {
  std::int64_t begin = 0;
  std::int64_t end = 0;  // exclusive
};

// Resolve a range or position in audio of `frames` frames. Throw std::invalid_argument if it lies
// past the end, or if the range is empty or backward. Nothing is clipped.
FrameRange ResolveRange(const TimeRange& range, std::int64_t frames, std::int32_t rate);
std::int64_t ResolvePosition(const Timecode& at, std::int64_t frames, std::int32_t rate);

// Parses "AT:NAME". The name may contain colons: the time is the longest prefix that is a time.
// Throws std::invalid_argument.
struct NamedTime {
  Timecode at;
  std::string name;
};
NamedTime ParseNamedTime(std::string_view text);

// Parses "BEGIN:END:NAME". Throws std::invalid_argument.
struct NamedRange {
  TimeRange range;
  std::string name;
};
NamedRange ParseNamedRange(std::string_view text);

// Parses "AT:LENGTH". Throws std::invalid_argument.
struct TimeSpan {
  Timecode at;
  Timecode length;
};
TimeSpan ParseSpan(std::string_view text);

// Parses comma-separated times such as "1,2.5,44100f". Throws std::invalid_argument.
std::vector<Timecode> ParseTimes(std::string_view text);

// Returns "H:MM:SS.mmm", rounded down, or "unknown" if `frames` < 0 or `rate` <= 0.
std::string FormatDuration(std::int64_t frames, std::int32_t rate);

}  // namespace marlinda
