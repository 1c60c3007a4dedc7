// The sound of a file as a run of uncompressed blocks, decoded by the DirectShow filters of the
// system.
#pragma once

#include <windows.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "core/apartment.h"
#include "core/com_ptr.h"
#include "core/handle.h"
#include "core/worker_thread.h"
#include "dshow/graph_filter.h"
#include "import/pcm_format.h"

namespace marlinda {

// The last filter of a graph: takes uncompressed audio of any format through one input pin and
// hands it to the thread that decodes the file.
//
// The graph's own threads deliver into the pin, one other thread takes blocks out. A delivery waits
// until its block has been taken, so the graph decodes no faster than it is read, and never by the
// clock.
class AudioSink final : public GraphFilter {
 public:
  static ComPtr<AudioSink> Make() { return new AudioSink; }

  IPin* pin() noexcept { return pins().front().get(); }

  // The format of the latest connection.
  std::optional<PcmFormat> format() const {
    const std::lock_guard lock(mutex_);
    return format_;
  }

  enum class Outcome { kBlock, kEnded, kNothingYet };
  // Waits at most `milliseconds` for the next block of whole frames and puts it into `block`.
  AudioSink::Outcome Take(std::vector<std::byte>& block, DWORD milliseconds) {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, std::chrono::milliseconds(milliseconds),
                      [&] { return has_block_ || ended_; });
    if (has_block_) {
      block.swap(block_);
      has_block_ = false;
      changed_.notify_all();
      return Outcome::kBlock;
    }
    return ended_ ? Outcome::kEnded : Outcome::kNothingYet;
  }

  // From now on deliveries are refused and none waits, so that the graph can be stopped.
  void Abandon() {
    const std::lock_guard lock(mutex_);
    abandoned_ = true;
    changed_.notify_all();
  }

  // Ends the wait of a delivery, too.
  STDMETHODIMP Stop() override {
    const HRESULT hr = GraphFilter::Stop();
    // Under the lock, so that no delivery looks before it and waits after it.
    const std::lock_guard lock(mutex_);
    changed_.notify_all();
    return hr;
  }

 private:
  // Takes every uncompressed format, one for as long as it is connected.
  class Pin final : public InputPin {
   public:
    Pin(GraphFilter& filter, AudioSink& sink)
        : InputPin(filter, {.accepts = {},
                            .receive = [&](auto bytes) { return sink.Deliver(bytes); },
                            .end = [&] { return sink.End(); }}),
          sink_(sink) {}

    STDMETHODIMP ReceiveConnection(IPin* connector, const AM_MEDIA_TYPE* type) override {
      const HRESULT hr = InputPin::ReceiveConnection(connector, type);
      if (SUCCEEDED(hr)) sink_.SetFormat(ParseWaveFormat(this->type().bytes()));
      return hr;
    }
    STDMETHODIMP BeginFlush() override {
      sink_.SetFlushing(true);
      return S_OK;
    }
    STDMETHODIMP EndFlush() override {
      sink_.SetFlushing(false);
      return S_OK;
    }

   private:
    bool Accepts(const AudioType& type) const override {
      return ParseWaveFormat(type.bytes()).has_value();
    }

    STDMETHODIMP GetAllocator(IMemAllocator**) override { return VFW_E_NO_ALLOCATOR; }
    STDMETHODIMP ReceiveCanBlock() override { return S_OK; }
    STDMETHODIMP Receive(IMediaSample* sample) override {
      if (sample == nullptr) return E_POINTER;
      return ComCall([&] {
        AM_MEDIA_TYPE* announced = nullptr;
        if (sample->GetMediaType(&announced) == S_OK && announced != nullptr) {
          const MediaType owner(announced);
          // The format was announced and stays true of all that is delivered: another one is the
          // end.
          if (ParseWaveFormat(AudioType(*announced).bytes()) != sink_.format()) {
            sink_.End();
            return S_FALSE;
          }
        }
        return InputPin::Receive(sample);
      });
    }

    AudioSink& sink_;
  };

  AudioSink() { AddPin<Pin>(*this); }
  ~AudioSink() override = default;

  HRESULT Deliver(std::span<const std::byte> bytes) {
    std::unique_lock lock(mutex_);
    const auto refused = [&] {
      return abandoned_ || flushing_ || ended_ || state() == State_Stopped || !format_;
    };
    changed_.wait(lock, [&] { return !has_block_ || refused(); });
    if (refused()) return S_FALSE;
    const std::size_t whole = bytes.size() - bytes.size() % format_->FrameBytes();
    if (whole == 0) return S_OK;
    block_.assign(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(whole));
    has_block_ = true;
    changed_.notify_all();
    return S_OK;
  }
  HRESULT End() {
    const std::lock_guard lock(mutex_);
    ended_ = true;
    changed_.notify_all();
    return S_OK;
  }
  void SetFormat(const std::optional<PcmFormat>& format) {
    const std::lock_guard lock(mutex_);
    format_ = format;
  }
  void SetFlushing(bool flushing) {
    const std::lock_guard lock(mutex_);
    flushing_ = flushing;
    if (flushing) has_block_ = false;
    changed_.notify_all();
  }

  mutable std::mutex mutex_;
  std::condition_variable changed_;
  // All below is guarded by the mutex.
  std::optional<PcmFormat> format_;
  std::vector<std::byte> block_;  // delivered and not yet taken
  bool has_block_ = false;
  bool flushing_ = false;
  bool ended_ = false;
  bool abandoned_ = false;
};

// A source that splits the file itself has several outputs, and not all need be sound.
inline bool ConnectAnyOutput(const FilterGraph& graph, IBaseFilter* source, IPin* sink) {
  bool connected = false;
  ForEachPin(source, PINDIR_OUTPUT,
             [&](IPin* pin) { return connected = SUCCEEDED(graph.builder()->Connect(pin, sink)); });
  return connected;
}

inline bool Build(const FilterGraph& graph, const std::wstring& file_name, AudioSink& sink) {
  ComPtr<IBaseFilter> source;
  return SUCCEEDED(graph.builder()->AddFilter(&sink, L"Audio")) &&
         SUCCEEDED(graph.builder()->AddSourceFilter(file_name.c_str(), L"Source",
                                                    source.GetAddressOf())) &&
         ConnectAnyOutput(graph, source.Get(), sink.pin());
}

inline double DurationSeconds(AudioSink& sink) {
  constexpr double kTicksPerSecond = 10000000.0;
  ComPtr<IPin> upstream;
  if (FAILED(sink.pin()->ConnectedTo(upstream.GetAddressOf()))) return 0;
  const auto seeking = TryQuery<IMediaSeeking>(upstream.Get());
  LONGLONG ticks = 0;
  if (seeking == nullptr || FAILED(seeking->GetDuration(&ticks))) return 0;
  return static_cast<double>(ticks) / kTicksPerSecond;
}

inline KernelHandle MakeEvent(bool manual_reset) {
  KernelHandle event(CreateEventW(nullptr, manual_reset, FALSE, nullptr));
  if (!event) throw HResultError(LastErrorResult());
  return event;
}

// Belongs to one thread. The graph is built, run and released on a thread of the stream's own,
// because it must not live in the apartment of a host, and because some decoders wait for ever for
// the missing part of a damaged file. A decoder that does not answer for fifteen seconds is given
// up: its thread is left behind and keeps the module loaded.
//
// A decoder without a threading model of its own is made on the host's first thread. Therefore
// Open and the destructor serve the calls that come to the apartment of the thread that waits.
class DShowStream {
 public:
  // Null when no filter can decode the file, or it has no sound.
  static std::unique_ptr<DShowStream> Open(const std::wstring& file_name) {
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

  ~DShowStream() {
    if (job_ == nullptr) return;
    // A delivery that waits would keep the graph from stopping.
    job_->sink->Abandon();
    job_->stop = true;
    SetEvent(job_->ordered.get());
    worker_.AwaitServingCalls(kPatienceMilliseconds);
    if (worker_.IsRunning()) worker_.Detach();
  }

  const PcmFormat& format() const noexcept { return format_; }

  // Frames by the duration that the filters report; 0 where they report none. Compressed files may
  // hold more or fewer.
  std::int64_t total_frames() const noexcept { return total_frames_; }

  // Puts the next whole frames into `block`. False at the end, which comes early after an error in
  // the graph, when it has delivered nothing for fifteen seconds, and once `cancelled` is set.
  bool Read(std::vector<std::byte>& block, const std::atomic<bool>& cancelled) {
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

  // Everything has been read, to the end that the filters announced.
  bool has_ended_well() const noexcept { return ended_well_; }

 private:
  static constexpr DWORD kPatienceMilliseconds = 15000;
  static constexpr DWORD kPollMilliseconds = 100;

  // What a stream shares with the thread of its graph.
  struct Job {
    explicit Job(std::wstring name) : file_name(std::move(name)) {}
    void Serve() {
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

  DShowStream() = default;

  std::shared_ptr<Job> job_;
  WorkerThread worker_;
  PcmFormat format_;
  std::int64_t total_frames_ = 0;
  bool ended_ = false;
  bool ended_well_ = false;
};

}  // namespace marlinda
