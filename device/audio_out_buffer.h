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
  // counts. Makes use of `storage`, whatever it held.
  CAudioOutBuffer(HWAVEOUT device, DWORD size, std::size_t capacity,
                  std::vector<std::byte> storage = {});
  virtual ~CAudioOutBuffer();
  CAudioOutBuffer(const CAudioOutBuffer&) = delete;
  CAudioOutBuffer& operator=(const CAudioOutBuffer&) = delete;

  std::span<std::byte> data() noexcept { return data_; }
  DWORD size() const noexcept { return header_.dwBufferLength; }

  // Hands the buffer to the device. A buffer that the device refuses counts as played, so that
  // nobody waits for it.
  void Play() noexcept;
  bool IsDone() const noexcept;
  // Takes the buffer, once done, from the device; its storage may serve another one.
  std::vector<std::byte> Retire() noexcept;

  // The largest sample of each channel, shown as the output level once the buffer has been played.
  std::vector<float> peaks;

 private:
  HWAVEOUT device_;
  std::vector<std::byte> data_;
  WAVEHDR header_ = {};
};

}  // namespace marlinda
