#include "host/timecode.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <limits>
#include <stdexcept>

namespace marlinda {
namespace {

constexpr std::int64_t kNanosecondsPerSecond = 1'000'000'000;
constexpr std::size_t kMostDecimals = 9;

[[noreturn]] void Refuse(std::string_view text, std::string_view reason) {
  throw std::invalid_argument("\"" + std::string(text) + "\" " + std::string(reason));
}

bool IsAllDigits(std::string_view text) {
  return text.find_first_not_of("0123456789") == std::string_view::npos;
}

// The number that `digits` spell; no digits are 0.
std::int64_t ParseDigits(std::string_view digits, std::string_view text) {
  std::int64_t value = 0;
  if (digits.empty()) return value;
  const auto parsed = std::from_chars(digits.data(), digits.data() + digits.size(), value);
  if (parsed.ec != std::errc()) Refuse(text, "is too large for a time");
  return value;
}

// Cuts `text` at its first colon and leaves what follows it in `text`.
std::string_view TakeUpToColon(std::string_view& rest, std::string_view whole,
                               std::string_view form) {
  const std::size_t colon = rest.find(':');
  if (colon == std::string_view::npos) Refuse(whole, "is not of the form " + std::string(form));
  const std::string_view head = rest.substr(0, colon);
  rest.remove_prefix(colon + 1);
  return head;
}

std::optional<Timecode> ParseOptional(std::string_view text) {
  if (text.empty()) return std::nullopt;
  return Timecode::Parse(text);
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
  const std::size_t point = text.find('.');
  const std::string_view whole = text.substr(0, point);
  const std::string_view decimals =
      point == std::string_view::npos ? std::string_view() : text.substr(point + 1);
  if (whole.size() + decimals.size() == 0 || !IsAllDigits(whole) || !IsAllDigits(decimals)) {
    Refuse(text, "is not a time: write seconds such as 1.5, or frames such as 44100f");
  }
  if (decimals.size() > kMostDecimals) Refuse(text, "has more than nine decimals");
  time.whole_ = ParseDigits(whole, text);
  time.nanoseconds_ = ParseDigits(decimals, text);
  for (std::size_t digit = decimals.size(); digit < kMostDecimals; ++digit) {
    time.nanoseconds_ *= 10;
  }
  return time;
}

std::int64_t Timecode::ToFrames(std::int32_t rate) const {
  if (is_frames_) return whole_;
  // In integers throughout: 0.1 s at 44100 Hz is frame 4410, whatever a binary fraction makes of
  // it.
  const std::int64_t rest =
      (nanoseconds_ * rate + kNanosecondsPerSecond / 2) / kNanosecondsPerSecond;
  if (whole_ > (std::numeric_limits<std::int64_t>::max() - rest) / rate) {
    throw std::invalid_argument("a time of " + std::to_string(whole_) + " s is too large");
  }
  return whole_ * rate + rest;
}

TimeRange ParseRange(std::string_view text) {
  std::string_view rest = text;
  const std::string_view begin = TakeUpToColon(rest, text, "BEGIN:END");
  return {ParseOptional(begin), ParseOptional(rest)};
}

FrameRange ResolveRange(const TimeRange& range, std::int64_t frames, std::int32_t rate) {
  const FrameRange resolved = {range.begin ? range.begin->ToFrames(rate) : 0,
                               range.end ? range.end->ToFrames(rate) : frames};
  if (resolved.begin >= frames || resolved.end > frames) {
    throw std::invalid_argument("the range reaches past the end of the audio (" +
                                Length(frames, rate) + ")");
  }
  if (resolved.begin >= resolved.end) throw std::invalid_argument("the range holds no frame");
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
  std::string_view rest = text;
  const std::string_view at = TakeUpToColon(rest, text, "AT:NAME");
  return {Timecode::Parse(at), std::string(rest)};
}

NamedRange ParseNamedRange(std::string_view text) {
  std::string_view rest = text;
  const std::string_view begin = TakeUpToColon(rest, text, "BEGIN:END:NAME");
  const std::string_view end = TakeUpToColon(rest, text, "BEGIN:END:NAME");
  return {{ParseOptional(begin), ParseOptional(end)}, std::string(rest)};
}

TimeSpan ParseSpan(std::string_view text) {
  std::string_view rest = text;
  const std::string_view at = TakeUpToColon(rest, text, "AT:SECONDS");
  return {Timecode::Parse(at), Timecode::Parse(rest)};
}

std::vector<Timecode> ParseTimes(std::string_view text) {
  std::vector<Timecode> times;
  for (std::size_t begin = 0; begin <= text.size();) {
    const std::size_t end = std::min(text.find(',', begin), text.size());
    times.push_back(Timecode::Parse(text.substr(begin, end - begin)));
    begin = end + 1;
  }
  return times;
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
