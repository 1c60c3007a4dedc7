#include "task/connection.h"

#include <algorithm>
#include <utility>

#include "core/sample_array.h"
#include "core/sample_count.h"

namespace marlinda {
namespace {

constexpr std::size_t kFramesPerPull = 65535;
// Blocks in a row of which nothing arrives in the queue, before a reader is taken for barren.
constexpr int kMostBarrenPulls = 10;
// No converter holds back as much as all of these blocks.
constexpr int kMostSilentBlocks = 16;
constexpr std::size_t kSilentFrames = 4096;

bool IsRunning(ICoreTask* task) {
  VARIANT_BOOL running = VARIANT_FALSE;
  return SUCCEEDED(task->QueryIsTaskRunning(&running)) && running != VARIANT_FALSE;
}

// Unknown where the source does not tell.
StreamFormat AskFormat(const Parties& parties) {
  StreamFormat format;
  HRESULT hr = E_NOINTERFACE;
  if (parties.reader) {
    hr = parties.reader->GetFormat(&format.rate, &format.channels);
  } else if (const auto info = TryQuery<IExFormatInfo>(parties.import_filter.Get())) {
    hr = info->GetFormat(&format.rate, &format.channels);
  }
  return SUCCEEDED(hr) && format.IsKnown() ? format : StreamFormat{};
}

// Leaves `count` alone where there is no source.
HRESULT AskSampleCount(const Parties& parties, __int64& count) {
  if (parties.reader) return parties.reader->GetSampleCount(&count);
  if (parties.import_filter) return parties.import_filter->GetSourceSampleCount(&count);
  return S_OK;
}

}  // namespace

Connection::Connection(Parties parties, const StreamFormat& target)
    : target_(target), parties_(std::move(parties)) {
  LearnSource();
}

void Connection::Start() {
  LearnSource();
  started_ = true;
  const Parties parties = Members();
  // E_NOTIMPL is no failure: a task may answer that it has done what it could, as the connector
  // does.
  bool export_failed = false;
  if (parties.export_task) {
    const HRESULT hr = parties.export_task->Start();
    export_failed = FAILED(hr) && hr != E_NOTIMPL;
  }
  if (parties.import_task && FAILED(parties.import_task->Start())) {
    import_has_ended_ = !IsRunning(parties.import_task.Get());
  }
  // One that failed never reads: an import that waits for room must not wait for it.
  if (parties.export_task) {
    export_was_seen_ = export_failed || IsRunning(parties.export_task.Get());
  }
}

void Connection::Cancel() {
  Parties parties = Members();
  if (!parties.export_task) return;
  // The export ends after its present block. As long as the import delivers, that block is whole.
  queue_.Hurry();
  parties.export_task->Cancel();
  // Gone before the import is told: its owner may wait for the file.
  ReleaseExport();
  parties.export_filter.Reset();
  parties.export_task.Reset();
  EndImport(parties);
}

void Connection::Replace() {
  const Parties parties = Members();
  queue_.Hurry();
  if (parties.export_task && IsRunning(parties.export_task.Get())) parties.export_task->Cancel();
  queue_.Close();
  if (parties.import_task && IsRunning(parties.import_task.Get())) parties.import_task->Cancel();
  Release();
}

HRESULT Connection::QueryIsRunning(VARIANT_BOOL* running) {
  *running = VARIANT_FALSE;
  const Parties parties = Members();
  if (!parties.export_task) return S_OK;
  const HRESULT hr = parties.export_task->QueryIsTaskRunning(running);
  if (FAILED(hr)) return hr;
  if (*running == VARIANT_FALSE) {
    EndImport(parties);
  } else if (started_) {
    export_was_seen_ = true;
    // Asked here, where the filter lives, so that no worker thread has to.
    if (parties.import_task) import_has_ended_ = !IsRunning(parties.import_task.Get());
  }
  return hr;
}

HRESULT Connection::GetProgress(float* progress) {
  const Parties parties = Members();
  if (parties.export_task) return parties.export_task->GetProgress(progress);
  *progress = 1.0F;
  return S_OK;
}

HRESULT Connection::GetSampleCount(__int64* count) {
  LearnSource();
  __int64 frames = 0;
  {
    // Whoever asks after the end gets what was last known.
    const std::lock_guard lock(parties_mutex_);
    frames = source_frames_;
  }
  const HRESULT hr = AskSampleCount(Members(), frames);
  if (FAILED(hr)) return hr;
  *count = ConvertSampleCount(frames, SourceFormat().rate, target_.rate);
  return S_OK;
}

HRESULT Connection::Read(SAFEARRAY* array) {
  SampleArrayView view;
  const HRESULT hr = view.Lock(array);
  if (FAILED(hr)) return hr;
  const Parties parties = Members();
  std::span<float> rest = view.samples();
  int timeouts = 0;
  // In pieces, because a reader that waits for more than the writer may queue waits for ever.
  while (!rest.empty()) {
    const std::span<float> piece = rest.first(std::min(rest.size(), PacedQueue::kMostQueued));
    rest = rest.subspan(piece.size());
    const bool whole = parties.reader ? PullSamples(parties.reader.Get(), piece.size())
                                      : AwaitSamples(piece.size(), timeouts);
    queue_.Take(piece);
    if (!whole) {
      std::ranges::fill(rest, 0.0F);
      return S_FALSE;
    }
  }
  return S_OK;
}

HRESULT Connection::Write(SAFEARRAY* array) {
  SampleArrayView view;
  const HRESULT hr = view.Lock(array);
  if (FAILED(hr)) return hr;
  if (!queue_.AwaitRoom([this] { return !export_was_seen_ || ExportIsRunning(); })) return S_OK;
  starved_ = false;
  Push(array, view.samples());
  return S_OK;
}

Parties Connection::Members() const {
  const std::lock_guard lock(parties_mutex_);
  return parties_;
}

void Connection::ReleaseExport() {
  Parties released;
  const std::lock_guard lock(parties_mutex_);
  released.export_filter = std::exchange(parties_.export_filter, {});
  released.export_task = std::exchange(parties_.export_task, {});
}

void Connection::Release() {
  Parties released;
  {
    const std::lock_guard lock(parties_mutex_);
    released = std::exchange(parties_, {});
    // The reader is no task and stays until the next set-up.
    parties_.reader = released.reader;
  }
  queue_.CloseAndClear();
}

void Connection::EndImport(const Parties& parties) {
  // Lets an import out that waits for room: nobody is there to make any.
  queue_.Close();
  if (parties.import_task) parties.import_task->Cancel();
  Release();
}

void Connection::LearnSource() {
  if (started_) return;
  const Parties parties = Members();
  if (!parties.reader && !parties.import_filter) return;
  const StreamFormat format = AskFormat(parties);
  __int64 frames = 0;
  const HRESULT hr = AskSampleCount(parties, frames);
  {
    const std::lock_guard lock(parties_mutex_);
    if (SUCCEEDED(hr)) source_frames_ = frames;
    if (!format.IsKnown() || format == source_) return;
    source_ = format;
  }
  ConverterLink converter;
  if (format != target_) converter = ConverterLink(format, target_);
  const std::lock_guard lock(conversion_mutex_);
  converter_ = std::move(converter);
}

StreamFormat Connection::SourceFormat() const {
  const std::lock_guard lock(parties_mutex_);
  return source_;
}

bool Connection::ExportIsRunning() const {
  const Parties parties = Members();
  return parties.export_task && IsRunning(parties.export_task.Get());
}

bool Connection::PullSamples(IAudioReader* reader, std::size_t wanted) {
  const std::lock_guard lock(pull_mutex_);
  const StreamFormat format = SourceFormat();
  if (!format.IsKnown()) return queue_.Count() >= wanted;
  const ScratchLease block(scratch_);
  for (int barren = 0; queue_.Count() < wanted;) {
    if (barren == kMostBarrenPulls) return false;
    const std::size_t before = queue_.Count();
    PullBlock(reader, block, format);
    barren = queue_.Count() > before ? 0 : barren + 1;
  }
  return true;
}

bool Connection::AwaitSamples(std::size_t wanted, int& timeouts) {
  while (queue_.Count() < wanted) {
    if (HasWholeSource() && PushSilence()) continue;
    // After one read that waited in vain the others need not, when nobody is left to deliver.
    const bool hopeless = starved_ && import_has_ended_;
    if (!hopeless && queue_.AwaitSamples(wanted, timeouts)) continue;
    starved_ = true;
    if (import_has_ended_) PushSilence();
    return false;
  }
  return true;
}

void Connection::PullBlock(IAudioReader* reader, const ScratchLease& block,
                           const StreamFormat& format) {
  SAFEARRAY* const array =
      block->Prepare(kFramesPerPull * static_cast<std::size_t>(format.channels));
  // What a source fails to deliver is silence, so its result does not matter.
  reader->ReadAudio(read_position_, array);
  SilenceBeyondEnd(block->samples(), read_position_, format.channels);
  read_position_ += static_cast<__int64>(kFramesPerPull);
  Push(array, block->samples());
}

void Connection::SilenceBeyondEnd(std::span<float> samples, __int64 first_frame,
                                  SHORT channels) const {
  __int64 end = 0;
  {
    const std::scoped_lock lock(parties_mutex_, conversion_mutex_);
    // Unconverted samples come just as the source gives them, and nobody needs those after its end.
    // A converter mixes neighbours: what a source has after its end, such as the next take of a
    // pool, must not be heard in the last frames before it.
    if (!converter_ || source_frames_ <= 0) return;
    end = source_frames_;
  }
  if (end - first_frame >= static_cast<__int64>(samples.size() / channels)) return;
  const auto kept = static_cast<std::size_t>(std::max<__int64>(end - first_frame, 0));
  std::ranges::fill(samples.subspan(kept * channels), 0.0F);
}

void Connection::Push(SAFEARRAY* array, std::span<const float> samples) {
  const std::lock_guard lock(conversion_mutex_);
  samples_in_ += samples.size();
  if (converter_) {
    converter_.Pass(array, queue_);
  } else {
    queue_.Put(samples);
  }
}

bool Connection::HasWholeSource() const {
  const std::scoped_lock lock(parties_mutex_, conversion_mutex_);
  return source_.IsKnown() && source_frames_ > 0 &&
         samples_in_ / static_cast<std::uint64_t>(source_.channels) >=
             static_cast<std::uint64_t>(source_frames_);
}

bool Connection::PushSilence() {
  const StreamFormat format = SourceFormat();
  const std::lock_guard lock(conversion_mutex_);
  if (!converter_ || silent_blocks_ >= kMostSilentBlocks) return false;
  ++silent_blocks_;
  converter_.PassSilence(kSilentFrames * static_cast<std::size_t>(format.channels), queue_);
  return true;
}

}  // namespace marlinda
