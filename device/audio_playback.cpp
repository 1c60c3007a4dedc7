#include "device/audio_playback.h"

#include <algorithm>
#include <chrono>
#include <limits>
#include <utility>

#include "core/samples/sample_converter.h"
#include "core/wave_format.h"
#include "device/device_format.h"
#include "device/level_meter.h"

namespace marlinda {
namespace {

constexpr DWORD kClosePollMilliSecs = 10;
// How often a waiting writer looks whether the device is still there. It wakes for each buffer
// besides.
constexpr DWORD kLookMilliSecs = 500;
constexpr ULONGLONG kLostAfterMilliSecs = 2000;

// Runs on a thread of the device. It only signals: any wave-out call from here could deadlock.
void CALLBACK PlaybackDoneCallback(HWAVEOUT, UINT message, DWORD_PTR event, DWORD_PTR, DWORD_PTR) {
  if (message == WOM_DONE) SetEvent(reinterpret_cast<HANDLE>(event));
}

}  // namespace

CAudioPlayback::CAudioPlayback() : done_event_(CreateEventW(nullptr, FALSE, TRUE, nullptr)) {
  format_ = DeviceFormat(0, 0, 16);
}

CAudioPlayback::~CAudioPlayback() {
  {
    const Guard lock(mutex_);
    Close();
  }
  writers_.SeeOut(done_event_.get());
  if (driver_keeps_event_) done_event_.Detach();
}

STDMETHODIMP CAudioPlayback::SetBufferLength(LONG nMilliSecs) {
  const Guard lock(mutex_);
  buffer_millisecs_ = static_cast<std::uint32_t>(nMilliSecs);
  return S_OK;
}

STDMETHODIMP CAudioPlayback::SetFormat(LONG nSamplesPerSec, SHORT nChannels, SHORT nBitsPerSample) {
  const Guard lock(mutex_);
  format_ = DeviceFormat(nSamplesPerSec, nChannels, nBitsPerSample);
  // The format has been stored all the same. Callers have always had to ignore this result, and it
  // is kept on purpose.
  return E_NOTIMPL;
}

STDMETHODIMP CAudioPlayback::GetPlaybackPos(__int64* nPlaybackPos) {
  if (nPlaybackPos == nullptr) return E_POINTER;
  const Guard lock(mutex_);
  auto position = static_cast<std::uint64_t>(pos_offset_);
  // The device's counter has 32 bits and is taken as it is, also when it wraps.
  if (device_ != nullptr) position += PlayedFrames();
  *nPlaybackPos = static_cast<std::int64_t>(position);
  return S_OK;
}

STDMETHODIMP CAudioPlayback::SetPosOffset(__int64 nOffset) {
  const Guard lock(mutex_);
  pos_offset_ = nOffset;
  return S_OK;
}

STDMETHODIMP CAudioPlayback::GetPosOffset(__int64* pnOffset) {
  if (pnOffset == nullptr) return E_POINTER;
  const Guard lock(mutex_);
  *pnOffset = pos_offset_;
  return S_OK;
}

STDMETHODIMP CAudioPlayback::Break() {
  const Guard lock(mutex_);
  if (device_ == nullptr) return S_OK;
  broken_ = true;
  if (waveOutReset(device_) != MMSYSERR_NOERROR) LetGo();
  // The device signals each buffer that it gives back; a lost one gives none, and the writer that
  // waits for it must wake all the same.
  SetEvent(done_event_.get());
  return S_OK;
}

STDMETHODIMP CAudioPlayback::SetDevice(ULONG nDeviceId) {
  const Guard lock(mutex_);
  device_id_ = nDeviceId;
  return S_OK;
}

STDMETHODIMP CAudioPlayback::GetOutputLevel(SHORT niChannel, float* pfOutputLevel) {
  if (pfOutputLevel == nullptr) return E_POINTER;
  const Guard lock(mutex_);
  *pfOutputLevel = 0.0F;
  if (output_levels_.empty()) return S_OK;
  const auto channel = static_cast<std::uint16_t>(niChannel);
  if (channel >= output_levels_.size()) return E_INVALIDARG;
  *pfOutputLevel = output_levels_[channel];
  return S_OK;
}

STDMETHODIMP CAudioPlayback::WriteAudio(SAFEARRAY* psaAudioData) {
  const CallsInside::Scope inside(writers_);
  return ComCall([&]() -> HRESULT {
    SampleArrayView block;
    Check(block.Lock(psaAudioData));
    Guard lock(mutex_);
    if (!WaitForRoom(lock)) return E_FAIL;
    Queue(block.samples());
    return S_OK;
  });
}

STDMETHODIMP CAudioPlayback::OpenDevice() {
  return ComCall([&]() -> HRESULT {
    const Guard lock(mutex_);
    // An open device would never be closed again once its handle is overwritten.
    Close();
    output_levels_.assign(format_.nChannels, 0.0F);
    if (!done_event_ || !IsPlausible(format_)) return E_FAIL;
    queue_limit_bytes_ = format_.nBlockAlign * buffer_millisecs_ * format_.nSamplesPerSec / 1000;
    queued_bytes_ = 0;
    bytes_per_sec_ = std::uint64_t{format_.nBlockAlign} * format_.nSamplesPerSec;
    open_format_ = format_;
    broken_ = false;
    ++opening_;

    const auto callback = reinterpret_cast<DWORD_PTR>(&PlaybackDoneCallback);
    const auto event = reinterpret_cast<DWORD_PTR>(done_event_.get());
    if (waveOutOpen(&device_, device_id_, &format_, callback, event, CALLBACK_FUNCTION) ==
        MMSYSERR_NOERROR) {
      return S_OK;
    }
    const WAVEFORMATEXTENSIBLE extensible = MakeExtensibleFormat(format_, IsFloat(format_), true);
    if (waveOutOpen(&device_, device_id_, &extensible.Format, callback, event, CALLBACK_FUNCTION) ==
        MMSYSERR_NOERROR) {
      return S_OK;
    }
    device_ = nullptr;
    return E_FAIL;
  });
}

STDMETHODIMP CAudioPlayback::CloseDevice() {
  const Guard lock(mutex_);
  Close();
  return S_OK;
}

STDMETHODIMP CAudioPlayback::SetFormat(LONG nSamplesPerSec, SHORT nChannels) {
  const Guard lock(mutex_);
  format_ = DeviceFormat(nSamplesPerSec, nChannels, static_cast<SHORT>(format_.wBitsPerSample));
  return S_OK;
}

STDMETHODIMP CAudioPlayback::QueryIsReady(LONG* pbReady) {
  if (pbReady == nullptr) return E_POINTER;
  const Guard lock(mutex_);
  Reap();
  CloseIfLost();
  *pbReady = pending_.empty() ? 1 : 0;
  return S_OK;
}

bool CAudioPlayback::WaitForRoom(Guard& lock) {
  const std::uint32_t opening = opening_;
  const auto takes_blocks = [&] { return device_ != nullptr && !broken_ && opening_ == opening; };
  while (takes_blocks() && queued_bytes_ > queue_limit_bytes_) {
    ++waiting_writers_;
    lock.unlock();
    WaitForSingleObject(done_event_.get(), kLookMilliSecs);
    lock.lock();
    --waiting_writers_;
    Reap();
    CloseIfLost();
  }
  // The event wakes one writer; whatever ended this wait may end another's.
  if (waiting_writers_ > 0) SetEvent(done_event_.get());
  return takes_blocks();
}

void CAudioPlayback::Queue(std::span<const float> samples) {
  const std::size_t channels = open_format_.nChannels;
  const std::size_t frames = channels == 0 ? 0 : samples.size() / channels;
  const std::size_t size = frames * open_format_.nBlockAlign;
  const int bits = open_format_.wBitsPerSample;
  if (size > static_cast<std::size_t>(std::numeric_limits<LONG>::max())) {
    throw HResultError(E_INVALIDARG);
  }
  samples = samples.first(frames * channels);
  // A width that is no multiple of 8 takes more bytes to convert than its block align tells.
  const std::size_t capacity = samples.size() * PcmBytesPerSample(bits);
  auto buffer = std::make_unique<CAudioOutBuffer>(device_, static_cast<DWORD>(size), capacity,
                                                  SpareStorage(std::max(size, capacity)));
  if (IsFloat(open_format_)) {
    std::copy_n(std::as_bytes(samples).data(), samples.size_bytes(), buffer->data().data());
  } else {
    ConvertFloatToPcm(samples, buffer->data(), bits);
  }
  buffer->peaks = ChannelPeaks(samples, channels);
  if (pending_.empty()) progress_.Restart();
  // No buffer that comes back may find too little memory.
  spare_.reserve(spare_.size() + pending_.size() + 1);
  pending_.push_back(std::move(buffer));
  queued_bytes_ += static_cast<std::uint32_t>(size);
  pending_.back()->Play();
}

std::vector<std::byte> CAudioPlayback::SpareStorage(std::size_t capacity) {
  if (spare_.empty()) return {};
  std::vector<std::byte> storage = std::move(spare_.back());
  spare_.pop_back();
  // Small blocks that keep the storage of large ones would hold many times the buffer length.
  if (storage.capacity() < capacity || storage.capacity() / 2 > capacity) return {};
  return storage;
}

void CAudioPlayback::Reap() {
  // Buffers come back in the order in which they were written.
  while (!pending_.empty() && pending_.front()->IsDone()) {
    const auto buffer = std::move(pending_.front());
    pending_.pop_front();
    queued_bytes_ -= buffer->size();
    ++returned_;
    output_levels_ = std::move(buffer->peaks);
    spare_.push_back(buffer->Retire());
  }
}

std::uint32_t CAudioPlayback::PlayedFrames() const {
  MMTIME time = {};
  time.wType = TIME_SAMPLES;
  const bool told = waveOutGetPosition(device_, &time, sizeof time) == MMSYSERR_NOERROR;
  return told ? static_cast<std::uint32_t>(time.u.sample) : 0;
}

void CAudioPlayback::CloseIfLost() {
  if (device_ == nullptr || pending_.empty()) return;
  // The position alone does not show it: a driver may count whole buffers only.
  const std::uint64_t progress = std::uint64_t{returned_} << 32 | PlayedFrames();
  const std::uint64_t milliseconds =
      std::uint64_t{pending_.front()->size()} * 1000 / bytes_per_sec_;
  const auto patience = StallWatch::kPatience + std::chrono::milliseconds(milliseconds);
  if (progress_.Look(progress, StallWatch::Clock::now()) > patience) Close();
}

void CAudioPlayback::Close() {
  if (device_ == nullptr) return;
  if (waveOutReset(device_) == MMSYSERR_NOERROR) WaitForBuffers();
  LetGo();
}

void CAudioPlayback::WaitForBuffers() {
  std::size_t left = pending_.size();
  for (ULONGLONG since = GetTickCount64();; Sleep(kClosePollMilliSecs)) {
    Reap();
    if (pending_.empty()) return;
    const ULONGLONG now = GetTickCount64();
    if (pending_.size() < left) since = now;
    left = pending_.size();
    if (now - since >= kLostAfterMilliSecs) return;
  }
}

void CAudioPlayback::LetGo() {
  if (waveOutClose(device_) != MMSYSERR_NOERROR) {
    // The driver may still read these buffers and signal the event, now or later: leaving them to
    // it is the one thing that cannot corrupt memory.
    for (auto& buffer : pending_) static_cast<void>(buffer.release());
    driver_keeps_event_ = true;
  }
  device_ = nullptr;
  pending_.clear();
  spare_.clear();
  queued_bytes_ = 0;
  output_levels_.clear();
  // A writer that waits finds the device closed; without one, no old signal may wake the next
  // writer.
  if (waiting_writers_ > 0) {
    SetEvent(done_event_.get());
  } else {
    ResetEvent(done_event_.get());
  }
}

MARLINDA_DEFINE_CLASS(CAudioPlayback)

}  // namespace marlinda
