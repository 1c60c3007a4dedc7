// CAudioPool: the store for imported and recorded audio. Samples and peaks go to two temporary
// files; each non-empty run from OpenDevice to CloseDevice is a take, to be read by a reader.
#pragma once

#include <marlinda.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "core/com_object.h"
#include "pool/dither.h"
#include "pool/peak_file.h"
#include "pool/pool_file.h"
#include "pool/stored_samples.h"

namespace marlinda {

// One thread at a time writes. Meanwhile readers may read what has been written, each on one thread
// at a time. QueryIsReady, Lock and Unlock may be called from any thread.
//
// A file that cannot be made is missing: its handle is 0, reads and writes of it fail, WriteAudio
// with the error of the creation. Everything else works as with files.
class CAudioPool final : public Object<CAudioPool, IAudioPool, IAudioWriter, IPeakFile> {
 public:
  static constexpr const CLSID& kClassId = CLSID_CAudioPool;

  CAudioPool();

  // IAudioPool
  STDMETHODIMP Lock() override {
    ++open_count_;
    return S_OK;
  }
  STDMETHODIMP Unlock() override {
    --open_count_;
    return S_OK;
  }
  STDMETHODIMP GetFileHandles(__int64* pnHandleAudio, __int64* pnHandlePeak) override;
  STDMETHODIMP GetFormat(LONG* pnSamplesPerSec, SHORT* pnChannels) override {
    return SetOut(pnSamplesPerSec, samples_per_sec_, pnChannels, channels_);
  }
  // Without a take the out-pointer stays untouched. A reader gets the pool's present bit depth, so
  // a change of it makes earlier takes unreadable: the pool does not record the depth of a take. If
  // a reader cannot be created, its HRESULT is returned and the cursor stays where it is.
  STDMETHODIMP CreateLastReader(IAudioReader** ppAudioReader) override;
  STDMETHODIMP CreatePrevReader(IAudioReader** ppAudioReader) override;
  // Accepts any values. Audio can be written at 8 to 40 bits. A sample takes bits / 8 bytes in the
  // file whatever its code takes, so only 8, 16, 24 and 32 to 39 bits can be read back.
  STDMETHODIMP SetBitDepth(SHORT nBitsPerSample, SHORT nDitheringMode) override;

  // IAudioWriter
  // Dithering changes the caller's samples. A block that ends within a frame is stored in full, and
  // its peaks cover the whole frames. Three blocks are refused, with nothing written and the block
  // unchanged: before SetFormat has set a channel, shorter than a frame or outside 8 to 40 bits
  // (E_INVALIDARG), and dithering of more than 8 channels (ERROR_NOT_SUPPORTED). A failed write
  // advances the positions and leaves a gap in the take. A failed write of peaks is not reported.
  STDMETHODIMP WriteAudio(SAFEARRAY* psaAudioData) override;
  STDMETHODIMP OpenDevice() override;
  STDMETHODIMP CloseDevice() override;
  // Accepts any values.
  STDMETHODIMP SetFormat(LONG nSamplesPerSec, SHORT nChannels) override;
  STDMETHODIMP QueryIsReady(LONG* pbReady) override {
    return SetOut(pbReady, open_count_ == 0 ? 1 : 0);
  }

  // IPeakFile
  STDMETHODIMP GetSettledPeaks(HANDLE file, std::int64_t* end, std::uint32_t* rewinds) override;

 private:
  // One run of audio in the files, in bytes.
  struct Take {
    std::int64_t audio_begin;
    std::int64_t audio_end;  // just past the last sample
    std::int64_t peak_begin;
  };

  HRESULT CheckBlock(std::size_t samples) const noexcept;
  bool Dithers() const noexcept;
  void Advance(std::size_t audio_bytes) noexcept;

  TemporaryFile audio_file_;
  TemporaryFile peak_file_;

  LONG samples_per_sec_ = 0;
  SHORT channels_ = 0;
  SHORT bits_per_sample_ = 32;
  SHORT dithering_mode_ = 0;
  DitherState dither_;

  std::int64_t audio_position_ = 0;
  std::atomic<std::int64_t> peak_position_{0};
  // How often the peak position went back and settled peaks are overwritten: a change of format or
  // bit depth within a take can cause that.
  std::atomic<std::uint32_t> peak_rewinds_{0};
  std::int64_t take_audio_begin_ = 0;
  std::int64_t take_peak_begin_ = 0;
  std::vector<Take> takes_;          // in the order in which they were closed
  std::size_t cursor_ = 0;           // takes from the first to the one under the reader cursor
  std::atomic<long> open_count_{0};  // writer, locks and open readers together

  StoredSamples stored_samples_;
  std::vector<float> peaks_;
};

}  // namespace marlinda
