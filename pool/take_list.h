// The takes of a pool and the cursor that walks back over them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace marlinda {

// One run of audio in the pool's files; the numbers are byte offsets.
struct PoolTake {
  std::int64_t audio_begin;
  std::int64_t audio_end;  // just past the last sample
  std::int64_t peak_begin;
  std::int64_t peak_end;  // where the next take's peaks start
  friend bool operator==(const PoolTake&, const PoolTake&) = default;
};

// Takes in the order in which they were closed. The cursor stays on its take while others are
// added.
class TakeList {
 public:
  void Add(const PoolTake& take) { takes_.push_back(take); }

  void AimAtLast() noexcept { reached_ = takes_.size(); }
  void StepBack() noexcept {
    if (reached_ > 0) --reached_;
  }
  // The take under the cursor; null before AimAtLast and when the cursor has run past the first
  // take.
  const PoolTake* Current() const noexcept {
    return reached_ == 0 ? nullptr : &takes_[reached_ - 1];
  }

 private:
  std::vector<PoolTake> takes_;
  std::size_t reached_ = 0;  // takes from the first to the one under the cursor
};

}  // namespace marlinda
