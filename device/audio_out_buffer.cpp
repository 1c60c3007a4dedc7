#include "device/audio_out_buffer.h"

#include <algorithm>
#include <atomic>

namespace marlinda {

CAudioOutBuffer::CAudioOutBuffer(HWAVEOUT device, DWORD size, std::size_t capacity)
    : device_(device), data_(std::max<std::size_t>({size, capacity, 1})) {
  // An empty block is played as well, and drivers want an address.
  header_.lpData = reinterpret_cast<LPSTR>(data_.data());
  header_.dwBufferLength = size;
  header_.dwLoops = 1;
  waveOutPrepareHeader(device_, &header_, sizeof header_);
}

CAudioOutBuffer::~CAudioOutBuffer() { waveOutUnprepareHeader(device_, &header_, sizeof header_); }

void CAudioOutBuffer::Play() noexcept {
  if (waveOutWrite(device_, &header_, sizeof header_) != MMSYSERR_NOERROR) {
    header_.dwFlags |= WHDR_DONE;
  }
}

bool CAudioOutBuffer::IsDone() const noexcept {
  // The device sets the flag on a thread of its own.
  const volatile DWORD& flags = header_.dwFlags;
  const bool done = (flags & WHDR_DONE) != 0;
  std::atomic_thread_fence(std::memory_order_acquire);
  return done;
}

}  // namespace marlinda
