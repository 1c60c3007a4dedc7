// Converts between the engine's float samples (full scale -1.0 to +1.0) and packed little-endian
// PCM. `bits` chooses the width: up to 8 is 8-bit (unsigned), up to 16 is 16-bit, up to 24 is
// 24-bit, and more is 32-bit.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace marlinda {

// Bytes per PCM sample at the width chosen by `bits`.
std::size_t PcmBytesPerSample(int bits) noexcept;

// Converts every sample of `source`. `destination` must have room for source.size() PCM samples.
//
// At 8 and 16 bits, scales by 127 and 32767, rounds half up and clips. At 24 and 32 bits, scales by
// 2^31 and truncates. 24-bit codes are the upper 24 bits of 32-bit codes. Samples from +1.0 on
// become 2^31, which wraps to the most negative code. NaN becomes the most negative code.
void ConvertFloatToPcm(std::span<const float> source, std::span<std::byte> destination,
                       int bits) noexcept;

// Fills `destination`. `source` must hold at least destination.size() PCM samples.
//
// At 8 and 16 bits this is not the inverse of ConvertFloatToPcm. The 8-bit centre 128 becomes
// 1/127, and the 16-bit code -32768 becomes slightly less than -1.0.
void ConvertPcmToFloat(std::span<const std::byte> source, std::span<float> destination,
                       int bits) noexcept;

}  // namespace marlinda
