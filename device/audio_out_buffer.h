// One block of samples on its way through the wave-out device.
#pragma once

#include <windows.h>
// After windows.h.
#include <mmsystem.h>

#include <cstddef>
#include <span>
#include <vector>

namespace marlinda {

class CAudioOutBuffer {
 public:
  // Holds `size` bytes to be played; there is room for `capacity` bytes, the greater of the two
  // counts.
  CAudioOutBuffer(HWAVEOUT device, DWORD size, std::size_t capacity);
  virtual ~CAudioOutBuffer();
  CAudioOutBuffer(const CAudioOutBuffer&) = delete;
  CAudioOutBuffer& operator=(const CAudioOutBuffer&) = delete;

  std::span<std::byte> data() noexcept { return data_; }
  DWORD size() const noexcept { return header_.dwBufferLength; }

  // Hands the buffer to the device. A buffer that the device refuses counts as played, so that
  // nobody waits for it.
  void Play() noexcept;
  bool IsDone() const noexcept;

  // The largest sample of each channel, shown as the output level once the buffer has been played.
  std::vector<float> peaks;

 private:
  HWAVEOUT device_;
  std::vector<std::byte> data_;
  WAVEHDR header_ = {};
};

}  // namespace marlinda
