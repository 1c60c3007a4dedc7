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
#include "pool/peak_builder.h"
#include "pool/peak_file.h"
#include "pool/take_list.h"
#include "pool/temporary_file.h"

namespace marlinda {

// One thread at a time may write. Readers may read what has been written meanwhile, each from one
// thread at a time: no access to the files comes in between another. The open count may be asked
// for from any thread.
//
// When the files cannot be made, creation succeeds all the same; OpenDevice, WriteAudio,
// CloseDevice, GetFileHandles, CreateLastReader and CreatePrevReader then do nothing but return the
// HRESULT of that failure. The other methods need no files and work.
class CAudioPool final : public Object<CAudioPool, IAudioPool, IAudioWriter, IPeakFile> {
 public:
  static constexpr const CLSID& kClassId = CLSID_CAudioPool;

  CAudioPool();

  // IAudioPool
  STDMETHODIMP Lock() override;
  STDMETHODIMP Unlock() override;
  // Null handles while there are no files.
  STDMETHODIMP GetFileHandles(__int64* pnHandleAudio, __int64* pnHandlePeak) override;
  STDMETHODIMP GetFormat(LONG* pnSamplesPerSec, SHORT* pnChannels) override;
  // The out-pointer is left untouched unless a reader comes back. A reader gets the pool's present
  // bit depth, so a change of it makes the takes written before unreadable: kept on purpose, since
  // the pool does not record what a take was written in. The cursor stays where it is when a reader
  // cannot be created, and the HRESULT of its creation is returned.
  STDMETHODIMP CreateLastReader(IAudioReader** ppAudioReader) override;
  STDMETHODIMP CreatePrevReader(IAudioReader** ppAudioReader) override;
  // Any values are stored; audio can be written at 8 to 40 bits. A sample takes bits / 8 bytes in
  // the file whatever its code takes, so that only 8, 16, 24 and 32 to 39 bits can be read back.
  STDMETHODIMP SetBitDepth(SHORT nBitsPerSample, SHORT nDitheringMode) override;

  // IAudioWriter
  // Changes the caller's samples when it dithers. A block that ends within a frame is stored in
  // full, while its peaks cover the whole frames. Refused, with nothing written and the caller's
  // block untouched: a block before SetFormat has set a channel, shorter than a frame or beyond 8
  // to 40 bits (E_INVALIDARG); dithering of more than 8 channels (ERROR_NOT_SUPPORTED). After a
  // failed write the positions advance all the same: the take keeps a gap. A failed write of peaks
  // is dropped, since peaks only serve the display.
  STDMETHODIMP WriteAudio(SAFEARRAY* psaAudioData) override;
  STDMETHODIMP OpenDevice() override;
  STDMETHODIMP CloseDevice() override;
  // Any values are stored.
  STDMETHODIMP SetFormat(LONG nSamplesPerSec, SHORT nChannels) override;
  STDMETHODIMP QueryIsReady(LONG* pbReady) override;

  // IPeakFile
  STDMETHODIMP GetSettledPeaks(HANDLE file, std::int64_t* end, std::uint32_t* rewinds) override;

 private:
  HRESULT CreateFiles();
  HRESULT CreateReader(IAudioReader** reader);
  void Advance(std::int64_t audio_bytes) noexcept;
  bool Dithers() const noexcept;

  TemporaryFile audio_file_;
  TemporaryFile peak_file_;
  HRESULT files_ = E_FAIL;  // outcome of their creation

  LONG samples_per_sec_ = 0;
  SHORT channels_ = 0;
  SHORT bits_per_sample_ = 32;
  SHORT dithering_mode_ = 0;
  DitherState dither_;

  std::int64_t audio_position_ = 0;
  std::atomic<std::int64_t> peak_position_{0};
  // How often the peak position went back: a change of format or bit depth within a take can do
  // that, and what had settled is overwritten.
  std::atomic<std::uint32_t> peak_rewinds_{0};
  std::int64_t take_audio_begin_ = 0;
  std::int64_t take_peak_begin_ = 0;
  TakeList takes_;
  // Writer, locks and open readers together.
  std::atomic<long> open_count_{0};

  // Kept between blocks: a fresh large allocation costs more than the conversion into it.
  std::vector<std::byte> pcm_;
  std::vector<PeakRecord> peaks_;
};

}  // namespace marlinda
