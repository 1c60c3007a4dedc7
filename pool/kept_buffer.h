// How much of a conversion buffer is kept between blocks.
#pragma once

#include <cstddef>
#include <vector>

namespace marlinda {

// Every ordinary block fits. What one huge block needed would otherwise be held for as long as the
// object lives, by every reader of a pool.
inline constexpr std::size_t kMostKeptBytes = std::size_t{1} << 22;

inline void DropIfLarge(std::vector<std::byte>& buffer) noexcept {
  if (buffer.capacity() > kMostKeptBytes) std::vector<std::byte>().swap(buffer);
}

}  // namespace marlinda
