// Channels as a user lists them and as a mask, bit 0 for channel 0.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace marlinda {

// "0,1": channel numbers from 0 to 31 with commas between them; naming one twice changes nothing.
// Throws std::invalid_argument with a reason in words.
std::uint32_t ParseChannelMask(std::string_view text);

// The channels of the mask that audio of so many channels has.
std::vector<int> ChannelsOf(std::uint32_t mask, int channels);

// "1 channel", "2 channels".
std::string ChannelCount(int channels);

// Throws std::invalid_argument when the mask names a channel that the audio does not have.
void RequireChannels(std::uint32_t mask, int channels);

}  // namespace marlinda
