// CAudioPoolReader: reads samples and peaks of one region of a pool's files, normally one take.
#include <marlinda.h>

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>
#include <span>

#include "core/com_object.h"
#include "core/com_ptr.h"
#include "core/constants.h"
#include "core/frame_math.h"
#include "core/sample_array.h"
#include "core/samples/peak_summary.h"
#include "pool/peak_builder.h"
#include "pool/peak_file.h"
#include "pool/peak_groups.h"
#include "pool/pool_file.h"
#include "pool/stored_samples.h"

namespace marlinda {
namespace {

// Handles have 32 significant bits, even in a 64-bit process.
HANDLE ToHandle(__int64 value) noexcept { return LongToHandle(static_cast<LONG>(value)); }

}  // namespace

// Holds no audio: every read uses the pool's file handles. `mutex_` serialises a reader's reads.
//
// Reads are not clipped to the region: they may reach neighbouring regions. A read need not cover
// whole frames. It fails with 0x80070026 if it passes the end of the file, with ERROR_NEGATIVE_SEEK
// if it begins before the file, and with E_INVALIDARG if the bit depth is outside 8 to 40.
class CAudioPoolReader final
    : public Object<CAudioPoolReader, IAudioPoolReader, IPeakReader, IAudioReader, IPeakSummary> {
 public:
  static constexpr const CLSID& kClassId = CLSID_CAudioPoolReader;

  // IAudioPoolReader
  // Accepts any offsets, byte count and bit depth, and ignores the results of the pool's methods. A
  // second call selects another region. A null pool fails with E_POINTER and changes nothing.
  STDMETHODIMP Create(IAudioPool* pPool, __int64 nAudioByteOffset, __int64 nPeakByteOffset,
                      __int64 nByteCount, SHORT nBitsPerSample) override {
    if (pPool == nullptr) return E_POINTER;
    return ComCall([&] {
      ComPtr<IAudioPool> pool = pPool;
      {
        const std::lock_guard lock(mutex_);
        pool_.Swap(pool);
        region_ = {};
        peak_groups_.reset();
      }
      // Releases the old pool without the lock, because destroying a pool may take a while.
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

  // IPeakReader
  STDMETHODIMP ReadPeaks(__int64 nPeakPosition, SAFEARRAY* psaPeakData) override {
    return ComCall([&]() -> HRESULT {
      SampleArrayView view;
      Check(view.Lock(psaPeakData));
      if (view.samples().empty()) return S_OK;
      const std::lock_guard lock(mutex_);
      return ReadStoredPeaks(nPeakPosition, view.samples());
    });
  }
  STDMETHODIMP GetSamplesPerPeak(LONG* pnSamplesPerPeak) override {
    return SetOut(pnSamplesPerPeak, kFramesPerPeak);
  }

  // IAudioReader
  // Reads fail with ERROR_INVALID_HANDLE before Create and if the pool has no file. At 32 bits per
  // sample, array elements past the end of the file keep their values. At other depths they are 0.
  STDMETHODIMP ReadAudio(__int64 nSamplePos, SAFEARRAY* psaAudioData) override {
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
  STDMETHODIMP GetFormat(LONG* pnSamplesPerSec, SHORT* pnChannels) override {
    return SetOut(pnSamplesPerSec, region_.samples_per_sec, pnChannels, region_.channels);
  }
  // Returns 0 if a frame takes no bytes, because there are no channels or fewer than 8 bits.
  STDMETHODIMP GetSampleCount(__int64* pnSamples) override {
    const std::int64_t frame = region_.BytesPerFrame();
    if (frame == 0) return SetOut(pnSamples, 0);
    // Dividing the lowest number by -1 would overflow.
    return SetOut(pnSamples, frame == -1 ? SaturatingSubtract(0, region_.byte_count)
                                         : region_.byte_count / frame);
  }
  // Both methods fail with ERROR_INVALID_HANDLE before Create.
  STDMETHODIMP OpenDevice() override { return pool_ ? pool_->Lock() : kNoFile; }
  STDMETHODIMP CloseDevice() override { return pool_ ? pool_->Unlock() : kNoFile; }

  // IPeakSummary. Fails if a peak in the ranges may still change.
  STDMETHODIMP SummarizePeaks(IPeakReader* peaks, std::size_t channels, std::int64_t first,
                              std::span<const std::int64_t> ends, std::span<float> pairs) override {
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

 private:
  static constexpr HRESULT kNoFile = HRESULT_FROM_WIN32(ERROR_INVALID_HANDLE);

  // Set by Create from its arguments and the pool.
  struct Region {
    std::int64_t audio_offset = 0;
    std::int64_t peak_offset = 0;
    std::int64_t byte_count = 0;
    SHORT bits_per_sample = 0;
    LONG samples_per_sec = 0;
    SHORT channels = 0;
    HANDLE audio_file = nullptr;
    HANDLE peak_file = nullptr;

    std::int64_t BytesPerFrame() const noexcept { return StoredBytes(bits_per_sample) * channels; }
  };

  HRESULT ReadPcm(std::int64_t offset, std::span<float> samples) {
    const int bits = region_.bits_per_sample;
    const ReadResult read =
        ReadAt(region_.audio_file, offset, stored_samples_.Prepare(samples.size(), bits));
    if (SUCCEEDED(read.hr) || read.hr == HRESULT_FROM_WIN32(ERROR_HANDLE_EOF)) {
      stored_samples_.Decode(read.count, samples, bits);
    }
    stored_samples_.Trim();
    return read.hr;
  }
  HRESULT ReadStoredPeaks(std::int64_t first, std::span<float> peaks) const {
    if (region_.peak_file == nullptr) return kNoFile;
    const std::int64_t offset = ByteOffset(region_.peak_offset, PeakBytes(region_.channels), first);
    return ReadAt(region_.peak_file, offset, std::as_writable_bytes(peaks)).hr;
  }

  std::mutex mutex_;
  ComPtr<IAudioPool> pool_;
  Region region_;
  StoredSamples stored_samples_;

  // Extremes of the region's peaks, valid while the pool's rewind count equals `peak_rewinds_`.
  std::optional<PeakGroups> peak_groups_;
  std::uint32_t peak_rewinds_ = 0;
};

MARLINDA_DEFINE_CLASS(CAudioPoolReader)

}  // namespace marlinda
