#include "pool/audio_pool.h"

#include <cstdlib>
#include <span>
#include <string>

#include "core/com_ptr.h"
#include "core/registry.h"
#include "core/sample_array.h"
#include "core/samples/sample_converter.h"
#include "pool/file_access.h"
#include "pool/kept_buffer.h"
#include "pool/storage.h"

namespace marlinda {
namespace {

static_assert(RAND_MAX == 32767, "The dither is scaled for random numbers from 0 to 32767.");

// What the user chose as temporary directory, otherwise the system's.
std::string TemporaryDirectory() {
  char directory[MAX_PATH] = "";
  GetTempPathA(MAX_PATH, directory);
  CRegistry settings;
  settings.Open(HKEY_CURRENT_USER, std::string(kSettingsKey) + "\\Directories", true);
  return settings.ReadString("Temporary", directory);
}

}  // namespace

CAudioPool::CAudioPool() : files_(CreateFiles()) {}

HRESULT CAudioPool::CreateFiles() {
  const std::string directory = TemporaryDirectory();
  if (GetFileAttributesA(directory.c_str()) == INVALID_FILE_ATTRIBUTES) return LastErrorResult();
  const HRESULT hr = audio_file_.Create(directory, "audio");
  return FAILED(hr) ? hr : peak_file_.Create(directory, "peak");
}

STDMETHODIMP CAudioPool::Lock() {
  ++open_count_;
  return S_OK;
}

STDMETHODIMP CAudioPool::Unlock() {
  --open_count_;
  return S_OK;
}

STDMETHODIMP CAudioPool::GetFileHandles(__int64* pnHandleAudio, __int64* pnHandlePeak) {
  if (pnHandleAudio == nullptr || pnHandlePeak == nullptr) return E_POINTER;
  *pnHandleAudio = *pnHandlePeak = 0;
  if (FAILED(files_)) return files_;
  *pnHandleAudio = reinterpret_cast<INT_PTR>(audio_file_.handle());
  *pnHandlePeak = reinterpret_cast<INT_PTR>(peak_file_.handle());
  return S_OK;
}

STDMETHODIMP CAudioPool::GetFormat(LONG* pnSamplesPerSec, SHORT* pnChannels) {
  if (pnSamplesPerSec == nullptr || pnChannels == nullptr) return E_POINTER;
  *pnSamplesPerSec = samples_per_sec_;
  *pnChannels = channels_;
  return S_OK;
}

STDMETHODIMP CAudioPool::CreateLastReader(IAudioReader** ppAudioReader) {
  if (ppAudioReader == nullptr) return E_POINTER;
  takes_.AimAtLast();
  return CreateReader(ppAudioReader);
}

STDMETHODIMP CAudioPool::CreatePrevReader(IAudioReader** ppAudioReader) {
  if (ppAudioReader == nullptr) return E_POINTER;
  return CreateReader(ppAudioReader);
}

HRESULT CAudioPool::CreateReader(IAudioReader** reader) {
  return ComCall([&]() -> HRESULT {
    Check(files_);
    const PoolTake* const take = takes_.Current();
    if (take == nullptr) return S_FALSE;
    ComPtr<IAudioPoolReader> created;
    Check(CreateInstance(CLSID_CAudioPoolReader, created));
    Check(created->Create(this, take->audio_begin, take->peak_begin,
                          take->audio_end - take->audio_begin, bits_per_sample_));
    const auto answer = TryQuery<IAudioReader>(created.Get());
    if (!answer) return E_NOINTERFACE;
    takes_.StepBack();
    return answer.CopyTo(reader);
  });
}

STDMETHODIMP CAudioPool::SetBitDepth(SHORT nBitsPerSample, SHORT nDitheringMode) {
  bits_per_sample_ = nBitsPerSample;
  dithering_mode_ = nDitheringMode;
  dither_.SetUp(dithering_mode_, channels_, bits_per_sample_);
  return S_OK;
}

// 32-bit samples are stored as received.
bool CAudioPool::Dithers() const noexcept { return dithering_mode_ != 0 && bits_per_sample_ != 32; }

STDMETHODIMP CAudioPool::WriteAudio(SAFEARRAY* psaAudioData) {
  return ComCall([&]() -> HRESULT {
    Check(files_);
    SampleArrayView view;
    Check(view.Lock(psaAudioData));
    const std::span<float> samples = view.samples();
    if (channels_ < 1 || !IsStorable(bits_per_sample_)) return E_INVALIDARG;
    // Without a frame there is no peak.
    if (samples.size() < static_cast<std::size_t>(channels_)) return E_INVALIDARG;
    if (Dithers() && !dither_.CanDither()) return HRESULT_FROM_WIN32(ERROR_NOT_SUPPORTED);

    std::span<const std::byte> audio = std::as_bytes(samples);
    if (bits_per_sample_ != 32) {
      pcm_.resize(ConversionBytes(samples.size(), bits_per_sample_));
      if (Dithers()) dither_.Process(samples, std::rand);
      ConvertFloatToPcm(samples, pcm_, bits_per_sample_);
      const auto codes = samples.size() * PcmBytesPerSample(bits_per_sample_);
      std::ranges::fill(std::span(pcm_).subspan(codes), std::byte{});
      // At a width between the usual ones the code takes more bytes than the file has room for.
      audio = std::span(pcm_).first(samples.size() *
                                    static_cast<std::size_t>(StoredBytes(bits_per_sample_)));
    }
    BuildPeaks(samples, channels_, peaks_);

    const HRESULT hr = WriteAt(audio_file_.handle(), audio_position_, audio);
    WriteAt(peak_file_.handle(), peak_position_, std::as_bytes(std::span(peaks_)));
    Advance(static_cast<std::int64_t>(audio.size()));
    DropIfLarge(pcm_);
    return hr;
  });
}

// The peak position follows from the audio position: the record of an incomplete group at the end
// is overwritten by the next block, so a take's peaks stay in step with its frames only while every
// block but the last is a multiple of 256 frames. Kept on purpose; the extra record is what shows
// the tail of the take.
void CAudioPool::Advance(std::int64_t audio_bytes) noexcept {
  audio_position_ += audio_bytes;
  const std::int64_t bytes_per_peak = StoredBytes(bits_per_sample_) * channels_ * kFramesPerPeak;
  const std::int64_t peaks = (audio_position_ - take_audio_begin_) / bytes_per_peak;
  const std::int64_t position =
      take_peak_begin_ + peaks * channels_ * static_cast<std::int64_t>(sizeof(PeakRecord));
  if (position < peak_position_) ++peak_rewinds_;
  peak_position_ = position;
}

STDMETHODIMP CAudioPool::OpenDevice() {
  if (FAILED(files_)) return files_;
  ++open_count_;
  take_audio_begin_ = audio_position_;
  take_peak_begin_ = peak_position_;
  return S_OK;
}

STDMETHODIMP CAudioPool::CloseDevice() {
  if (FAILED(files_)) return files_;
  return ComCall([&]() -> HRESULT {
    --open_count_;
    if (audio_position_ <= take_audio_begin_) return S_FALSE;
    takes_.Add({take_audio_begin_, audio_position_, take_peak_begin_, peak_position_});
    return S_OK;
  });
}

STDMETHODIMP CAudioPool::SetFormat(LONG nSamplesPerSec, SHORT nChannels) {
  samples_per_sec_ = nSamplesPerSec;
  channels_ = nChannels;
  dither_.SetUp(dithering_mode_, channels_, bits_per_sample_);
  return S_OK;
}

STDMETHODIMP CAudioPool::QueryIsReady(LONG* pbReady) {
  if (pbReady == nullptr) return E_POINTER;
  *pbReady = open_count_ == 0 ? 1 : 0;
  return S_OK;
}

// The next block of peaks goes to the peak position, and nothing before it is written again.
STDMETHODIMP CAudioPool::GetSettledPeaks(HANDLE file, std::int64_t* end, std::uint32_t* rewinds) {
  if (FAILED(files_) || file != peak_file_.handle()) return E_INVALIDARG;
  *end = peak_position_;
  *rewinds = peak_rewinds_;
  return S_OK;
}

MARLINDA_DEFINE_CLASS(CAudioPool)

}  // namespace marlinda
