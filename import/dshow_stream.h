// DShowStream: the sound of a file as uncompressed blocks, decoded by the system's DirectShow
// filters.
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

// The last filter of a graph. It accepts uncompressed audio of any format on one input pin.
//
// The graph's threads deliver blocks to the pin, and one other thread calls Take. A delivery waits
// until Take has returned the previous block. The graph therefore decodes only as fast as the other
// thread calls Take, independent of any clock.
class AudioSink final : public GraphFilter {
 public:
  static ComPtr<AudioSink> Make() { return new AudioSink; }

  IPin* pin() noexcept { return pins().front().get(); }

  std::optional<PcmFormat> format() const {
    const std::lock_guard lock(mutex_);
    return format_;
  }

  enum class Outcome { kBlock, kEnded, kNothingYet };
  // Stores the next block of whole frames in `block`. Waits at most `milliseconds`.
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

  // Refuses all further deliveries and wakes a waiting delivery, so that the graph can stop.
  void Abandon() {
    const std::lock_guard lock(mutex_);
    abandoned_ = true;
    changed_.notify_all();
  }

  // Stops the filter and wakes a waiting delivery.
  STDMETHODIMP Stop() override {
    const HRESULT hr = GraphFilter::Stop();
    // Notifies under the lock. Otherwise a delivery could test the state before the stop, but begin
    // to wait after the notification.
    const std::lock_guard lock(mutex_);
    changed_.notify_all();
    return hr;
  }

 private:
  // Accepts any uncompressed format, but no change of format while connected.
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
          // The host knows only the format of the connection, so any other format ends the stream.
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
  // Guarded by mutex_:
  std::optional<PcmFormat> format_;
  std::vector<std::byte> block_;  // pending delivery
  bool has_block_ = false;
  bool flushing_ = false;
  bool ended_ = false;
  bool abandoned_ = false;
};

inline MediaType FirstType(IPin* pin) {
  ComPtr<IEnumMediaTypes> types;
  AM_MEDIA_TYPE* type = nullptr;
  if (SUCCEEDED(pin->EnumMediaTypes(types.GetAddressOf())) && types != nullptr) {
    types->Next(1, &type, nullptr);
  }
  return MediaType(type);
}

// Connects the first possible output of a filter with `sink`, if necessary through decoders. Omits
// video, because Wine would spend seconds on a search for filters that turn video into sound.
inline bool ConnectSound(const FilterGraph& graph, IBaseFilter* filter, IPin* sink) {
  bool connected = false;
  ForEachPin(filter, PINDIR_OUTPUT, [&](IPin* pin) {
    const MediaType type = FirstType(pin);
    const bool is_video = type && IsEqualGUID(type->majortype, MEDIATYPE_Video);
    return connected = !is_video && SUCCEEDED(graph.builder()->Connect(pin, sink));
  });
  return connected;
}

// Connects an output of a file with `sink` through `splitter`. Removes the splitter on failure.
inline bool ConnectThrough(const FilterGraph& graph, IPin* output, IBaseFilter* splitter,
                           IPin* sink) {
  if (FAILED(graph.builder()->AddFilter(splitter, nullptr))) return false;
  bool split = false;
  ForEachPin(splitter, PINDIR_INPUT, [&](IPin* input) {
    return split = SUCCEEDED(graph.builder()->ConnectDirect(output, input, nullptr));
  });
  if (split && ConnectSound(graph, splitter, sink)) return true;
  graph.builder()->RemoveFilter(splitter);
  return false;
}

// Connects the first output of `source` with `sink` through the first splitter that finds sound.
inline bool ConnectThroughSplitter(const FilterGraph& graph, IBaseFilter* source, IPin* sink) {
  ComPtr<IPin> output;
  ForEachPin(source, PINDIR_OUTPUT, [&](IPin* pin) {
    output = pin;
    return true;
  });
  const MediaType type = output ? FirstType(output.Get()) : nullptr;
  if (!type || !IsEqualGUID(type->majortype, MEDIATYPE_Stream)) return false;
  const GUID input[] = {type->majortype, type->subtype};
  ComPtr<IFilterMapper2> mapper;
  ComPtr<IEnumMoniker> monikers;
  if (FAILED(CreateInstance(CLSID_FilterMapper2, mapper)) ||
      mapper->EnumMatchingFilters(monikers.GetAddressOf(), 0, FALSE, MERIT_DO_NOT_USE + 1, TRUE, 1,
                                  input, nullptr, nullptr, FALSE, TRUE, 0, nullptr, nullptr,
                                  nullptr) != S_OK) {
    return false;
  }
  ComPtr<IMoniker> moniker;
  while (monikers->Next(1, moniker.ReleaseAndGetAddressOf(), nullptr) == S_OK) {
    ComPtr<IBaseFilter> splitter;
    if (SUCCEEDED(moniker->BindToObject(nullptr, nullptr, __uuidof(IBaseFilter),
                                        reinterpret_cast<void**>(splitter.GetAddressOf()))) &&
        ConnectThrough(graph, output.Get(), splitter.Get(), sink)) {
      return true;
    }
  }
  return false;
}

inline bool Build(const FilterGraph& graph, const std::wstring& file_name, AudioSink& sink) {
  ComPtr<IBaseFilter> source;
  return SUCCEEDED(graph.builder()->AddFilter(&sink, L"Audio")) &&
         SUCCEEDED(graph.builder()->AddSourceFilter(file_name.c_str(), L"Source",
                                                    source.GetAddressOf())) &&
         (ConnectThroughSplitter(graph, source.Get(), sink.pin()) ||
          ConnectSound(graph, source.Get(), sink.pin()));
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

// Use each object on one thread. A worker thread builds, runs and releases the graph, because the
// graph must not live in the host's apartment. Some decoders wait forever for the missing part of a
// damaged file. Therefore the worker thread is detached if the graph cannot be built or released
// within fifteen seconds. A detached thread keeps the module loaded.
//
// If a decoder's class has no ThreadingModel, COM creates the decoder in the process's main STA.
// The thread of the main STA may be waiting in Open or the destructor. Therefore these two
// functions serve incoming COM calls.
class DShowStream {
 public:
  // Returns null if no filter can decode the file, or if the file has no sound.
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
    // Treat an absurd length as unknown.
    if (frames > 0 && frames < 1e15) stream->total_frames_ = std::llround(frames);
    return stream;
  }

  ~DShowStream() {
    if (job_ == nullptr) return;
    // A waiting delivery would keep the graph from stopping.
    job_->sink->Abandon();
    job_->stop = true;
    SetEvent(job_->ordered.get());
    worker_.AwaitServingCalls(kPatienceMilliseconds);
    if (worker_.IsRunning()) worker_.Detach();
  }

  const PcmFormat& format() const noexcept { return format_; }

  // The number of frames, computed from the duration that the filters report, or 0 if they report
  // none. A compressed file may hold more or fewer frames.
  std::int64_t total_frames() const noexcept { return total_frames_; }

  // Stores the next whole frames in `block`. Returns false at the end of the stream, after an error
  // in the graph, after a stall of fifteen seconds, or once `cancelled` is set.
  bool Read(std::vector<std::byte>& block, const std::atomic<bool>& cancelled) {
    if (!job_->run.exchange(true)) SetEvent(job_->ordered.get());
    // Counts waits instead of time, so that a suspended process is not mistaken for a stall.
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

  // True once Read has reached the end of the stream without an error.
  bool has_ended_well() const noexcept { return ended_well_; }

 private:
  static constexpr DWORD kPatienceMilliseconds = 15000;
  static constexpr DWORD kPollMilliseconds = 100;

  // State shared with the worker thread.
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

    // Signalled once `format` and `seconds` are set or Serve has returned.
    const KernelHandle built = MakeEvent(true);
    std::optional<PcmFormat> format;
    double seconds = 0;
    std::atomic<bool> failed{false};

    // Orders to the worker thread. `ordered` is signalled after each change.
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
