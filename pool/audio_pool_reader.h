// CAudioPoolReader: one region of a pool's files, normally one take, as a source of samples and of
// peaks.
#pragma once

#include <marlinda.h>

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>
#include <span>

#include "core/com_object.h"
#include "core/com_ptr.h"
#include "core/constants.h"
#include "core/samples/peak_summary.h"
#include "pool/peak_file.h"
#include "pool/peak_groups.h"
#include "pool/stored_samples.h"

namespace marlinda {

// Holds no audio: every read goes to the pool's files through the pool's handles. The lock orders
// the calls on one reader.
//
// Reads are not clipped to the region: they reach its neighbours in the pool's file, and only the
// end of the file stops them (0x80070026). A read need not be whole frames. It fails with
// ERROR_NEGATIVE_SEEK if its first byte would lie before the file, and with E_INVALIDARG for
// samples outside 8 to 40 bits.
class CAudioPoolReader final
    : public Object<CAudioPoolReader, IAudioPoolReader, IPeakReader, IAudioReader, IPeakSummary> {
 public:
  static constexpr const CLSID& kClassId = CLSID_CAudioPoolReader;

  // IAudioPoolReader
  // Accepts any values and ignores the results of the pool. A second call aims the reader at
  // another region. A null pool fails with E_POINTER and changes nothing.
  STDMETHODIMP Create(IAudioPool* pPool, __int64 nAudioByteOffset, __int64 nPeakByteOffset,
                      __int64 nByteCount, SHORT nBitsPerSample) override;

  // IPeakReader
  STDMETHODIMP ReadPeaks(__int64 nPeakPosition, SAFEARRAY* psaPeakData) override;
  STDMETHODIMP GetSamplesPerPeak(LONG* pnSamplesPerPeak) override {
    return SetOut(pnSamplesPerPeak, kFramesPerPeak);
  }

  // IAudioReader
  // Reads fail with ERROR_INVALID_HANDLE before Create and where the pool has no file. Samples
  // behind the end of the file keep their values in a 32-bit region and are silence otherwise.
  STDMETHODIMP ReadAudio(__int64 nSamplePos, SAFEARRAY* psaAudioData) override;
  STDMETHODIMP GetFormat(LONG* pnSamplesPerSec, SHORT* pnChannels) override {
    return SetOut(pnSamplesPerSec, region_.samples_per_sec, pnChannels, region_.channels);
  }
  // 0 if the frames of the format take no bytes (no channels, or fewer than 8 bits).
  STDMETHODIMP GetSampleCount(__int64* pnSamples) override;
  // Both fail with ERROR_INVALID_HANDLE before Create.
  STDMETHODIMP OpenDevice() override { return pool_ ? pool_->Lock() : kNoFile; }
  STDMETHODIMP CloseDevice() override { return pool_ ? pool_->Unlock() : kNoFile; }

  // IPeakSummary, of peaks that the pool will not write again.
  STDMETHODIMP SummarizePeaks(IPeakReader* peaks, std::size_t channels, std::int64_t first,
                              std::span<const std::int64_t> ends, std::span<float> pairs) override;

 private:
  static constexpr HRESULT kNoFile = HRESULT_FROM_WIN32(ERROR_INVALID_HANDLE);

  // Set by Create, from its arguments and the pool.
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

  HRESULT ReadPcm(std::int64_t offset, std::span<float> samples);
  HRESULT ReadStoredPeaks(std::int64_t first, std::span<float> peaks);

  std::mutex mutex_;
  ComPtr<IAudioPool> pool_;
  Region region_;
  StoredSamples stored_samples_;

  // Extremes of the region's peaks, valid as long as the pool has not rewound.
  std::optional<PeakGroups> peak_groups_;
  std::uint32_t peak_rewinds_ = 0;
};

}  // namespace marlinda
