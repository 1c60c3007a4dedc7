#include "import/dshow_stream.h"

#include <dshow.h>

#include <cmath>

#include "core/com_ptr.h"
#include "dshow/filter_graph.h"
#include "import/audio_sink.h"

namespace marlinda {
namespace {

constexpr DWORD kPollMilliseconds = 100;
constexpr ULONGLONG kPatienceMilliseconds = 60000;
constexpr double kTicksPerSecond = 10000000.0;

}  // namespace

struct DShowStream::Graph {
  ComPtr<AudioSink> sink = AudioSink::Make();
  FilterGraph filters;

  // A delivery that waits would keep the graph from stopping.
  ~Graph() { sink->Abandon(); }

  bool Build(const std::wstring& file_name);
  bool ConnectAnyOutput(IBaseFilter* source) const;
  double DurationSeconds() const;
};

bool DShowStream::Graph::Build(const std::wstring& file_name) {
  if (FAILED(filters.builder()->AddFilter(sink.Get(), L"Audio"))) return false;
  ComPtr<IBaseFilter> source;
  if (FAILED(filters.builder()->AddSourceFilter(file_name.c_str(), L"Source",
                                                source.GetAddressOf()))) {
    return false;
  }
  return ConnectAnyOutput(source.Get()) && sink->format();
}

// A source that splits the file itself has several outputs, and not all need be sound.
bool DShowStream::Graph::ConnectAnyOutput(IBaseFilter* source) const {
  bool connected = false;
  ForEachPin(source, PINDIR_OUTPUT, [&](IPin* pin) {
    return connected = SUCCEEDED(filters.builder()->Connect(pin, sink->pin()));
  });
  return connected;
}

double DShowStream::Graph::DurationSeconds() const {
  ComPtr<IPin> upstream;
  if (FAILED(sink->pin()->ConnectedTo(upstream.GetAddressOf()))) return 0;
  const auto seeking = TryQuery<IMediaSeeking>(upstream.Get());
  LONGLONG ticks = 0;
  if (seeking == nullptr || FAILED(seeking->GetDuration(&ticks))) return 0;
  return static_cast<double>(ticks) / kTicksPerSecond;
}

DShowStream::DShowStream(std::unique_ptr<Graph> graph)
    : graph_(std::move(graph)), format_(*graph_->sink->format()) {
  const double frames = graph_->DurationSeconds() * format_.samples_per_sec;
  // An absurd length counts as unknown.
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
    ended_ = FAILED(graph_->filters.Run());
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
        ended_ = graph_->filters.HasFailed() || GetTickCount64() - begin > kPatienceMilliseconds;
        break;
    }
  }
  return false;
}

}  // namespace marlinda
