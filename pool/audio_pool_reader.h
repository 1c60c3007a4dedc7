// CAudioPoolReader: one region of a pool's files, normally one take, as a source of samples and of
// peaks.
#pragma once

#include <marlinda.h>

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>
#include <span>
#include <vector>

#include "core/com_object.h"
#include "core/com_ptr.h"
#include "core/samples/peak_summary.h"
#include "pool/peak_file.h"
#include "pool/peak_groups.h"
#include "pool/storage.h"

namespace marlinda {

// Holds no audio: every read goes to the pool's files through the pool's handles. The lock here
// orders the calls on one reader.
//
// Reads are not clipped to the region, on purpose: what lies beyond it in the pool's file, behind
// or before, is read too, and only the file's end (0x80070026) or start stops them. Nor must a read
// be whole frames. Refused are reads whose first byte would lie before the file
// (ERROR_NEGATIVE_SEEK), and samples beyond 8 to 40 bits (E_INVALIDARG).
class CAudioPoolReader final
    : public Object<CAudioPoolReader, IAudioPoolReader, IPeakReader, IAudioReader, IPeakSummary> {
 public:
  static constexpr const CLSID& kClassId = CLSID_CAudioPoolReader;

  // IAudioPoolReader
  // Any values are stored, and the pool's answers ignored: a pool without files shows in the first
  // read, which returns what GetFileHandles did. May be called again to aim at another region. A
  // null pool is refused with E_POINTER and leaves the reader as it was.
  STDMETHODIMP Create(IAudioPool* pPool, __int64 nAudioByteOffset, __int64 nPeakByteOffset,
                      __int64 nByteCount, SHORT nBitsPerSample) override;

  // IPeakReader
  STDMETHODIMP ReadPeaks(__int64 nPeakPosition, SAFEARRAY* psaPeakData) override;
  STDMETHODIMP GetSamplesPerPeak(LONG* pnSamplesPerPeak) override;

  // IAudioReader
  // Before Create, reads and OpenDevice and CloseDevice fail with ERROR_INVALID_HANDLE. Samples
  // that the file could not deliver keep their values in a 32-bit region and are silence otherwise.
  STDMETHODIMP ReadAudio(__int64 nSamplePos, SAFEARRAY* psaAudioData) override;
  STDMETHODIMP GetFormat(LONG* pnSamplesPerSec, SHORT* pnChannels) override;
  // 0 where the frames of the format take no bytes (no channels, or fewer than 8 bits).
  STDMETHODIMP GetSampleCount(__int64* pnSamples) override;
  STDMETHODIMP OpenDevice() override;
  STDMETHODIMP CloseDevice() override;

  // IPeakSummary: over peaks that the pool will not write again.
  STDMETHODIMP SummarizePeaks(IPeakReader* peaks, std::size_t channels, std::int64_t first,
                              std::span<const std::int64_t> ends, std::span<float> pairs) override;

 private:
  static constexpr HRESULT kNotCreated = HRESULT_FROM_WIN32(ERROR_INVALID_HANDLE);

  // What Create takes from its arguments and from the pool.
  struct Region {
    std::int64_t audio_offset = 0;
    std::int64_t peak_offset = 0;
    std::int64_t byte_count = 0;
    SHORT bits_per_sample = 0;
    LONG samples_per_sec = 0;
    SHORT channels = 0;
    // What a read without a file returns.
    HRESULT without_file = kNotCreated;
    HANDLE audio_file = nullptr;
    HANDLE peak_file = nullptr;

    std::int64_t BytesPerFrame() const noexcept { return StoredBytes(bits_per_sample) * channels; }
  };

  HRESULT ReadPcm(std::int64_t offset, std::span<float> samples);
  std::int64_t PeakBytes() const noexcept;
  HRESULT ReadStoredPeaks(std::int64_t first, std::span<float> peaks);

  std::mutex mutex_;
  ComPtr<IAudioPool> pool_;
  Region region_;
  // Kept between calls: a fresh large allocation costs more than the conversion out of it.
  std::vector<std::byte> pcm_;

  // What is known of the region's peaks, as long as the pool has not rewound.
  std::optional<PeakGroups> peak_groups_;
  std::uint32_t peak_rewinds_ = 0;
};

}  // namespace marlinda
