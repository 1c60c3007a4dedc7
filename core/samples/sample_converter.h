// Converts between the engine's float samples (full scale -1.0 to +1.0) and packed little-endian
// PCM. `bits` chooses the width: above 24 is 32-bit, 17 to 24 is 24-bit, below 9 is 8-bit
// (unsigned), the rest 16-bit.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace marlinda {

// Bytes per PCM sample at the width chosen by `bits`.
std::size_t PcmBytesPerSample(int bits) noexcept;

// Converts every sample of `source`; `destination` holds at least source.size() PCM samples.
//
// 8 and 16 bits scale by 127 and 32767 and round half up. 24 and 32 bits scale by 2^31 and
// truncate: +1.0 becomes 2^31, which does not fit and wraps to the most negative code. NaN becomes
// the most negative code of every width.
void ConvertFloatToPcm(std::span<const float> source, std::span<std::byte> destination,
                       int bits) noexcept;

// Converts PCM samples into all of `destination`; `source` holds at least as many samples.
//
// At 8 and 16 bits this is not the inverse of ConvertFloatToPcm: the 8-bit centre 128 reads as
// 1/127, and -32768 reads slightly below -1.0.
void ConvertPcmToFloat(std::span<const std::byte> source, std::span<float> destination,
                       int bits) noexcept;

}  // namespace marlinda
