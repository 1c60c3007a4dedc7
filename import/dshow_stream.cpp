#include "import/dshow_stream.h"

#include <dshow.h>

#include <cmath>
#include <optional>
#include <utility>

#include "core/apartment.h"
#include "core/com_ptr.h"
#include "core/handle.h"
#include "import/audio_sink.h"

namespace marlinda {
namespace {

constexpr DWORD kPatienceMilliseconds = 15000;
constexpr DWORD kPollMilliseconds = 100;
constexpr double kTicksPerSecond = 10000000.0;

// A source that splits the file itself has several outputs, and not all need be sound.
bool ConnectAnyOutput(const FilterGraph& graph, IBaseFilter* source, IPin* sink) {
  bool connected = false;
  ForEachPin(source, PINDIR_OUTPUT,
             [&](IPin* pin) { return connected = SUCCEEDED(graph.builder()->Connect(pin, sink)); });
  return connected;
}

bool Build(const FilterGraph& graph, const std::wstring& file_name, AudioSink& sink) {
  ComPtr<IBaseFilter> source;
  return SUCCEEDED(graph.builder()->AddFilter(&sink, L"Audio")) &&
         SUCCEEDED(graph.builder()->AddSourceFilter(file_name.c_str(), L"Source",
                                                    source.GetAddressOf())) &&
         ConnectAnyOutput(graph, source.Get(), sink.pin());
}

double DurationSeconds(AudioSink& sink) {
  ComPtr<IPin> upstream;
  if (FAILED(sink.pin()->ConnectedTo(upstream.GetAddressOf()))) return 0;
  const auto seeking = TryQuery<IMediaSeeking>(upstream.Get());
  LONGLONG ticks = 0;
  if (seeking == nullptr || FAILED(seeking->GetDuration(&ticks))) return 0;
  return static_cast<double>(ticks) / kTicksPerSecond;
}

KernelHandle MakeEvent(bool manual_reset) {
  KernelHandle event(CreateEventW(nullptr, manual_reset, FALSE, nullptr));
  if (!event) throw HResultError(LastErrorResult());
  return event;
}

}  // namespace

// What a stream shares with the thread of its graph.
struct DShowStream::Job {
  explicit Job(std::wstring name) : file_name(std::move(name)) {}
  void Serve();

  const std::wstring file_name;
  const ComPtr<AudioSink> sink = AudioSink::Make();

  // The graph's thread has set the two values below it, or ended.
  const KernelHandle built = MakeEvent(true);
  std::optional<PcmFormat> format;
  double seconds = 0;
  std::atomic<bool> failed{false};

  // Orders to the graph's thread, with an event for each change.
  const KernelHandle ordered = MakeEvent(false);
  std::atomic<bool> run{false};
  std::atomic<bool> stop{false};
};

void DShowStream::Job::Serve() {
  const Apartment apartment(COINIT_MULTITHREADED);
  Check(apartment.result());
  FilterGraph graph;
  if (!Build(graph, file_name, *sink.Get())) return;
  seconds = DurationSeconds(*sink.Get());
  format = sink->format();
  SetEvent(built.get());
  while (!run && !stop) WaitForSingleObject(ordered.get(), INFINITE);
  if (!stop && FAILED(graph.Run())) failed = true;
  while (!stop) {
    if (graph.HasFailed()) failed = true;
    WaitForSingleObject(ordered.get(), kPollMilliseconds);
  }
}

std::unique_ptr<DShowStream> DShowStream::Open(const std::wstring& file_name) {
  std::unique_ptr<DShowStream> stream(new DShowStream);
  const auto job = std::make_shared<Job>(file_name);
  Check(stream->worker_.Start([job] {
    ComCall([&] { job->Serve(); });
    SetEvent(job->built.get());
  }));
  stream->job_ = job;
  if (!AwaitServingCalls(job->built.get(), kPatienceMilliseconds)) {
    stream->worker_.Detach();
    return nullptr;
  }
  if (!job->format) return nullptr;
  stream->format_ = *job->format;
  const double frames = job->seconds * stream->format_.samples_per_sec;
  // An absurd length counts as unknown.
  if (frames > 0 && frames < 1e15) stream->total_frames_ = std::llround(frames);
  return stream;
}

DShowStream::~DShowStream() {
  if (job_ == nullptr) return;
  // A delivery that waits would keep the graph from stopping.
  job_->sink->Abandon();
  job_->stop = true;
  SetEvent(job_->ordered.get());
  worker_.AwaitServingCalls(kPatienceMilliseconds);
  if (worker_.IsRunning()) worker_.Detach();
}

bool DShowStream::Read(std::vector<std::byte>& block, const std::atomic<bool>& cancelled) {
  if (!job_->run.exchange(true)) SetEvent(job_->ordered.get());
  // Counted in waits, so that a process that was suspended has not lost its patience.
  for (DWORD waited = 0; !ended_ && !cancelled; waited += kPollMilliseconds) {
    switch (job_->sink->Take(block, kPollMilliseconds)) {
      case AudioSink::Outcome::kBlock:
        return true;
      case AudioSink::Outcome::kEnded:
        ended_ = ended_well_ = true;
        break;
      case AudioSink::Outcome::kNothingYet:
        ended_ = job_->failed || waited >= kPatienceMilliseconds;
        break;
    }
  }
  return false;
}

}  // namespace marlinda
