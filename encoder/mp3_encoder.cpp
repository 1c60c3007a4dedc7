// CMp3Encoder: an audio compressor for DirectShow graphs. The input is 16-bit PCM of one or two
// channels. The output is MPEG layer 3 with the input's rate and channels. IAMStreamConfig sets the
// bit rate before the output is connected. If the receiver offers IStream, as file writers do, the
// encoder finally overwrites the file's first frame with the information frame, which holds the
// stream's length.
#include <converter.h>

#include <algorithm>
#include <cstring>
#include <mutex>
#include <optional>
#include <utility>

#include "core/com_call.h"
#include "core/module.h"
#include "dshow/graph_filter.h"
#include "encoder/mp3_stream.h"

namespace marlinda {
namespace {

constexpr long kBufferBytes = 16384;
constexpr int kDefaultBitRateKbit = 128;
constexpr int kBits = 16;
// LAME's encoder delay.
constexpr WORD kDelaySamples = 576;

AudioType TypeOf(const Mp3Format& format) {
  MPEGLAYER3WAVEFORMAT type = {};
  type.wfx.wFormatTag = WAVE_FORMAT_MPEGLAYER3;
  type.wfx.nChannels = static_cast<WORD>(format.channels);
  type.wfx.nSamplesPerSec = static_cast<DWORD>(format.samples_per_sec);
  type.wfx.nAvgBytesPerSec = static_cast<DWORD>(format.bit_rate_kbit) * 125;
  type.wfx.nBlockAlign = 1;
  type.wfx.cbSize = MPEGLAYER3_WFX_EXTRA_BYTES;
  type.wID = MPEGLAYER3_ID_MPEG;
  type.fdwFlags = MPEGLAYER3_FLAG_PADDING_ISO;
  // A frame has two granules of 576 samples in MPEG 1, and one in the other versions.
  const int bytes_per_kbit = format.samples_per_sec >= 32000 ? 144'000 : 72'000;
  type.nBlockSize =
      static_cast<WORD>(format.bit_rate_kbit * bytes_per_kbit / format.samples_per_sec);
  type.nFramesPerBlock = 1;
  type.nCodecDelay = kDelaySamples;
  return AudioType(type.wfx);
}

std::optional<Mp3Format> FormatOf(const AM_MEDIA_TYPE& type) {
  const WAVEFORMATEX* const wave = WaveFormatOf(type);
  if (wave == nullptr || wave->wFormatTag != WAVE_FORMAT_MPEGLAYER3) return std::nullopt;
  const Mp3Format format = {static_cast<int>(wave->nSamplesPerSec), wave->nChannels,
                            static_cast<int>(wave->nAvgBytesPerSec / 125)};
  const auto formats = Mp3Formats(format.samples_per_sec, format.channels);
  if (std::ranges::find(formats, format) == formats.end()) return std::nullopt;
  return format;
}

bool CanEncode(const WAVEFORMATEX& pcm) {
  return pcm.wFormatTag == WAVE_FORMAT_PCM && pcm.wBitsPerSample == kBits &&
         pcm.nBlockAlign == pcm.nChannels * kBits / 8 &&
         !Mp3Formats(static_cast<int>(pcm.nSamplesPerSec), pcm.nChannels).empty();
}

class Mp3Pin final : public OutputPin, private IAMStreamConfig {
 public:
  Mp3Pin(GraphFilter& filter, const InputPin& input)
      : OutputPin(filter, {}, kBufferBytes), input_(input) {}

  STDMETHODIMP QueryInterface(REFIID iid, void** object) override {
    return OutputPin::QueryInterface(iid, object);
  }
  STDMETHODIMP_(ULONG) AddRef() override { return OutputPin::AddRef(); }
  STDMETHODIMP_(ULONG) Release() override { return OutputPin::Release(); }

  // Returns the stream of the connected receiver, or null if the receiver offers none.
  ComPtr<IStream> File() const { return TryQuery<IStream>(peer_.Get()); }

 private:
  IUnknown* Extra(REFIID iid) noexcept override {
    return IsEqualIID(iid, IID_IAMStreamConfig) ? static_cast<IAMStreamConfig*>(this) : nullptr;
  }

  // Returns the formats that fit the connected input, or all formats if the input is unconnected.
  std::vector<Mp3Format> Formats() const {
    if (const WAVEFORMATEX* const pcm = input_.type().format()) {
      return Mp3Formats(static_cast<int>(pcm->nSamplesPerSec), pcm->nChannels);
    }
    std::vector<Mp3Format> all;
    for (const int rate : Mp3Rates()) {
      for (const int channels : {1, 2}) {
        const auto formats = Mp3Formats(rate, channels);
        all.insert(all.end(), formats.begin(), formats.end());
      }
    }
    return all;
  }
  // Returns the chosen format if it fits the input, else the highest bit rate up to the default.
  Mp3Format Format() const {
    const auto formats = Formats();
    if (chosen_ && std::ranges::find(formats, *chosen_) != formats.end()) return *chosen_;
    const auto above =
        std::ranges::upper_bound(formats, kDefaultBitRateKbit, {}, &Mp3Format::bit_rate_kbit);
    return above == formats.begin() ? formats.front() : above[-1];
  }
  std::vector<AudioType> Types() const override {
    if (!input_.IsConnected()) return {};
    return {TypeOf(Format())};
  }

  STDMETHODIMP SetFormat(AM_MEDIA_TYPE* type) override {
    if (type == nullptr) return E_POINTER;
    if (IsConnected()) return VFW_E_ALREADY_CONNECTED;
    return ComCall([&] {
      const auto format = FormatOf(*type);
      if (!format) return VFW_E_INVALIDMEDIATYPE;
      chosen_ = format;
      return S_OK;
    });
  }
  STDMETHODIMP GetFormat(AM_MEDIA_TYPE** type) override {
    if (type == nullptr) return E_POINTER;
    *type = nullptr;
    if (!chosen_ && !input_.IsConnected()) return VFW_E_NOT_CONNECTED;
    return ComCall(
        [&] { return GiveType(TypeOf(input_.IsConnected() ? Format() : *chosen_), type); });
  }
  STDMETHODIMP GetNumberOfCapabilities(int* count, int* size) override {
    if (count == nullptr || size == nullptr) return E_POINTER;
    return ComCall([&] {
      *count = static_cast<int>(Formats().size());
      *size = sizeof(AUDIO_STREAM_CONFIG_CAPS);
    });
  }
  STDMETHODIMP GetStreamCaps(int index, AM_MEDIA_TYPE** type, BYTE* details) override {
    if (type == nullptr || details == nullptr) return E_POINTER;
    *type = nullptr;
    if (index < 0) return E_INVALIDARG;
    return ComCall([&] {
      const auto formats = Formats();
      if (static_cast<std::size_t>(index) >= formats.size()) return S_FALSE;
      const Mp3Format& format = formats[static_cast<std::size_t>(index)];
      AUDIO_STREAM_CONFIG_CAPS caps = {};
      caps.guid = MEDIATYPE_Audio;
      caps.MinimumChannels = caps.MaximumChannels = static_cast<ULONG>(format.channels);
      caps.MinimumBitsPerSample = caps.MaximumBitsPerSample = kBits;
      caps.MinimumSampleFrequency = caps.MaximumSampleFrequency =
          static_cast<ULONG>(format.samples_per_sec);
      std::memcpy(details, &caps, sizeof caps);
      return GiveType(TypeOf(format), type);
    });
  }

  const InputPin& input_;
  std::optional<Mp3Format> chosen_;
};

class CMp3Encoder final : public GraphFilter {
 public:
  CMp3Encoder() {
    const auto& input = AddPin<InputPin>(
        InputPin::Purpose{CanEncode, [this](std::span<const std::byte> pcm) { return Encode(pcm); },
                          [this] { return End(); }});
    output_ = &AddPin<Mp3Pin>(input);
  }

  STDMETHODIMP GetClassID(CLSID* class_id) override {
    if (class_id == nullptr) return E_POINTER;
    *class_id = CLSID_CMp3Encoder;
    return S_OK;
  }
  STDMETHODIMP Stop() override {
    const HRESULT hr = GraphFilter::Stop();
    const std::lock_guard lock(mutex_);
    stream_.reset();
    return hr;
  }

 private:
  HRESULT Encode(std::span<const std::byte> pcm) {
    const std::lock_guard lock(mutex_);
    Begin();
    return Deliver(stream_->Encode(pcm));
  }

  HRESULT End() {
    const std::lock_guard lock(mutex_);
    Begin();
    HRESULT hr = Deliver(stream_->Finish());
    if (SUCCEEDED(hr)) hr = WriteInfoFrame();
    stream_.reset();
    const HRESULT ended = output_->DeliverEnd();
    return FAILED(hr) ? hr : ended;
  }

  void Begin() {
    if (stream_) return;
    const AM_MEDIA_TYPE type = output_->type().View();
    const auto format = FormatOf(type);
    if (!format) throw HResultError(VFW_E_NOT_CONNECTED);
    file_ = output_->File();
    stream_ = std::make_unique<Mp3Stream>(*format, file_ != nullptr);
  }

  HRESULT Deliver(std::span<const std::byte> bytes) {
    return bytes.empty() ? S_OK : output_->Deliver(bytes, 0, 0);
  }

  // Writes the information frame over the first frame of the file.
  HRESULT WriteInfoFrame() {
    if (!file_) return S_OK;
    const auto frame = stream_->InfoFrame();
    HRESULT hr = file_->Seek({}, STREAM_SEEK_SET, nullptr);
    ULONG written = 0;
    if (SUCCEEDED(hr)) hr = file_->Write(frame.data(), static_cast<ULONG>(frame.size()), &written);
    const HRESULT back = file_->Seek({}, STREAM_SEEK_END, nullptr);
    file_.Reset();
    return FAILED(hr) ? hr : back;
  }

  const ModuleObjectCount count_;
  Mp3Pin* output_ = nullptr;
  std::mutex mutex_;
  // The mutex guards the members below.
  std::unique_ptr<Mp3Stream> stream_;
  ComPtr<IStream> file_;
};

}  // namespace

HRESULT CreateCMp3Encoder(IUnknown* outer, REFIID iid, void** object) noexcept {
  if (object == nullptr) return E_POINTER;
  *object = nullptr;
  if (outer != nullptr) return CLASS_E_NOAGGREGATION;
  return ComCall([&] { return ComPtr<GraphFilter>(new CMp3Encoder)->QueryInterface(iid, object); });
}

}  // namespace marlinda
