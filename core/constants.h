// Numbers that several folders share.
#pragma once

namespace marlinda {

// Frames per peak.
inline constexpr int kFramesPerPeak = 256;

// The last argument of IFormatConverter::SetUp. Every caller passes this value.
inline constexpr int kConverterMode = 151;

}  // namespace marlinda
