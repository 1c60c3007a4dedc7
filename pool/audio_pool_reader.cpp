#include "pool/audio_pool_reader.h"

#include "core/frame_math.h"
#include "core/sample_array.h"
#include "pool/peak_builder.h"
#include "pool/pool_file.h"

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
    ComPtr<IAudioPool> pool = pPool;
    {
      const std::lock_guard lock(mutex_);
      pool_.Swap(pool);
      region_ = {};
      peak_groups_.reset();
    }
    // Without the lock: the destruction of the old pool may take a while.
    pool.Reset();

    Region region = {nAudioByteOffset, nPeakByteOffset, nByteCount, nBitsPerSample};
    __int64 audio = 0;
    __int64 peak = 0;
    pPool->GetFileHandles(&audio, &peak);
    region.audio_file = ToHandle(audio);
    region.peak_file = ToHandle(peak);
    pPool->GetFormat(&region.samples_per_sec, &region.channels);
    const std::lock_guard lock(mutex_);
    region_ = region;
  });
}

STDMETHODIMP CAudioPoolReader::ReadAudio(__int64 nSamplePos, SAFEARRAY* psaAudioData) {
  return ComCall([&]() -> HRESULT {
    SampleArrayView view;
    Check(view.Lock(psaAudioData));
    if (view.samples().empty()) return S_OK;
    const std::lock_guard lock(mutex_);
    if (region_.audio_file == nullptr) return kNoFile;
    if (!IsStorable(region_.bits_per_sample)) return E_INVALIDARG;
    const std::int64_t offset =
        ByteOffset(region_.audio_offset, region_.BytesPerFrame(), nSamplePos);
    if (region_.bits_per_sample != 32) return ReadPcm(offset, view.samples());
    return ReadAt(region_.audio_file, offset, std::as_writable_bytes(view.samples())).hr;
  });
}

HRESULT CAudioPoolReader::ReadPcm(std::int64_t offset, std::span<float> samples) {
  const int bits = region_.bits_per_sample;
  const ReadResult read =
      ReadAt(region_.audio_file, offset, stored_samples_.Prepare(samples.size(), bits));
  if (SUCCEEDED(read.hr) || read.hr == HRESULT_FROM_WIN32(ERROR_HANDLE_EOF)) {
    stored_samples_.Decode(read.count, samples, bits);
  }
  stored_samples_.Trim();
  return read.hr;
}

STDMETHODIMP CAudioPoolReader::ReadPeaks(__int64 nPeakPosition, SAFEARRAY* psaPeakData) {
  return ComCall([&]() -> HRESULT {
    SampleArrayView view;
    Check(view.Lock(psaPeakData));
    if (view.samples().empty()) return S_OK;
    const std::lock_guard lock(mutex_);
    return ReadStoredPeaks(nPeakPosition, view.samples());
  });
}

HRESULT CAudioPoolReader::ReadStoredPeaks(std::int64_t first, std::span<float> peaks) {
  if (region_.peak_file == nullptr) return kNoFile;
  const std::int64_t offset = ByteOffset(region_.peak_offset, PeakBytes(region_.channels), first);
  return ReadAt(region_.peak_file, offset, std::as_writable_bytes(peaks)).hr;
}

STDMETHODIMP CAudioPoolReader::SummarizePeaks(IPeakReader* peaks, std::size_t channels,
                                              std::int64_t first,
                                              std::span<const std::int64_t> ends,
                                              std::span<float> pairs) {
  return ComCall([&]() -> HRESULT {
    const std::lock_guard lock(mutex_);
    if (peaks != this || region_.channels < 1 || first < 0 || ends.empty() ||
        channels != static_cast<std::size_t>(region_.channels)) {
      return E_INVALIDARG;
    }
    const auto file = TryQuery<IPeakFile>(pool_.Get());
    std::int64_t settled_bytes = 0;
    std::uint32_t rewinds = 0;
    if (!file) return E_NOINTERFACE;
    Check(file->GetSettledPeaks(region_.peak_file, &settled_bytes, &rewinds));
    const std::int64_t settled =
        SaturatingSubtract(settled_bytes, region_.peak_offset) / PeakBytes(region_.channels);
    if (region_.peak_offset < 0 || ends.back() > settled) return E_INVALIDARG;

    if (!peak_groups_ || peak_rewinds_ != rewinds) {
      peak_groups_.emplace(channels);
      peak_rewinds_ = rewinds;
    }
    peak_groups_->Settle(settled);
    const auto read = [this](std::int64_t at, std::span<float> block) {
      return SUCCEEDED(ReadStoredPeaks(at, block));
    };
    return peak_groups_->Extend(first, ends, pairs, read) ? S_OK : E_FAIL;
  });
}

STDMETHODIMP CAudioPoolReader::GetSampleCount(__int64* pnSamples) {
  const std::int64_t frame = region_.BytesPerFrame();
  if (frame == 0) return SetOut(pnSamples, 0);
  // The lowest number has no opposite.
  return SetOut(pnSamples, frame == -1 ? SaturatingSubtract(0, region_.byte_count)
                                       : region_.byte_count / frame);
}

MARLINDA_DEFINE_CLASS(CAudioPoolReader)

}  // namespace marlinda
