// Writes MP3 files with a DirectShow graph of the engine's source, an MP3 encoder and the engine's
// sink. The graph has no clock. The writing thread drives the data through the graph.

#include <taglib/id3v1tag.h>
#include <taglib/id3v2tag.h>

#include <optional>
#include <utility>

#include "core/handle.h"
#include "export/encoded_file.h"
#include "export/mp3_encoder.h"
#include "export/wav_file.h"

namespace marlinda {
namespace {

constexpr long kBufferBytes = 65536;
constexpr REFERENCE_TIME kTicksPerSecond = 10'000'000;
// The export waits this long for the end of the encoder's output, then fails.
constexpr DWORD kEndMilliseconds = 60'000;
constexpr DWORD kTimeout = ERROR_TIMEOUT;

// Returns the bytes of one kind of tag, or no bytes if there are no texts.
template <class Tag, class... Version>
TagLib::ByteVector Render(const WideTags& texts, Version... version) {
  Tag tag;
  tag.setTitle(texts.title);
  tag.setArtist(texts.artist);
  tag.setAlbum(texts.album);
  tag.setYear(static_cast<unsigned>(std::max(0, TagLib::String(texts.year).substr(0, 4).toInt())));
  tag.setGenre(texts.genre);
  return tag.isEmpty() ? TagLib::ByteVector() : tag.render(version...);
}

ComPtr<IPin> FirstPin(IBaseFilter* filter, PIN_DIRECTION direction) {
  ComPtr<IPin> first;
  ForEachPin(filter, direction, [&](IPin* pin) {
    first = pin;
    return true;
  });
  return first;
}

// Chooses by IsBetterBitRate among the encoder's formats with the sample rate and channel count of
// the settings. If the encoder lists no such format, it keeps its default format.
void ChooseBitRate(IBaseFilter* encoder, const EncoderSettings& settings) {
  const auto config = FindStreamConfig(encoder);
  const auto wanted = static_cast<DWORD>(settings.bit_rate_kbit);
  std::optional<AudioType> chosen;
  ForEachCapability(config.Get(), [&](const AM_MEDIA_TYPE& type) {
    if (!IsMp3(type)) return;
    const AudioType candidate(type);
    if (candidate.empty()) return;
    const auto& format = *candidate.format();
    if (static_cast<int>(format.nSamplesPerSec) != settings.samples_per_sec ||
        format.nChannels != settings.channels) {
      return;
    }
    const auto rate = [](const AudioType& of) {
      return static_cast<DWORD>(BitRateKbit(*of.format()));
    };
    if (!chosen || IsBetterBitRate(rate(candidate), rate(*chosen), wanted)) chosen = candidate;
  });
  if (!chosen) return;
  AM_MEDIA_TYPE type = chosen->View();
  config->SetFormat(&type);
}

// The input pin of the graph's sink. Like a file writer's pin, it offers IStream, with which an
// encoder can rewrite the start of its output.
class FilePin final : public InputPin, private IStream {
 public:
  FilePin(GraphFilter& filter, Purpose purpose) : InputPin(filter, std::move(purpose)) {}

  void SetFile(HANDLE file) {
    file_ = file;
    Check(Move({}, FILE_CURRENT, &begin_));
  }

  STDMETHODIMP QueryInterface(REFIID iid, void** object) override {
    return InputPin::QueryInterface(iid, object);
  }
  STDMETHODIMP_(ULONG) AddRef() override { return InputPin::AddRef(); }
  STDMETHODIMP_(ULONG) Release() override { return InputPin::Release(); }

 private:
  IUnknown* Extra(REFIID iid) noexcept override {
    return IsEqualIID(iid, IID_IStream) ? static_cast<IStream*>(this) : InputPin::Extra(iid);
  }

  HRESULT Move(LARGE_INTEGER distance, DWORD origin, LARGE_INTEGER* position) const {
    return SetFilePointerEx(file_, distance, position, origin) ? S_OK : LastErrorResult();
  }

  // Positions count from the end of the ID3 tag at the start of the file.
  STDMETHODIMP Seek(LARGE_INTEGER distance, DWORD origin, ULARGE_INTEGER* position) override {
    if (origin > STREAM_SEEK_END) return STG_E_INVALIDFUNCTION;
    if (origin == STREAM_SEEK_SET) distance.QuadPart += begin_.QuadPart;
    LARGE_INTEGER reached = {};
    const HRESULT hr = Move(distance, origin, &reached);
    if (position != nullptr) {
      position->QuadPart = static_cast<ULONGLONG>(reached.QuadPart - begin_.QuadPart);
    }
    return hr;
  }
  STDMETHODIMP Write(const void* bytes, ULONG size, ULONG* written) override {
    if (bytes == nullptr) return STG_E_INVALIDPOINTER;
    if (written != nullptr) *written = 0;
    const HRESULT hr = WriteAll(file_, std::span(static_cast<const std::byte*>(bytes), size));
    if (FAILED(hr)) return hr;
    if (written != nullptr) *written = size;
    return S_OK;
  }
  STDMETHODIMP Read(void*, ULONG, ULONG*) override { return E_NOTIMPL; }
  STDMETHODIMP SetSize(ULARGE_INTEGER) override { return E_NOTIMPL; }
  STDMETHODIMP CopyTo(IStream*, ULARGE_INTEGER, ULARGE_INTEGER*, ULARGE_INTEGER*) override {
    return E_NOTIMPL;
  }
  STDMETHODIMP Commit(DWORD) override { return S_OK; }
  STDMETHODIMP Revert() override { return E_NOTIMPL; }
  STDMETHODIMP LockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) override { return E_NOTIMPL; }
  STDMETHODIMP UnlockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) override { return E_NOTIMPL; }
  STDMETHODIMP Stat(STATSTG*, DWORD) override { return E_NOTIMPL; }
  STDMETHODIMP Clone(IStream**) override { return E_NOTIMPL; }

  HANDLE file_ = INVALID_HANDLE_VALUE;
  LARGE_INTEGER begin_ = {};
};

class Mp3File final : public EncodedFile {
 public:
  explicit Mp3File(const EncoderSettings& settings)
      : settings_(settings), bytes_per_frame_(PcmFormatOf(settings).nBlockAlign) {
    if (!ended_) throw HResultError(LastErrorResult());
    AddOwnFilters();
    bool has_encoder = false;
    ForEachMp3Encoder(
        [&](IBaseFilter* encoder) { return has_encoder = SUCCEEDED(ConnectThrough(encoder)); });
    if (!has_encoder) throw CodecError();
    if (FAILED(graph_.Run())) throw CodecError();
    // An existing file is replaced only after the encoder has started.
    FileHandle file = CreateTargetFile(settings.path);
    if (!file) throw HResultError(LastErrorResult());
    file_ = std::move(file);
    Write(Render<TagLib::ID3v2::Tag>(settings.tags, TagLib::ID3v2::v3));
    sink_->SetFile(file_.get());
  }

  void Write(std::span<const std::byte> pcm) override {
    const auto frames = static_cast<REFERENCE_TIME>(pcm.size() / bytes_per_frame_);
    const auto time = [&](REFERENCE_TIME frame) {
      return frame * kTicksPerSecond / settings_.samples_per_sec;
    };
    const HRESULT hr = source_->Deliver(pcm, time(position_), time(position_ + frames));
    position_ += frames;
    ThrowFailure(hr);
  }

  void Finish() override {
    ThrowFailure(source_->DeliverEnd());
    const bool in_time = WaitForSingleObject(ended_.get(), kEndMilliseconds) == WAIT_OBJECT_0;
    graph_.Stop();
    ThrowFailure(in_time ? S_OK : HRESULT_FROM_WIN32(kTimeout));
    Write(Render<TagLib::ID3v1::Tag>(settings_.tags));
  }

 private:
  void AddOwnFilters() {
    const auto source = GraphFilter::Make();
    source_ =
        &source->AddPin<OutputPin>(std::vector{AudioType(PcmFormatOf(settings_))}, kBufferBytes);
    const auto sink = GraphFilter::Make();
    sink_ = &sink->AddPin<FilePin>(InputPin::Purpose{
        [](const WAVEFORMATEX& format) { return format.wFormatTag == WAVE_FORMAT_MPEGLAYER3; },
        [this](std::span<const std::byte> bytes) { return Store(bytes); },
        [this] {
          SetEvent(ended_.get());
          return S_OK;
        }});
    Check(graph_.builder()->AddFilter(source.Get(), L"Source"));
    Check(graph_.builder()->AddFilter(sink.Get(), L"File"));
  }

  // Removes the encoder from the graph if the encoder cannot be connected.
  HRESULT ConnectThrough(IBaseFilter* encoder) {
    const auto input = FirstPin(encoder, PINDIR_INPUT);
    const auto output = FirstPin(encoder, PINDIR_OUTPUT);
    if (!input || !output) return E_FAIL;
    HRESULT hr = graph_.builder()->AddFilter(encoder, L"Encoder");
    if (FAILED(hr)) return hr;
    hr = graph_.builder()->ConnectDirect(source_, input.Get(), nullptr);
    if (SUCCEEDED(hr)) {
      ChooseBitRate(encoder, settings_);
      hr = graph_.builder()->ConnectDirect(output.Get(), sink_, nullptr);
    }
    if (FAILED(hr)) graph_.builder()->RemoveFilter(encoder);
    return hr;
  }

  // The encoder calls this on any thread.
  HRESULT Store(std::span<const std::byte> bytes) noexcept {
    if (!file_ || FAILED(failure_)) return E_FAIL;
    failure_ = WriteAll(file_.get(), bytes);
    return failure_;
  }

  void Write(const TagLib::ByteVector& tag) {
    Check(WriteAll(file_.get(), std::as_bytes(std::span(tag.data(), tag.size()))));
  }

  // Checks the file's error before `hr`, because a failed write makes the encoder fail, too.
  void ThrowFailure(HRESULT hr) const {
    Check(failure_);
    Check(hr);
  }

  const EncoderSettings settings_;
  const std::size_t bytes_per_frame_;
  const KernelHandle ended_{CreateEventW(nullptr, TRUE, FALSE, nullptr)};
  FileHandle file_;
  std::atomic<HRESULT> failure_{S_OK};
  REFERENCE_TIME position_ = 0;
  OutputPin* source_ = nullptr;
  FilePin* sink_ = nullptr;
  // Holds the filters, and the filters hold their pins. Declared last, so that the graph stops
  // before the sink's file closes, even if the constructor throws.
  FilterGraph graph_;
};

}  // namespace

std::unique_ptr<EncodedFile> CreateMp3File(const EncoderSettings& settings) {
  return std::make_unique<Mp3File>(settings);
}

}  // namespace marlinda
