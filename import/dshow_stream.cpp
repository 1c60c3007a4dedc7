#include "import/dshow_stream.h"

#include <dshow.h>

#include <cmath>

#include "core/com_ptr.h"
#include "import/audio_sink.h"

namespace marlinda {
namespace {

constexpr DWORD kPollMilliseconds = 100;
constexpr ULONGLONG kPatienceMilliseconds = 60000;
constexpr double kTicksPerSecond = 10000000.0;

}  // namespace

struct DShowStream::Graph {
  ComPtr<IGraphBuilder> builder;
  ComPtr<IMediaControl> control;
  ComPtr<IMediaEvent> events;
  ComPtr<AudioSink> sink = AudioSink::Make();

  ~Graph() {
    sink->Abandon();
    if (control != nullptr) control->Stop();
  }

  bool Build(const std::wstring& file_name);
  bool ConnectAnyOutput(IBaseFilter* source) const;
  double DurationSeconds() const;
  bool HasFailed() const;
};

bool DShowStream::Graph::Build(const std::wstring& file_name) {
  if (FAILED(CreateInstance(CLSID_FilterGraph, builder))) return false;
  control = TryQuery<IMediaControl>(builder.Get());
  // The header that comes with mingw does not know this interface's identifier by its type.
  builder->QueryInterface(IID_IMediaEvent, reinterpret_cast<void**>(events.GetAddressOf()));
  if (control == nullptr || events == nullptr) return false;
  if (FAILED(builder->AddFilter(sink.Get(), L"Audio"))) return false;
  ComPtr<IBaseFilter> source;
  if (FAILED(builder->AddSourceFilter(file_name.c_str(), L"Source", source.GetAddressOf()))) {
    return false;
  }
  if (!ConnectAnyOutput(source.Get()) || !sink->format()) return false;
  // Without a clock every filter works as fast as it can.
  const auto filter = TryQuery<IMediaFilter>(builder.Get());
  return filter != nullptr && SUCCEEDED(filter->SetSyncSource(nullptr));
}

// A source that splits the file itself has several outputs, and not all need be sound.
bool DShowStream::Graph::ConnectAnyOutput(IBaseFilter* source) const {
  ComPtr<IEnumPins> pins;
  if (FAILED(source->EnumPins(pins.GetAddressOf()))) return false;
  ComPtr<IPin> pin;
  while (pins->Next(1, pin.ReleaseAndGetAddressOf(), nullptr) == S_OK) {
    PIN_DIRECTION direction = PINDIR_INPUT;
    if (FAILED(pin->QueryDirection(&direction)) || direction != PINDIR_OUTPUT) continue;
    if (SUCCEEDED(builder->Connect(pin.Get(), sink->pin()))) return true;
  }
  return false;
}

double DShowStream::Graph::DurationSeconds() const {
  ComPtr<IPin> upstream;
  if (FAILED(sink->pin()->ConnectedTo(upstream.GetAddressOf()))) return 0;
  const auto seeking = TryQuery<IMediaSeeking>(upstream.Get());
  LONGLONG ticks = 0;
  if (seeking == nullptr || FAILED(seeking->GetDuration(&ticks))) return 0;
  return static_cast<double>(ticks) / kTicksPerSecond;
}

bool DShowStream::Graph::HasFailed() const {
  long code = 0;
  LONG_PTR first = 0;
  LONG_PTR second = 0;
  bool failed = false;
  while (events->GetEvent(&code, &first, &second, 0) == S_OK) {
    failed =
        failed || code == EC_ERRORABORT || code == EC_STREAM_ERROR_STOPPED || code == EC_USERABORT;
    events->FreeEventParams(code, first, second);
  }
  return failed;
}

DShowStream::DShowStream(std::unique_ptr<Graph> graph)
    : graph_(std::move(graph)), format_(*graph_->sink->format()) {
  const double frames = graph_->DurationSeconds() * format_.samples_per_sec;
  // A length beyond what anything can hold is none.
  if (frames > 0 && frames < 1e15) total_frames_ = std::llround(frames);
}

DShowStream::~DShowStream() = default;

std::unique_ptr<DShowStream> DShowStream::Open(const std::wstring& file_name) {
  auto graph = std::make_unique<Graph>();
  if (!graph->Build(file_name)) return nullptr;
  return std::unique_ptr<DShowStream>(new DShowStream(std::move(graph)));
}

bool DShowStream::Read(std::vector<std::byte>& block, const std::atomic<bool>& cancelled) {
  if (!running_) {
    running_ = true;
    ended_ = FAILED(graph_->control->Run());
  }
  const ULONGLONG begin = GetTickCount64();
  while (!ended_ && !cancelled) {
    switch (graph_->sink->Take(block, kPollMilliseconds)) {
      case AudioSink::Outcome::kBlock:
        return true;
      case AudioSink::Outcome::kEnded:
        ended_ = ended_well_ = true;
        break;
      case AudioSink::Outcome::kNothingYet:
        ended_ = graph_->HasFailed() || GetTickCount64() - begin > kPatienceMilliseconds;
        break;
    }
  }
  return false;
}

}  // namespace marlinda
