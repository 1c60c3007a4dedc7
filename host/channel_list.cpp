#include "host/channel_list.h"

#include <algorithm>
#include <bit>
#include <charconv>
#include <stdexcept>
#include <string>

namespace marlinda {
namespace {

constexpr int kMaxChannels = 32;

}  // namespace

std::uint32_t ParseChannelMask(std::string_view text) {
  std::uint32_t mask = 0;
  for (std::size_t begin = 0; begin <= text.size();) {
    const std::size_t end = std::min(text.find(',', begin), text.size());
    const std::string_view number = text.substr(begin, end - begin);
    int channel = -1;
    const auto parsed = std::from_chars(number.data(), number.data() + number.size(), channel);
    if (parsed.ec != std::errc() || parsed.ptr != number.data() + number.size() || channel < 0 ||
        channel >= kMaxChannels) {
      throw std::invalid_argument("\"" + std::string(text) +
                                  "\" is not a list of channels: write numbers such as 0,1");
    }
    mask |= std::uint32_t{1} << channel;
    begin = end + 1;
  }
  return mask;
}

std::vector<int> ChannelsOf(std::uint32_t mask, int channels) {
  std::vector<int> list;
  for (int channel = 0; channel < std::min(channels, kMaxChannels); ++channel) {
    if ((mask >> channel & 1U) != 0) list.push_back(channel);
  }
  return list;
}

std::string ChannelCount(int channels) {
  return std::to_string(channels) + (channels == 1 ? " channel" : " channels");
}

void RequireChannels(std::uint32_t mask, int channels) {
  const int highest = std::bit_width(mask) - 1;
  if (highest < channels) return;
  throw std::invalid_argument("there is no channel " + std::to_string(highest) +
                              ": the audio has " + std::to_string(channels) + ", numbered from 0");
}

}  // namespace marlinda
