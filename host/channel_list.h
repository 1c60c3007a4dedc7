// Converts channel lists on the command line to masks. Bit 0 of a mask stands for channel 0.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace marlinda {

// Parses channel numbers from 0 to 31, separated by commas: "0,1". Duplicates are ignored. Throws
// std::invalid_argument with the reason.
std::uint32_t ParseChannelMask(std::string_view text);

// Returns the mask's channels below `channels`.
std::vector<int> ChannelsOf(std::uint32_t mask, int channels);

// Returns text such as "1 channel" or "2 channels".
std::string ChannelCount(int channels);

// Throws std::invalid_argument if the mask contains a channel that the audio lacks.
void RequireChannels(std::uint32_t mask, int channels);

}  // namespace marlinda
