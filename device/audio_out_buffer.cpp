#include "device/audio_out_buffer.h"

#include <algorithm>
#include <atomic>
#include <utility>

namespace marlinda {

CAudioOutBuffer::CAudioOutBuffer(HWAVEOUT device, DWORD size, std::size_t capacity,
                                 std::vector<std::byte> storage)
    : device_(device), data_(std::move(storage)) {
  // An empty block is played as well, and drivers want an address.
  data_.resize(std::max<std::size_t>({size, capacity, 1}));
  header_.lpData = reinterpret_cast<LPSTR>(data_.data());
  header_.dwBufferLength = size;
  header_.dwLoops = 1;
  waveOutPrepareHeader(device_, &header_, sizeof header_);
}

CAudioOutBuffer::~CAudioOutBuffer() {
  if (header_.lpData != nullptr) waveOutUnprepareHeader(device_, &header_, sizeof header_);
}

std::vector<std::byte> CAudioOutBuffer::Retire() noexcept {
  waveOutUnprepareHeader(device_, &header_, sizeof header_);
  header_.lpData = nullptr;
  return std::move(data_);
}

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
