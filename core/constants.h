// Numbers that several folders share.
#pragma once

namespace marlinda {

// A peak holds the lowest and highest sample of this many frames, for each channel.
inline constexpr int kFramesPerPeak = 256;

// The last argument of IFormatConverter::SetUp. Every caller passes this value.
inline constexpr int kConverterMode = 151;

}  // namespace marlinda
