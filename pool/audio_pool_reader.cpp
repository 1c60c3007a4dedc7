#include "pool/audio_pool_reader.h"

#include <algorithm>
#include <utility>

#include "core/sample_array.h"
#include "core/sample_converter.h"
#include "pool/file_access.h"
#include "pool/peak_builder.h"
#include "pool/storage.h"

namespace marlinda {
namespace {

// Handles have 32 significant bits, also in a 64-bit process.
HANDLE ToHandle(__int64 value) noexcept { return LongToHandle(static_cast<LONG>(value)); }

}  // namespace

STDMETHODIMP CAudioPoolReader::Create(IAudioPool* pPool, __int64 nAudioByteOffset,
                                      __int64 nPeakByteOffset, __int64 nByteCount,
                                      SHORT nBitsPerSample) {
  if (pPool == nullptr) return E_POINTER;
  return ComCall([&] {
    Region region;
    region.audio_offset = nAudioByteOffset;
    region.peak_offset = nPeakByteOffset;
    region.byte_count = nByteCount;
    region.bits_per_sample = nBitsPerSample;
    __int64 audio = 0;
    __int64 peak = 0;
    region.handles = pPool->GetFileHandles(&audio, &peak);
    region.audio_file = ToHandle(audio);
    region.peak_file = ToHandle(peak);
    pPool->GetFormat(&region.samples_per_sec, &region.channels);

    // The old pool is released last and without the lock: its destruction may take a while.
    ComPtr<IAudioPool> pool = pPool;
    const std::lock_guard lock(mutex_);
    pool_.Swap(pool);
    region_ = region;
    return S_OK;
  });
}

STDMETHODIMP CAudioPoolReader::ReadAudio(__int64 nSamplePos, SAFEARRAY* psaAudioData) {
  return ComCall([&]() -> HRESULT {
    SampleArrayView view;
    Check(view.Lock(psaAudioData));
    const std::lock_guard lock(mutex_);
    Check(region_.handles);
    if (!IsStorable(region_.bits_per_sample)) return E_INVALIDARG;
    const std::int64_t offset =
        ByteOffset(region_.audio_offset, region_.BytesPerFrame(), nSamplePos);
    if (region_.bits_per_sample != 32) return ReadPcm(offset, view.samples());
    return ReadAt(region_.audio_file, offset, std::as_writable_bytes(view.samples())).hr;
  });
}

HRESULT CAudioPoolReader::ReadPcm(std::int64_t offset, std::span<float> samples) {
  // At a width between the usual ones a code takes more bytes than the file has of it.
  const std::size_t width = PcmBytesPerSample(region_.bits_per_sample);
  const std::size_t stored =
      samples.size() * static_cast<std::size_t>(StoredBytes(region_.bits_per_sample));
  pcm_.resize(samples.size() * width);
  const ReadResult read = ReadAt(region_.audio_file, offset, std::span(pcm_).first(stored));
  if (FAILED(read.hr) && read.hr != HRESULT_FROM_WIN32(ERROR_HANDLE_EOF)) return read.hr;
  ConvertPcmToFloat(pcm_, samples, region_.bits_per_sample);
  std::ranges::fill(samples.subspan(read.count / width), 0.0F);
  return read.hr;
}

STDMETHODIMP CAudioPoolReader::ReadPeaks(__int64 nPeakPosition, SAFEARRAY* psaPeakData) {
  return ComCall([&]() -> HRESULT {
    SampleArrayView view;
    Check(view.Lock(psaPeakData));
    const std::lock_guard lock(mutex_);
    Check(region_.handles);
    const std::int64_t offset =
        ByteOffset(region_.peak_offset,
                   region_.channels * static_cast<std::int64_t>(sizeof(PeakRecord)), nPeakPosition);
    return ReadAt(region_.peak_file, offset, std::as_writable_bytes(view.samples())).hr;
  });
}

STDMETHODIMP CAudioPoolReader::GetSamplesPerPeak(LONG* pnSamplesPerPeak) {
  if (pnSamplesPerPeak == nullptr) return E_POINTER;
  *pnSamplesPerPeak = kFramesPerPeak;
  return S_OK;
}

STDMETHODIMP CAudioPoolReader::GetFormat(LONG* pnSamplesPerSec, SHORT* pnChannels) {
  if (pnSamplesPerSec == nullptr || pnChannels == nullptr) return E_POINTER;
  *pnSamplesPerSec = region_.samples_per_sec;
  *pnChannels = region_.channels;
  return S_OK;
}

STDMETHODIMP CAudioPoolReader::GetSampleCount(__int64* pnSamples) {
  if (pnSamples == nullptr) return E_POINTER;
  const std::int64_t bytes_per_frame = region_.BytesPerFrame();
  *pnSamples = bytes_per_frame < 1 ? 0 : region_.byte_count / bytes_per_frame;
  return S_OK;
}

STDMETHODIMP CAudioPoolReader::OpenDevice() { return pool_ ? pool_->Lock() : kNotCreated; }

STDMETHODIMP CAudioPoolReader::CloseDevice() { return pool_ ? pool_->Unlock() : kNotCreated; }

MARLINDA_DEFINE_CLASS(CAudioPoolReader)

}  // namespace marlinda
