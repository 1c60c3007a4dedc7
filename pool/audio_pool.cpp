// CAudioPool: stores imported and recorded audio in a temporary audio file and its peaks in a
// temporary peak file. All writes from OpenDevice to CloseDevice form a take.
#include <marlinda.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>
#include <string>
#include <vector>

#include "core/com_object.h"
#include "core/com_ptr.h"
#include "core/registry.h"
#include "core/sample_array.h"
#include "pool/dither.h"
#include "pool/peak_builder.h"
#include "pool/peak_file.h"
#include "pool/pool_file.h"
#include "pool/stored_samples.h"

namespace marlinda {
namespace {

static_assert(RAND_MAX == 32767, "The dither is scaled for random numbers from 0 to 32767.");

// Returns the temporary directory in the user's settings or, without a setting, the system's.
std::string TemporaryDirectory() {
  char directory[MAX_PATH] = "";
  GetTempPathA(MAX_PATH, directory);
  CRegistry settings;
  settings.Open(HKEY_CURRENT_USER, std::string(kSettingsKey) + "\\Directories", true);
  return settings.ReadString("Temporary", directory);
}

}  // namespace

// Only one thread at a time may write. Meanwhile readers may read the samples already written. Use
// each reader on one thread at a time. Any thread may call QueryIsReady, Lock and Unlock.
//
// If a file cannot be created, its handle is 0 and its reads and writes fail. Without the audio
// file, WriteAudio returns the error of the creation. The pool's other methods need no file.
class CAudioPool final : public Object<CAudioPool, IAudioPool, IAudioWriter, IPeakFile> {
 public:
  static constexpr const CLSID& kClassId = CLSID_CAudioPool;

  CAudioPool() {
    const std::string directory = TemporaryDirectory();
    audio_file_.Create(directory, "audio");
    peak_file_.Create(directory, "peak");
  }

  // IAudioPool
  STDMETHODIMP Lock() override {
    ++open_count_;
    return S_OK;
  }
  STDMETHODIMP Unlock() override {
    --open_count_;
    return S_OK;
  }
  STDMETHODIMP GetFileHandles(__int64* pnHandleAudio, __int64* pnHandlePeak) override {
    return SetOut(pnHandleAudio, reinterpret_cast<INT_PTR>(audio_file_.handle()), pnHandlePeak,
                  reinterpret_cast<INT_PTR>(peak_file_.handle()));
  }
  STDMETHODIMP GetFormat(LONG* pnSamplesPerSec, SHORT* pnChannels) override {
    return SetOut(pnSamplesPerSec, samples_per_sec_, pnChannels, channels_);
  }
  // If no take is left, both methods return S_FALSE and leave the out-pointer unchanged. A new
  // reader uses the pool's current bit depth, because the pool does not store the bit depths of its
  // takes. So the reader misreads a take that has another bit depth. If the reader cannot be
  // created, the next CreatePrevReader tries the same take again.
  STDMETHODIMP CreateLastReader(IAudioReader** ppAudioReader) override {
    if (ppAudioReader == nullptr) return E_POINTER;
    cursor_ = takes_.size();
    return CreatePrevReader(ppAudioReader);
  }
  STDMETHODIMP CreatePrevReader(IAudioReader** ppAudioReader) override {
    if (ppAudioReader == nullptr) return E_POINTER;
    return ComCall([&]() -> HRESULT {
      if (cursor_ == 0) return S_FALSE;
      const Take take = takes_[cursor_ - 1];
      ComPtr<IAudioPoolReader> created;
      Check(CreateInstance(CLSID_CAudioPoolReader, created));
      Check(created->Create(this, take.audio_begin, take.peak_begin,
                            take.audio_end - take.audio_begin, bits_per_sample_));
      const auto answer = TryQuery<IAudioReader>(created.Get());
      if (!answer) return E_NOINTERFACE;
      --cursor_;
      return answer.CopyTo(ppAudioReader);
    });
  }
  // Accepts any values. Audio can be written at 8 to 40 bits. The file reserves bits / 8 bytes for
  // a sample, rounded down. An encoded sample has this size only at 8, 16, 24 and 32 to 39 bits, so
  // only these can be read back.
  STDMETHODIMP SetBitDepth(SHORT nBitsPerSample, SHORT nDitheringMode) override {
    bits_per_sample_ = nBitsPerSample;
    dithering_mode_ = nDitheringMode;
    dither_.SetUp(dithering_mode_, channels_, bits_per_sample_);
    return S_OK;
  }

  // IAudioWriter
  // Dithering changes the caller's samples. A block that ends within a frame is stored in full, but
  // its peaks cover only the whole frames. Fails with E_INVALIDARG if the block is shorter than a
  // frame, the pool has no channels, or the bit depth is outside 8 to 40. Fails with
  // ERROR_NOT_SUPPORTED if it would dither more than 8 channels. A refused block is neither changed
  // nor written. A failed write leaves a gap in the take. A failed write of peaks is not reported.
  STDMETHODIMP WriteAudio(SAFEARRAY* psaAudioData) override {
    return ComCall([&] {
      SampleArrayView view;
      Check(view.Lock(psaAudioData));
      const std::span<float> samples = view.samples();
      Check(CheckBlock(samples.size()));
      if (Dithers()) dither_.Process(samples, std::rand);
      const std::span<const std::byte> audio = stored_samples_.Encode(samples, bits_per_sample_);
      BuildPeaks(samples, channels_, peaks_);
      const HRESULT hr = audio_file_.Write(audio_position_, audio);
      peak_file_.Write(peak_position_, std::as_bytes(std::span(peaks_)));
      Advance(audio.size());
      stored_samples_.Trim();
      return hr;
    });
  }
  STDMETHODIMP OpenDevice() override {
    ++open_count_;
    take_audio_begin_ = audio_position_;
    take_peak_begin_ = peak_position_;
    return S_OK;
  }
  STDMETHODIMP CloseDevice() override {
    // Decrements open_count_ last, so that a client that finds the pool ready also finds the take.
    const HRESULT hr = ComCall([&] {
      if (audio_position_ <= take_audio_begin_) return S_FALSE;
      takes_.push_back({take_audio_begin_, audio_position_, take_peak_begin_});
      return S_OK;
    });
    --open_count_;
    return hr;
  }
  // Accepts any values.
  STDMETHODIMP SetFormat(LONG nSamplesPerSec, SHORT nChannels) override {
    samples_per_sec_ = nSamplesPerSec;
    channels_ = nChannels;
    dither_.SetUp(dithering_mode_, channels_, bits_per_sample_);
    return S_OK;
  }
  STDMETHODIMP QueryIsReady(LONG* pbReady) override {
    return SetOut(pbReady, open_count_ == 0 ? 1 : 0);
  }

  // IPeakFile
  // The next write begins at the peak position, so it leaves earlier peaks unchanged.
  STDMETHODIMP GetSettledPeaks(HANDLE file, std::int64_t* end, std::uint32_t* rewinds) override {
    if (file != peak_file_.handle()) return E_INVALIDARG;
    *end = peak_position_;
    *rewinds = peak_rewinds_;
    return S_OK;
  }

 private:
  // The byte positions of a take in the two files.
  struct Take {
    std::int64_t audio_begin;
    std::int64_t audio_end;  // just past the last sample
    std::int64_t peak_begin;
  };

  HRESULT CheckBlock(std::size_t samples) const noexcept {
    if (channels_ < 1 || !IsStorable(bits_per_sample_)) return E_INVALIDARG;
    // A block without a whole frame has no peak.
    if (samples < static_cast<std::size_t>(channels_)) return E_INVALIDARG;
    if (Dithers() && !dither_.CanDither()) return HRESULT_FROM_WIN32(ERROR_NOT_SUPPORTED);
    return S_OK;
  }
  // 32-bit samples are stored as received.
  bool Dithers() const noexcept { return dithering_mode_ != 0 && bits_per_sample_ != 32; }
  // Sets the peak position to the group of 256 frames that contains the next frame. The next block
  // writes its first peaks there, even if it begins in the middle of that group. So the peaks match
  // the frames only if every block but the last is a multiple of 256 frames.
  void Advance(std::size_t audio_bytes) noexcept {
    audio_position_ += static_cast<std::int64_t>(audio_bytes);
    const std::int64_t group_bytes = StoredBytes(bits_per_sample_) * channels_ * kFramesPerPeak;
    const std::int64_t groups = (audio_position_ - take_audio_begin_) / group_bytes;
    const std::int64_t position = take_peak_begin_ + groups * PeakBytes(channels_);
    if (position < peak_position_) ++peak_rewinds_;
    peak_position_ = position;
  }

  TemporaryFile audio_file_;
  TemporaryFile peak_file_;

  LONG samples_per_sec_ = 0;
  SHORT channels_ = 0;
  SHORT bits_per_sample_ = 32;
  SHORT dithering_mode_ = 0;
  DitherState dither_;

  std::int64_t audio_position_ = 0;
  std::atomic<std::int64_t> peak_position_{0};
  // Counts backward moves of the peak position. After such a move, new blocks overwrite peaks that
  // readers may have cached. A change of format or bit depth within a take can cause such a move.
  std::atomic<std::uint32_t> peak_rewinds_{0};
  std::int64_t take_audio_begin_ = 0;
  std::int64_t take_peak_begin_ = 0;
  std::vector<Take> takes_;          // in the order in which they were closed
  std::size_t cursor_ = 0;           // number of takes that CreatePrevReader can still return
  std::atomic<long> open_count_{0};  // +1 by OpenDevice and Lock, -1 by CloseDevice and Unlock

  StoredSamples stored_samples_;
  std::vector<float> peaks_;
};

MARLINDA_DEFINE_CLASS(CAudioPool)

}  // namespace marlinda
