// MP3 files: our source, an encoder of the system and our sink in a DirectShow graph that runs
// without a clock. The thread that writes is the one that drives the graph's data.

#include <optional>
#include <utility>

#include "core/handle.h"
#include "dshow/filter_graph.h"
#include "dshow/graph_filter.h"
#include "export/encoded_file.h"
#include "export/file_sink.h"
#include "export/id3_tag.h"
#include "export/mp3_encoder.h"
#include "export/stream_config.h"

namespace marlinda {
namespace {

constexpr long kBufferBytes = 65536;
constexpr REFERENCE_TIME kTicksPerSecond = 10'000'000;
// An encoder that has been told the end has nothing left to wait for.
constexpr DWORD kEndMilliseconds = 60'000;
constexpr DWORD kTimeout = ERROR_TIMEOUT;

Id3Texts TextsOf(const FileTags& tags) {
  const auto wide = [](const std::wstring& text) {
    return std::u16string(text.begin(), text.end());
  };
  return {wide(tags.title), wide(tags.artist), wide(tags.album), wide(tags.year), wide(tags.genre)};
}

ComPtr<IPin> FirstPin(IBaseFilter* filter, PIN_DIRECTION direction) {
  ComPtr<IPin> first;
  ForEachPin(filter, direction, [&](IPin* pin) {
    first = pin;
    return true;
  });
  return first;
}

// Chooses among the encoder's formats for this rate and channel count: the best bit rate up to the
// wanted one, else the lowest. An encoder without such a format keeps what it would do by itself.
void ChooseBitRate(IBaseFilter* encoder, const EncodingOrder& order) {
  const auto config = FindStreamConfig(encoder);
  const auto wanted = static_cast<DWORD>(order.bit_rate_kbit);
  std::optional<AudioType> chosen;
  ForEachCapability(config.Get(), [&](const AM_MEDIA_TYPE& type) {
    if (!IsMp3(type)) return;
    const AudioType candidate(type);
    if (candidate.empty()) return;
    const auto& format = *candidate.format();
    if (static_cast<int>(format.nSamplesPerSec) != order.samples_per_sec ||
        format.nChannels != order.channels) {
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

class Mp3File final : public EncodedFile {
 public:
  explicit Mp3File(const EncodingOrder& order)
      : order_(order), bytes_per_frame_(PcmFormatOf(order).nBlockAlign) {
    if (!ended_) throw HResultError(LastErrorResult());
    AddOwnFilters();
    bool has_encoder = false;
    ForEachMp3Encoder(
        [&](IBaseFilter* encoder) { return has_encoder = SUCCEEDED(ConnectThrough(encoder)); });
    if (!has_encoder) throw CodecError();
    if (FAILED(graph_.Run())) throw CodecError();
    // Only now is it certain that there is something to replace an old file with.
    FileHandle file = CreateTargetFile(order.path);
    if (!file) throw HResultError(LastErrorResult());
    file_.emplace(std::move(file));
    WriteTag(Id3v2Tag(TextsOf(order.tags)));
  }

  void Write(std::span<const std::byte> pcm) override {
    const auto frames = static_cast<REFERENCE_TIME>(pcm.size() / bytes_per_frame_);
    const auto time = [&](REFERENCE_TIME frame) {
      return frame * kTicksPerSecond / order_.samples_per_sec;
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
    WriteTag(Id3v1Tag(TextsOf(order_.tags)));
  }

 private:
  void AddOwnFilters() {
    const auto source = GraphFilter::Make();
    source_ = &source->AddPin<OutputPin>(std::vector{AudioType(PcmFormatOf(order_))}, kBufferBytes);
    const auto sink = GraphFilter::Make();
    sink_ = &sink->AddPin<InputPin>(InputPin::Purpose{
        [](const WAVEFORMATEX& format) { return format.wFormatTag == WAVE_FORMAT_MPEGLAYER3; },
        [this](std::span<const std::byte> bytes) { return Store(bytes); },
        [this] {
          SetEvent(ended_.get());
          return S_OK;
        }});
    Check(graph_.builder()->AddFilter(source.Get(), L"Source"));
    Check(graph_.builder()->AddFilter(sink.Get(), L"File"));
  }

  // Leaves no encoder in the graph when it refuses.
  HRESULT ConnectThrough(IBaseFilter* encoder) {
    const auto input = FirstPin(encoder, PINDIR_INPUT);
    const auto output = FirstPin(encoder, PINDIR_OUTPUT);
    if (!input || !output) return E_FAIL;
    HRESULT hr = graph_.builder()->AddFilter(encoder, L"Encoder");
    if (FAILED(hr)) return hr;
    hr = graph_.builder()->ConnectDirect(source_, input.Get(), nullptr);
    if (SUCCEEDED(hr)) {
      ChooseBitRate(encoder, order_);
      hr = graph_.builder()->ConnectDirect(output.Get(), sink_, nullptr);
    }
    if (FAILED(hr)) graph_.builder()->RemoveFilter(encoder);
    return hr;
  }

  // Called by the encoder, on whatever thread it works.
  HRESULT Store(std::span<const std::byte> bytes) noexcept {
    if (!file_ || FAILED(failure_)) return E_FAIL;
    if (!file_->Write(bytes)) failure_ = LastErrorResult();
    return failure_;
  }

  void WriteTag(std::span<const std::byte> tag) {
    if (!file_->Write(tag)) throw HResultError(LastErrorResult());
  }

  // What went wrong at the file says more than what the encoder made of it.
  void ThrowFailure(HRESULT hr) const {
    Check(failure_);
    Check(hr);
  }

  const EncodingOrder order_;
  const std::size_t bytes_per_frame_;
  const KernelHandle ended_{CreateEventW(nullptr, TRUE, FALSE, nullptr)};
  std::optional<FileSink> file_;
  std::atomic<HRESULT> failure_{S_OK};
  REFERENCE_TIME position_ = 0;
  OutputPin* source_ = nullptr;
  InputPin* sink_ = nullptr;
  // Holds the filters, and they their pins. The last member: it stops before its sink's file goes,
  // also when the constructor throws.
  FilterGraph graph_;
};

}  // namespace

std::unique_ptr<EncodedFile> CreateMp3File(const EncodingOrder& order) {
  return std::make_unique<Mp3File>(order);
}

}  // namespace marlinda
