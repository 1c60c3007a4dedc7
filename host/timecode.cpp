#include "host/timecode.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <limits>
#include <stdexcept>
#include <utility>

namespace marlinda {
namespace {

constexpr std::int64_t kNanosecondsPerSecond = 1'000'000'000;
constexpr std::size_t kMaxDecimals = 9;

[[noreturn]] void Refuse(std::string_view text, std::string_view reason) {
  throw std::invalid_argument("\"" + std::string(text) + "\" " + std::string(reason));
}

bool IsAllDigits(std::string_view text) {
  return text.find_first_not_of("0123456789") == std::string_view::npos;
}

// Parses `digits`, a part of `text`. Empty digits mean 0. Failures quote `text`.
std::int64_t ParseDigits(std::string_view digits, std::string_view text) {
  std::int64_t value = 0;
  if (digits.empty()) return value;
  const auto parsed = std::from_chars(digits.data(), digits.data() + digits.size(), value);
  if (parsed.ec != std::errc()) Refuse(text, "is too large for a time");
  return value;
}

[[noreturn]] void RefuseTime(std::string_view text) {
  Refuse(text,
         "is not a time: write seconds such as 1.5, a time such as 1:02:03.5, or frames such "
         "as 44100f");
}

// Parses "SECONDS", "MINUTES:SECONDS" or "HOURS:MINUTES:SECONDS" and returns seconds.
std::int64_t ParseClock(std::string_view clock, std::string_view text) {
  constexpr std::size_t kMaxHourDigits = 12;
  const std::size_t first = std::min(clock.find(':'), clock.size());
  if (!IsAllDigits(clock.substr(0, first))) RefuseTime(text);
  if (first == clock.size()) return ParseDigits(clock, text);
  const std::string_view rest = clock.substr(first);  // ":SS" or ":MM:SS"
  if (first == 0 || (rest.size() != 3 && rest.size() != 6)) RefuseTime(text);
  if (first > kMaxHourDigits) Refuse(text, "is too large for a time");
  std::int64_t seconds = ParseDigits(clock.substr(0, first), text);
  for (std::size_t at = 0; at < rest.size(); at += 3) {
    const std::string_view digits = rest.substr(at + 1, 2);
    if (rest[at] != ':' || !IsAllDigits(digits) || digits[0] > '5') RefuseTime(text);
    seconds = seconds * 60 + ParseDigits(digits, text);
  }
  return seconds;
}

std::optional<Timecode> ParseOptional(std::string_view text) {
  if (text.empty()) return std::nullopt;
  return Timecode::Parse(text);
}

bool IsTime(std::string_view text, bool may_be_empty) {
  try {
    if (text.empty()) return may_be_empty;
    Timecode::Parse(text);
    return true;
  } catch (const std::invalid_argument&) {
    return false;
  }
}

using TwoTexts = std::pair<std::string_view, std::string_view>;

TwoTexts CutAt(std::string_view text, std::size_t colon) {
  return {text.substr(0, colon), text.substr(colon + 1)};
}

// Splits "TIME:TIME". Times may contain colons, so every colon is tried. Returns nothing if no
// colon has a time on each side.
std::optional<TwoTexts> CutTimes(std::string_view text, bool may_be_empty) {
  std::optional<TwoTexts> found;
  for (auto colon = text.find(':'); colon != text.npos; colon = text.find(':', colon + 1)) {
    const TwoTexts times = CutAt(text, colon);
    if (!IsTime(times.first, may_be_empty) || !IsTime(times.second, may_be_empty)) continue;
    if (found) Refuse(text, "is ambiguous: write the times in seconds");
    found = times;
  }
  return found;
}

// Splits as CutTimes does, but throws if CutTimes returns nothing. The reason names the part that
// is not a time.
TwoTexts RequireTimes(std::string_view text, bool may_be_empty, const char* form) {
  const auto times = CutTimes(text, may_be_empty);
  if (times) return *times;
  const std::size_t colon = text.find(':');
  if (colon == text.npos) Refuse(text, "is not of the form " + std::string(form));
  const TwoTexts parts = CutAt(text, colon);
  RefuseTime(IsTime(parts.first, may_be_empty) ? parts.second : parts.first);
}

std::string Length(std::int64_t frames, std::int32_t rate) {
  return std::to_string(frames) + " frames, " + FormatDuration(frames, rate);
}

}  // namespace

Timecode Timecode::Parse(std::string_view text) {
  Timecode time;
  if (text.ends_with('f')) {
    const std::string_view digits = text.substr(0, text.size() - 1);
    if (digits.empty() || !IsAllDigits(digits)) Refuse(text, "is not a number of frames");
    time.whole_ = ParseDigits(digits, text);
    time.is_frames_ = true;
    return time;
  }
  const std::size_t point = std::min(text.find('.'), text.size());
  const std::string_view whole = text.substr(0, point);
  const std::string_view decimals = point < text.size() ? text.substr(point + 1) : "";
  if (whole.size() + decimals.size() == 0 || !IsAllDigits(decimals)) RefuseTime(text);
  if (decimals.size() > kMaxDecimals) Refuse(text, "has more than nine decimals");
  time.whole_ = ParseClock(whole, text);
  time.nanoseconds_ = ParseDigits(decimals, text);
  for (std::size_t digit = decimals.size(); digit < kMaxDecimals; ++digit) {
    time.nanoseconds_ *= 10;
  }
  return time;
}

std::int64_t Timecode::ToFrames(std::int32_t rate) const {
  if (is_frames_) return whole_;
  // Integers only, so that 0.1 s at 44100 Hz is exactly frame 4410.
  const std::int64_t rest =
      (nanoseconds_ * rate + kNanosecondsPerSecond / 2) / kNanosecondsPerSecond;
  if (whole_ > (std::numeric_limits<std::int64_t>::max() - rest) / rate) {
    throw std::invalid_argument("a time of " + std::to_string(whole_) + " s is too large");
  }
  return whole_ * rate + rest;
}

TimeRange ParseRange(std::string_view text) {
  const auto [begin, end] = RequireTimes(text, true, "BEGIN:END");
  return {ParseOptional(begin), ParseOptional(end)};
}

TimeRange ParseFromTo(std::string_view from, std::string_view to) {
  const auto typed = [](const std::string& option, std::string_view text) {
    return text.empty() ? "" : option + std::string(text) + " ";
  };
  return {ForOption("--from", ParseOptional, from), ForOption("--to", ParseOptional, to),
          typed("--from ", from) + typed("--to ", to)};
}

FrameRange ResolveRange(const TimeRange& range, std::int64_t frames, std::int32_t rate) {
  const FrameRange resolved = {range.begin ? range.begin->ToFrames(rate) : 0,
                               range.end ? range.end->ToFrames(rate) : frames};
  if (resolved.begin >= frames || resolved.end > frames) {
    throw std::invalid_argument("the range " + range.typed + "reaches past the end of the audio (" +
                                Length(frames, rate) + ")");
  }
  if (resolved.begin >= resolved.end) {
    throw std::invalid_argument("the range " + range.typed + "holds no frame");
  }
  return resolved;
}

std::int64_t ResolvePosition(const Timecode& at, std::int64_t frames, std::int32_t rate) {
  const std::int64_t position = at.ToFrames(rate);
  if (position > frames) {
    throw std::invalid_argument("the position lies past the end of the audio (" +
                                Length(frames, rate) + ")");
  }
  return position;
}

NamedTime ParseNamedTime(std::string_view text) {
  // Try the last colon first, to find the longest prefix that is a time.
  for (auto colon = text.rfind(':'); colon != text.npos; colon = text.rfind(':', colon - 1)) {
    const auto [at, name] = CutAt(text, colon);
    if (IsTime(at, false)) return {Timecode::Parse(at), std::string(name)};
    if (colon == 0) break;
  }
  Refuse(text, "is not of the form AT:NAME");
}

NamedRange ParseNamedRange(std::string_view text) {
  for (auto colon = text.rfind(':'); colon != text.npos; colon = text.rfind(':', colon - 1)) {
    const auto [range, name] = CutAt(text, colon);
    if (const auto times = CutTimes(range, true)) {
      return {{ParseOptional(times->first), ParseOptional(times->second)}, std::string(name)};
    }
    if (colon == 0) break;
  }
  Refuse(text, "is not of the form BEGIN:END:NAME");
}

TimeSpan ParseSpan(std::string_view text) {
  const auto [at, length] = RequireTimes(text, false, "AT:SECONDS");
  return {Timecode::Parse(at), Timecode::Parse(length)};
}

std::vector<Timecode> ParseTimes(std::string_view text) {
  std::vector<Timecode> times;
  for (;;) {
    const std::size_t comma = text.find(',');
    times.push_back(Timecode::Parse(text.substr(0, comma)));
    if (comma == std::string_view::npos) return times;
    text.remove_prefix(comma + 1);
  }
}

std::string FormatDuration(std::int64_t frames, std::int32_t rate) {
  if (rate <= 0 || frames < 0) return "unknown";
  const std::int64_t seconds = frames / rate;
  const auto milliseconds = static_cast<int>(frames % rate * 1000 / rate);
  char text[48];
  std::snprintf(text, sizeof text, "%lld:%02d:%02d.%03d", static_cast<long long>(seconds / 3600),
                static_cast<int>(seconds / 60 % 60), static_cast<int>(seconds % 60), milliseconds);
  return text;
}

}  // namespace marlinda
