#include "edit/edited_audio.h"

#include <algorithm>
#include <mutex>
#include <optional>
#include <shared_mutex>
#include <utility>

#include "core/sample_array.h"
#include "core/text.h"
#include "edit/annotation_copy.h"
#include "edit/nested_call.h"
#include "edit/piece_plot.h"
#include "edit/waveplot.h"

namespace marlinda {
namespace {

// More levels of documents within themselves than any content needs, and few enough for a thread's
// stack.
constexpr int kDeepestRead = 64;

// Events of _IEAUpdateEvents and _IEAUndoEvents.
constexpr DISPID kFireContentChanged = 3;
constexpr DISPID kFireStoreUndo = 1;

// The record with this index. Compared without sign, so that a negative index fails too.
template <class Record>
Record& RecordAt(std::vector<Record>& records, LONG index) {
  const auto place = static_cast<ULONG>(index);
  if (place >= records.size()) throw HResultError(E_INVALIDARG);
  return records[place];
}

template <class Record>
void RemoveRecord(std::vector<Record>& records, LONG index) {
  RecordAt(records, index);
  records.erase(records.begin() + index);
}

bool SameObject(IUnknown* a, IUnknown* b) {
  return TryQuery<IUnknown>(a).Get() == TryQuery<IUnknown>(b).Get();
}

// Tells the caller of the iteration about a segment. The source is lent, without a reference: it
// stays valid as long as the segment, and nobody may release it. Deliberate; callers rely on it.
// Past the end only `valid` is written.
template <class Segment>
HRESULT Lend(const Segment* segment, IAudioReader** source, __int64* begin, __int64* end,
             LONG* valid) {
  *valid = segment != nullptr ? 1 : 0;
  if (segment == nullptr) return S_OK;
  *source = segment->source.Get();
  *begin = segment->begin;
  *end = segment->end;
  return S_OK;
}

}  // namespace

// A piece goes through an array of exactly its own size, so that a source cannot tell who reads it,
// and delivers nothing to the caller when it fails. Deliberate: the pieces are written one after
// another from the start of the array also when the read begins before the document, and where
// backward segments make them longer than the array, what does not fit is read and dropped.
STDMETHODIMP CEditedAudio::ReadAudio(__int64 nSamplePos, SAFEARRAY* psaAudioData) {
  return ComCall([&]() -> HRESULT {
    SampleArrayView view;
    Check(view.Lock(psaAudioData));
    const NestedCall call(this, NestedCall::Kind::kRead);
    if (call.Depth() > kDeepestRead) return E_FAIL;

    std::shared_lock lock(lock_);
    const __int64 channels = format_.channels;
    if (channels == 0) {
      lock.unlock();
      std::ranges::fill(view.samples(), 0.0F);
      return S_FALSE;
    }
    // With a negative channel count the frames are negative too, and no piece fits between.
    const __int64 frames = static_cast<__int64>(view.samples().size()) / channels;
    const CSection request(nSamplePos, SaturatingAdd(nSamplePos, frames));
    const std::vector<Segment> pieces = segments_.Cut(request);
    const __int64 length = segments_.Length();
    lock.unlock();

    if (length < request.end) {
      const __int64 left = std::max<__int64>(0, SaturatingSubtract(length, request.begin));
      std::ranges::fill(view.samples().subspan(static_cast<std::size_t>(left * channels)), 0.0F);
    }
    std::span<float> room = view.samples();
    ScratchLease scratch(scratch_);
    for (const Segment& piece : pieces) {
      const auto count = static_cast<std::size_t>(piece.Length() * channels);
      const std::span<float> target = room.first(std::min(count, room.size()));
      if (piece.source) {
        Check(piece.source->ReadAudio(piece.begin, scratch->Prepare(count)));
        const std::span<const float> delivered = scratch->samples();
        std::ranges::copy(delivered.first(std::min(delivered.size(), target.size())),
                          target.begin());
      } else {
        std::ranges::fill(target, 0.0F);
      }
      room = room.subspan(target.size());
    }
    return S_OK;
  });
}

STDMETHODIMP CEditedAudio::GetFormat(LONG* pnSamplesPerSec, SHORT* pnChannels) {
  if (pnSamplesPerSec == nullptr || pnChannels == nullptr) return E_POINTER;
  const Format format = CurrentFormat();
  *pnSamplesPerSec = format.samples_per_sec;
  *pnChannels = format.channels;
  return S_OK;
}

STDMETHODIMP CEditedAudio::GetSampleCount(__int64* pnSamples) {
  if (pnSamples == nullptr) return E_POINTER;
  const std::shared_lock lock(lock_);
  *pnSamples = segments_.Length();
  return S_OK;
}

// Deliberate: the sources that were opened before the failing one stay open.
STDMETHODIMP CEditedAudio::OpenDevice() {
  return ComCall([&]() -> HRESULT {
    const NestedCall call(this, NestedCall::Kind::kOpen);
    if (call.Depth() > 1) return E_FAIL;
    for (const auto& source : Sources()) Check(source->OpenDevice());
    return S_OK;
  });
}

STDMETHODIMP CEditedAudio::CloseDevice() {
  return ComCall([&]() -> HRESULT {
    const NestedCall call(this, NestedCall::Kind::kClose);
    if (call.Depth() > 1) return S_OK;
    for (const auto& source : Sources()) source->CloseDevice();
    return S_OK;
  });
}

// Scrubbing and playback come with the device classes. Until then nothing plays, and that is what
// the methods that ask or stop say.
STDMETHODIMP CEditedAudio::StartScrub() { return E_NOTIMPL; }

STDMETHODIMP CEditedAudio::SetScrubPosition(__int64) { return E_NOTIMPL; }

STDMETHODIMP CEditedAudio::StopScrub() { return E_NOTIMPL; }

STDMETHODIMP CEditedAudio::Play(__int64, __int64, ULONG, VARIANT_BOOL) { return E_NOTIMPL; }

STDMETHODIMP CEditedAudio::StopPlay() { return S_OK; }

STDMETHODIMP CEditedAudio::GetPlayStatus(VARIANT_BOOL* pbPlaying, __int64* pnPosition) {
  if (pbPlaying == nullptr || pnPosition == nullptr) return E_POINTER;
  *pbPlaying = VARIANT_FALSE;
  *pnPosition = 0;
  return S_OK;
}

STDMETHODIMP CEditedAudio::GetOutputLevel(SHORT, float* pfOutputLevel) {
  return pfOutputLevel == nullptr ? E_POINTER : E_NOTIMPL;
}

STDMETHODIMP CEditedAudio::SetPlaybackDevice(LONG niDevice) {
  playback_device_ = niDevice;
  return S_OK;
}

STDMETHODIMP CEditedAudio::ModifyPlaySection(__int64, __int64) { return E_NOTIMPL; }

STDMETHODIMP CEditedAudio::AddLabel(__int64 nPosition, BSTR bstrName) {
  return ComCall([&] {
    Label label{nPosition, ToAnsi(bstrName)};
    const std::unique_lock lock(lock_);
    annotations_.labels.push_back(std::move(label));
    return S_OK;
  });
}

STDMETHODIMP CEditedAudio::GetLabelCount(LONG* pnLabelCount) {
  if (pnLabelCount == nullptr) return E_POINTER;
  const std::shared_lock lock(lock_);
  *pnLabelCount = static_cast<LONG>(annotations_.labels.size());
  return S_OK;
}

STDMETHODIMP CEditedAudio::GetLabel(LONG niLabel, __int64* pnPosition, BSTR* pbstrName) {
  if (pnPosition == nullptr || pbstrName == nullptr) return E_POINTER;
  *pbstrName = nullptr;
  return ComCall([&] {
    const std::shared_lock lock(lock_);
    const Label& label = RecordAt(annotations_.labels, niLabel);
    *pbstrName = ToBstr(label.name);
    *pnPosition = label.position;
    return S_OK;
  });
}

STDMETHODIMP CEditedAudio::SetLabel(LONG niLabel, __int64 nPosition, BSTR bstrName) {
  return ComCall([&] {
    Label label{nPosition, ToAnsi(bstrName)};
    const std::unique_lock lock(lock_);
    RecordAt(annotations_.labels, niLabel) = std::move(label);
    return S_OK;
  });
}

STDMETHODIMP CEditedAudio::RemoveLabel(LONG niLabel) {
  return ComCall([&] {
    const std::unique_lock lock(lock_);
    RemoveRecord(annotations_.labels, niLabel);
    return S_OK;
  });
}

STDMETHODIMP CEditedAudio::RemoveAllLabels() {
  const std::unique_lock lock(lock_);
  annotations_.labels.clear();
  return S_OK;
}

STDMETHODIMP CEditedAudio::AddSectionMarker(__int64 nBegin, __int64 nEnd, BSTR bstrName) {
  return ComCall([&] {
    SectionMarker marker{{nBegin, nEnd}, ToAnsi(bstrName)};
    const std::unique_lock lock(lock_);
    annotations_.markers.push_back(std::move(marker));
    return S_OK;
  });
}

STDMETHODIMP CEditedAudio::GetMarkerCount(LONG* pnMarkerCount) {
  if (pnMarkerCount == nullptr) return E_POINTER;
  const std::shared_lock lock(lock_);
  *pnMarkerCount = static_cast<LONG>(annotations_.markers.size());
  return S_OK;
}

STDMETHODIMP CEditedAudio::GetSectionMarker(LONG niSectionMarker, __int64* pnBegin, __int64* pnEnd,
                                            BSTR* pbstrName) {
  if (pnBegin == nullptr || pnEnd == nullptr || pbstrName == nullptr) return E_POINTER;
  *pbstrName = nullptr;
  return ComCall([&] {
    const std::shared_lock lock(lock_);
    const SectionMarker& marker = RecordAt(annotations_.markers, niSectionMarker);
    *pbstrName = ToBstr(marker.name);
    *pnBegin = marker.section.begin;
    *pnEnd = marker.section.end;
    return S_OK;
  });
}

STDMETHODIMP CEditedAudio::SetSectionMarker(LONG niSectionMarker, __int64 nBegin, __int64 nEnd,
                                            BSTR bstrName) {
  return ComCall([&] {
    SectionMarker marker{{nBegin, nEnd}, ToAnsi(bstrName)};
    const std::unique_lock lock(lock_);
    RecordAt(annotations_.markers, niSectionMarker) = std::move(marker);
    return S_OK;
  });
}

STDMETHODIMP CEditedAudio::RemoveSectionMarker(LONG niSectionMarker) {
  return ComCall([&] {
    const std::unique_lock lock(lock_);
    RemoveRecord(annotations_.markers, niSectionMarker);
    return S_OK;
  });
}

STDMETHODIMP CEditedAudio::RemoveAllSectionMarkers() {
  const std::unique_lock lock(lock_);
  annotations_.markers.clear();
  return S_OK;
}

// Deliberate: the array holds floats although the type library declares shorts, and columns that no
// piece is drawn into keep what the host put there. Pieces are laid side by side from the first
// column also when the range begins before the document.
STDMETHODIMP CEditedAudio::ReadWaveplot(__int64 nBegin, __int64 nEnd, SAFEARRAY* psaPeaks) {
  return ComCall([&] {
    SampleArrayView view;
    Check(view.Lock(psaPeaks));
    std::shared_lock lock(lock_);
    if (format_.channels <= 0) return S_OK;
    const auto channels = static_cast<std::size_t>(format_.channels);
    const std::vector<Segment> pieces = segments_.Cut({nBegin, nEnd});
    lock.unlock();

    const std::size_t pair_floats = 2 * channels;
    const auto columns = static_cast<__int64>(view.samples().size() / pair_floats);
    const __int64 range = SaturatingSubtract(nEnd, nBegin);
    __int64 offset = 0;
    for (const Segment& piece : pieces) {
      const __int64 first = Scale(offset, columns, range);
      offset = SaturatingAdd(offset, piece.Length());
      const __int64 last = Scale(offset, columns, range);
      // Backward segments can make the pieces wider than the array.
      if (first >= last || first >= columns) continue;
      const std::span<float> pairs = view.samples().subspan(
          static_cast<std::size_t>(first) * pair_floats,
          static_cast<std::size_t>(std::min(last, columns) - first) * pair_floats);
      DrawPiece(piece.source.Get(), piece, channels, last - first, pairs, scratch_);
    }
    return S_OK;
  });
}

STDMETHODIMP CEditedAudio::SetFormat(LONG nSamplesPerSec, SHORT nChannels, SHORT nBitsPerSample) {
  const std::unique_lock lock(lock_);
  format_ = {nSamplesPerSec, nChannels, nBitsPerSample};
  return S_OK;
}

STDMETHODIMP CEditedAudio::GetBitsPerSample(SHORT* pnBitsPerSample) {
  if (pnBitsPerSample == nullptr) return E_POINTER;
  *pnBitsPerSample = CurrentFormat().bits_per_sample;
  return S_OK;
}

STDMETHODIMP CEditedAudio::Insert(__int64 nPosition, IEditedAudio* peaInsert) {
  if (peaInsert == nullptr) return E_POINTER;
  return ComCall([&] {
    if (SameObject(peaInsert, Identity())) {
      // What is inserted is the document as it was before.
      ComPtr<IEditedAudio> before;
      Check(CreateInstance(CLSID_CEditedAudio, before));
      CopyAll(before.Get());
      return Insert(nPosition, before.Get());
    }
    InsertSegments(nPosition, TakeSegments(peaInsert));
    return CopyAnnotations(peaInsert, Identity(), nPosition, std::nullopt);
  });
}

STDMETHODIMP CEditedAudio::Copy(IEditedAudio* peaDest, __int64 nBegin, __int64 nEnd) {
  if (peaDest == nullptr) return E_POINTER;
  return ComCall([&] { return CopyRange(peaDest, {nBegin, nEnd}); });
}

STDMETHODIMP CEditedAudio::CopyAll(IEditedAudio* peaDest) {
  if (peaDest == nullptr) return E_POINTER;
  return ComCall([&] {
    BeginCopy(peaDest);
    std::shared_lock lock(lock_);
    const std::vector<Segment> all = segments_.All();
    lock.unlock();
    for (const Segment& segment : all) {
      peaDest->AppendSegment(segment.source.Get(), segment.begin, segment.end);
    }
    return CopyAnnotations(Identity(), peaDest, 0, std::nullopt);
  });
}

STDMETHODIMP CEditedAudio::Clear() {
  std::unique_lock lock(lock_);
  // Destroyed after the lock is gone: a source may do anything when it is released.
  const SegmentList segments = std::exchange(segments_, {});
  const Annotations annotations = std::exchange(annotations_, {});
  lock.unlock();
  return S_OK;
}

STDMETHODIMP CEditedAudio::InsertSegment(__int64 nPosition, IAudioReader* parSource, __int64 nBegin,
                                         __int64 nEnd) {
  return ComCall([&] {
    AdoptFormat(parSource);
    InsertSegments(nPosition, {Segment(parSource, nBegin, nEnd)});
    return S_OK;
  });
}

STDMETHODIMP CEditedAudio::AppendSegment(IAudioReader* parSource, __int64 nBegin, __int64 nEnd) {
  return ComCall([&] {
    Segment segment(parSource, nBegin, nEnd);
    std::unique_lock lock(lock_);
    if (!format_.IsSet()) {
      lock.unlock();
      AdoptFormat(parSource);
      lock.lock();
    }
    segments_.Append(std::move(segment));
    return S_OK;
  });
}

STDMETHODIMP CEditedAudio::GetFirstSegment(IAudioReader** pparSource, __int64* pnBegin,
                                           __int64* pnEnd, LONG* bValid) {
  const HRESULT hr = RequirePointers(pparSource, pnBegin, pnEnd, bValid);
  if (FAILED(hr)) return hr;
  const std::unique_lock lock(lock_);
  return Lend(segments_.First(), pparSource, pnBegin, pnEnd, bValid);
}

STDMETHODIMP CEditedAudio::GetNextSegment(IAudioReader** pparSource, __int64* pnBegin,
                                          __int64* pnEnd, LONG* bValid) {
  const HRESULT hr = RequirePointers(pparSource, pnBegin, pnEnd, bValid);
  if (FAILED(hr)) return hr;
  const std::unique_lock lock(lock_);
  return Lend(segments_.Next(), pparSource, pnBegin, pnEnd, bValid);
}

// Deliberately made of copies and insertions: labels and markers follow from that, a marker around
// the range comes back as two, a range that runs backward doubles what lies in it, and empty and
// backward segments are gone afterwards.
STDMETHODIMP CEditedAudio::Delete(__int64 nBegin, __int64 nEnd) {
  return ComCall([&] {
    ComPtr<IEditedAudio> head;
    ComPtr<IEditedAudio> tail;
    Check(CreateInstance(CLSID_CEditedAudio, head));
    Check(CreateInstance(CLSID_CEditedAudio, tail));
    __int64 length = 0;
    GetSampleCount(&length);
    CopyRange(head.Get(), {0, nBegin});
    CopyRange(tail.Get(), {nEnd, length});
    Clear();
    Insert(0, head.Get());
    Insert(nBegin, tail.Get());
    return S_OK;
  });
}

STDMETHODIMP CEditedAudio::InitChange(LONG bStoreUndo, BSTR bstrOperation) {
  return ComCall([&]() -> HRESULT {
    if (change_open_) return E_FAIL;
    // A sink may release the document that it is told about.
    const ComPtr<IUnknown> keep_alive(Identity());
    if (bStoreUndo != 0) FireStoreUndo(bstrOperation);
    ComPtr<IEditedAudio> snapshot;
    Check(CreateInstance(CLSID_CEditedAudio, snapshot));
    __int64 length = 0;
    GetSampleCount(&length);
    CopyRange(snapshot.Get(), {0, length});
    snapshot_ = std::move(snapshot);
    change_open_ = true;
    return S_OK;
  });
}

STDMETHODIMP CEditedAudio::CommitChange() {
  return ComCall([&]() -> HRESULT {
    if (!change_open_) return E_FAIL;
    const ComPtr<IUnknown> keep_alive(Identity());
    change_open_ = false;
    snapshot_.Reset();
    connection_points_.update.Fire(kFireContentChanged, {});
    return S_OK;
  });
}

// Deliberate: the document ends up empty, not restored, because copying the snapshot onto itself
// empties it first. The host restores the content from what it stored when the change began.
STDMETHODIMP CEditedAudio::RollbackChange() {
  return ComCall([&]() -> HRESULT {
    if (!change_open_) return E_FAIL;
    Clear();
    const auto reader = TryQuery<IAudioReader>(snapshot_.Get());
    if (!reader) return E_FAIL;
    __int64 length = 0;
    reader->GetSampleCount(&length);
    snapshot_->Copy(snapshot_.Get(), 0, length);
    snapshot_.Reset();
    change_open_ = false;
    return S_OK;
  });
}

STDMETHODIMP CEditedAudio::EnumConnectionPoints(IEnumConnectionPoints** ppEnum) {
  return ComCall([&] { return connection_points_.Enumerate(ppEnum); });
}

STDMETHODIMP CEditedAudio::FindConnectionPoint(REFIID riid, IConnectionPoint** ppCP) {
  return connection_points_.Find(riid, ppCP);
}

STDMETHODIMP CEditedAudio::GetGUID(DWORD dwGuidKind, GUID* pGUID) {
  if (pGUID == nullptr) return E_POINTER;
  *pGUID = GUID_NULL;
  if (dwGuidKind != GUIDKIND_DEFAULT_SOURCE_DISP_IID) return E_INVALIDARG;
  *pGUID = DIID__IEAUpdateEvents;
  return S_OK;
}

CEditedAudio::Format CEditedAudio::CurrentFormat() const {
  const std::shared_lock lock(lock_);
  return format_;
}

void CEditedAudio::FireStoreUndo(BSTR operation) {
  const auto identity = TryQuery<IUnknown>(Identity());
  connection_points_.undo.Fire(kFireStoreUndo, [&] {
    std::vector<VARIANTARG> arguments(2);
    V_VT(&arguments[0]) = VT_UNKNOWN;
    V_UNKNOWN(&arguments[0]) = identity.Get();
    if (identity) identity->AddRef();
    V_VT(&arguments[1]) = VT_BSTR;
    V_BSTR(&arguments[1]) =
        operation == nullptr ? nullptr : SysAllocStringLen(operation, SysStringLen(operation));
    return arguments;
  });
}

// The first source decides the format of a document that has none. Its result is ignored on
// purpose: what it wrote counts.
void CEditedAudio::AdoptFormat(IAudioReader* source) {
  Format format = CurrentFormat();
  if (source == nullptr || format.IsSet()) return;
  source->GetFormat(&format.samples_per_sec, &format.channels);
  const std::unique_lock lock(lock_);
  format_.samples_per_sec = format.samples_per_sec;
  format_.channels = format.channels;
}

// The segments of another document, through its iteration.
std::vector<CEditedAudio::Segment> CEditedAudio::TakeSegments(IEditedAudio* document) {
  std::vector<Segment> segments;
  for (bool first = true;; first = false) {
    IAudioReader* lent = nullptr;
    __int64 begin = 0;
    __int64 end = 0;
    LONG valid = 0;
    const HRESULT hr = first ? document->GetFirstSegment(&lent, &begin, &end, &valid)
                             : document->GetNextSegment(&lent, &begin, &end, &valid);
    if (FAILED(hr) || valid == 0) return segments;
    segments.emplace_back(lent, begin, end);
    AdoptFormat(lent);
  }
}

void CEditedAudio::InsertSegments(__int64 position, std::vector<Segment> segments) {
  __int64 length = 0;
  for (const Segment& segment : segments) length = WrappingAdd(length, segment.Length());
  const std::unique_lock lock(lock_);
  segments_.Insert(position, std::move(segments));
  annotations_.MoveForInsertion(position, length);
}

void CEditedAudio::BeginCopy(IEditedAudio* destination) {
  destination->Clear();
  const Format format = CurrentFormat();
  destination->SetFormat(format.samples_per_sec, format.channels, format.bits_per_sample);
}

// The destination is emptied first, also when it is this document: then nothing is left to copy.
HRESULT CEditedAudio::CopyRange(IEditedAudio* destination, const CSection& range) {
  BeginCopy(destination);
  std::shared_lock lock(lock_);
  const std::vector<Segment> pieces = segments_.Cut(range);
  lock.unlock();
  for (const Segment& piece : pieces) {
    destination->AppendSegment(piece.source.Get(), piece.begin, piece.end);
  }
  return CopyAnnotations(Identity(), destination, WrappingSubtract(0, range.begin), range);
}

// One entry for each segment that has a source, in order.
std::vector<ComPtr<IAudioReader>> CEditedAudio::Sources() const {
  std::shared_lock lock(lock_);
  std::vector<Segment> all = segments_.All();
  lock.unlock();
  std::vector<ComPtr<IAudioReader>> sources;
  sources.reserve(all.size());
  for (Segment& segment : all) {
    if (segment.source) sources.push_back(std::move(segment.source));
  }
  return sources;
}

MARLINDA_DEFINE_CLASS(CEditedAudio)

}  // namespace marlinda
