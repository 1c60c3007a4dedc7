#include "pool/audio_pool.h"

#include <cstdlib>
#include <span>
#include <string>

#include "core/com_ptr.h"
#include "core/registry.h"
#include "core/sample_array.h"
#include "pool/peak_builder.h"

namespace marlinda {
namespace {

static_assert(RAND_MAX == 32767, "The dither is scaled for random numbers from 0 to 32767.");

// The directory of the user's settings, otherwise the system's.
std::string TemporaryDirectory() {
  char directory[MAX_PATH] = "";
  GetTempPathA(MAX_PATH, directory);
  CRegistry settings;
  settings.Open(HKEY_CURRENT_USER, std::string(kSettingsKey) + "\\Directories", true);
  return settings.ReadString("Temporary", directory);
}

}  // namespace

CAudioPool::CAudioPool() {
  const std::string directory = TemporaryDirectory();
  audio_file_.Create(directory, "audio");
  peak_file_.Create(directory, "peak");
}

STDMETHODIMP CAudioPool::GetFileHandles(__int64* pnHandleAudio, __int64* pnHandlePeak) {
  return SetOut(pnHandleAudio, reinterpret_cast<INT_PTR>(audio_file_.handle()), pnHandlePeak,
                reinterpret_cast<INT_PTR>(peak_file_.handle()));
}

STDMETHODIMP CAudioPool::CreateLastReader(IAudioReader** ppAudioReader) {
  if (ppAudioReader == nullptr) return E_POINTER;
  cursor_ = takes_.size();
  return CreatePrevReader(ppAudioReader);
}

STDMETHODIMP CAudioPool::CreatePrevReader(IAudioReader** ppAudioReader) {
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

STDMETHODIMP CAudioPool::SetBitDepth(SHORT nBitsPerSample, SHORT nDitheringMode) {
  bits_per_sample_ = nBitsPerSample;
  dithering_mode_ = nDitheringMode;
  dither_.SetUp(dithering_mode_, channels_, bits_per_sample_);
  return S_OK;
}

STDMETHODIMP CAudioPool::WriteAudio(SAFEARRAY* psaAudioData) {
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

HRESULT CAudioPool::CheckBlock(std::size_t samples) const noexcept {
  if (channels_ < 1 || !IsStorable(bits_per_sample_)) return E_INVALIDARG;
  // Without a frame there is no peak.
  if (samples < static_cast<std::size_t>(channels_)) return E_INVALIDARG;
  if (Dithers() && !dither_.CanDither()) return HRESULT_FROM_WIN32(ERROR_NOT_SUPPORTED);
  return S_OK;
}

// 32-bit samples are stored as received.
bool CAudioPool::Dithers() const noexcept { return dithering_mode_ != 0 && bits_per_sample_ != 32; }

// The peak position follows from the audio position: the next block overwrites the record of an
// incomplete group. So the peaks of a take stay in step with its frames only while every block but
// the last is a multiple of 256 frames. The record of the incomplete group shows the tail of a
// take.
void CAudioPool::Advance(std::size_t audio_bytes) noexcept {
  audio_position_ += static_cast<std::int64_t>(audio_bytes);
  const std::int64_t group_bytes = StoredBytes(bits_per_sample_) * channels_ * kFramesPerPeak;
  const std::int64_t groups = (audio_position_ - take_audio_begin_) / group_bytes;
  const std::int64_t position = take_peak_begin_ + groups * PeakBytes(channels_);
  if (position < peak_position_) ++peak_rewinds_;
  peak_position_ = position;
}

STDMETHODIMP CAudioPool::OpenDevice() {
  ++open_count_;
  take_audio_begin_ = audio_position_;
  take_peak_begin_ = peak_position_;
  return S_OK;
}

STDMETHODIMP CAudioPool::CloseDevice() {
  // The count falls last: a client that finds the pool ready also finds the take.
  const HRESULT hr = ComCall([&] {
    if (audio_position_ <= take_audio_begin_) return S_FALSE;
    takes_.push_back({take_audio_begin_, audio_position_, take_peak_begin_});
    return S_OK;
  });
  --open_count_;
  return hr;
}

STDMETHODIMP CAudioPool::SetFormat(LONG nSamplesPerSec, SHORT nChannels) {
  samples_per_sec_ = nSamplesPerSec;
  channels_ = nChannels;
  dither_.SetUp(dithering_mode_, channels_, bits_per_sample_);
  return S_OK;
}

// The next peaks are written at the peak position, so those before it have settled.
STDMETHODIMP CAudioPool::GetSettledPeaks(HANDLE file, std::int64_t* end, std::uint32_t* rewinds) {
  if (file != peak_file_.handle()) return E_INVALIDARG;
  *end = peak_position_;
  *rewinds = peak_rewinds_;
  return S_OK;
}

MARLINDA_DEFINE_CLASS(CAudioPool)

}  // namespace marlinda
