// The widths in which the pool stores samples.
#pragma once

namespace marlinda {

// Below 8 bits a sample would take no bytes, above 32 more than it has.
constexpr bool IsStorable(int bits) noexcept { return bits >= 8 && bits <= 32; }

}  // namespace marlinda
