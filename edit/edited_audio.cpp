#include "edit/edited_audio.h"

#include <algorithm>
#include <mutex>
#include <shared_mutex>
#include <utility>

#include "core/nested_call.h"
#include "core/sample_array.h"
#include "core/text.h"
#include "edit/annotation_copy.h"
#include "edit/piece_plot.h"
#include "edit/waveplot.h"

namespace marlinda {
namespace {

enum class DocumentCall { kPlay };

// A sink that starts playback whenever playback is started would never end otherwise.
constexpr int kDeepestPlay = 16;

// Events of _IEAUpdateEvents and _IEAUndoEvents.
constexpr DISPID kFireStartedPlayback = 1;
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

STDMETHODIMP CEditedAudio::ReadAudio(__int64 nSamplePos, SAFEARRAY* psaAudioData) {
  return content_->ReadAudio(nSamplePos, psaAudioData);
}

STDMETHODIMP CEditedAudio::GetFormat(LONG* pnSamplesPerSec, SHORT* pnChannels) {
  if (pnSamplesPerSec == nullptr || pnChannels == nullptr) return E_POINTER;
  const DocumentFormat format = content_->CurrentFormat();
  *pnSamplesPerSec = format.samples_per_sec;
  *pnChannels = format.channels;
  return S_OK;
}

STDMETHODIMP CEditedAudio::GetSampleCount(__int64* pnSamples) {
  if (pnSamples == nullptr) return E_POINTER;
  const std::shared_lock lock(content_->lock);
  *pnSamples = content_->segments.Length();
  return S_OK;
}

STDMETHODIMP CEditedAudio::OpenDevice() { return content_->OpenDevice(); }

STDMETHODIMP CEditedAudio::CloseDevice() { return content_->CloseDevice(); }

STDMETHODIMP CEditedAudio::StartScrub() {
  return ComCall([&] {
    player_.StartScrub();
    return S_OK;
  });
}

STDMETHODIMP CEditedAudio::SetScrubPosition(__int64 nPosition) {
  return ComCall([&] {
    player_.SetScrubPosition(nPosition);
    return S_OK;
  });
}

STDMETHODIMP CEditedAudio::StopScrub() {
  player_.StopScrub();
  return S_OK;
}

// Deliberate: the event is fired, and S_OK returned, also when playback was running already, the
// section is empty or nothing could be started.
STDMETHODIMP CEditedAudio::Play(__int64 nBegin, __int64 nEnd, ULONG dwChannelMask,
                                VARIANT_BOOL bLooped) {
  return ComCall([&] {
    const ComPtr<IUnknown> keep_alive(Identity());
    const NestedCall call(this, DocumentCall::kPlay);
    // What did not start shows in GetPlayStatus.
    static_cast<void>(ComCall([&] {
      player_.Play({nBegin, nEnd}, dwChannelMask, bLooped != VARIANT_FALSE);
      return S_OK;
    }));
    if (call.Depth() <= kDeepestPlay) connection_points_.update.Fire(kFireStartedPlayback, {});
    return S_OK;
  });
}

STDMETHODIMP CEditedAudio::StopPlay() {
  player_.StopPlay();
  return S_OK;
}

STDMETHODIMP CEditedAudio::GetPlayStatus(VARIANT_BOOL* pbPlaying, __int64* pnPosition) {
  if (pbPlaying == nullptr || pnPosition == nullptr) return E_POINTER;
  const std::optional<__int64> position = player_.Position();
  *pbPlaying = position ? VARIANT_TRUE : VARIANT_FALSE;
  *pnPosition = position.value_or(0);
  return S_OK;
}

STDMETHODIMP CEditedAudio::GetOutputLevel(SHORT niChannel, float* pfOutputLevel) {
  if (pfOutputLevel == nullptr) return E_POINTER;
  return ComCall([&] { return player_.GetOutputLevel(niChannel, pfOutputLevel); });
}

STDMETHODIMP CEditedAudio::SetPlaybackDevice(LONG niDevice) {
  player_.SetDevice(niDevice);
  return S_OK;
}

STDMETHODIMP CEditedAudio::ModifyPlaySection(__int64 nBegin, __int64 nEnd) {
  const std::optional<ULONG> channel_mask = player_.LoopedChannelMask();
  if (!channel_mask) return S_OK;
  player_.StopPlay();
  return Play(nBegin, std::max(nEnd, SaturatingAdd(nBegin, 1)), *channel_mask, VARIANT_TRUE);
}

STDMETHODIMP CEditedAudio::AddLabel(__int64 nPosition, BSTR bstrName) {
  return ComCall([&] {
    Label label{nPosition, ToAnsi(bstrName)};
    const std::unique_lock lock(content_->lock);
    content_->annotations.labels.push_back(std::move(label));
    return S_OK;
  });
}

STDMETHODIMP CEditedAudio::GetLabelCount(LONG* pnLabelCount) {
  if (pnLabelCount == nullptr) return E_POINTER;
  const std::shared_lock lock(content_->lock);
  *pnLabelCount = static_cast<LONG>(content_->annotations.labels.size());
  return S_OK;
}

STDMETHODIMP CEditedAudio::GetLabel(LONG niLabel, __int64* pnPosition, BSTR* pbstrName) {
  if (pnPosition == nullptr || pbstrName == nullptr) return E_POINTER;
  *pbstrName = nullptr;
  return ComCall([&] {
    const std::shared_lock lock(content_->lock);
    const Label& label = RecordAt(content_->annotations.labels, niLabel);
    *pbstrName = ToBstr(label.name, CP_ACP);
    *pnPosition = label.position;
    return S_OK;
  });
}

STDMETHODIMP CEditedAudio::SetLabel(LONG niLabel, __int64 nPosition, BSTR bstrName) {
  return ComCall([&] {
    Label label{nPosition, ToAnsi(bstrName)};
    const std::unique_lock lock(content_->lock);
    RecordAt(content_->annotations.labels, niLabel) = std::move(label);
    return S_OK;
  });
}

STDMETHODIMP CEditedAudio::RemoveLabel(LONG niLabel) {
  return ComCall([&] {
    const std::unique_lock lock(content_->lock);
    RemoveRecord(content_->annotations.labels, niLabel);
    return S_OK;
  });
}

STDMETHODIMP CEditedAudio::RemoveAllLabels() {
  const std::unique_lock lock(content_->lock);
  content_->annotations.labels.clear();
  return S_OK;
}

STDMETHODIMP CEditedAudio::AddSectionMarker(__int64 nBegin, __int64 nEnd, BSTR bstrName) {
  return ComCall([&] {
    SectionMarker marker{{nBegin, nEnd}, ToAnsi(bstrName)};
    const std::unique_lock lock(content_->lock);
    content_->annotations.markers.push_back(std::move(marker));
    return S_OK;
  });
}

STDMETHODIMP CEditedAudio::GetMarkerCount(LONG* pnMarkerCount) {
  if (pnMarkerCount == nullptr) return E_POINTER;
  const std::shared_lock lock(content_->lock);
  *pnMarkerCount = static_cast<LONG>(content_->annotations.markers.size());
  return S_OK;
}

STDMETHODIMP CEditedAudio::GetSectionMarker(LONG niSectionMarker, __int64* pnBegin, __int64* pnEnd,
                                            BSTR* pbstrName) {
  if (pnBegin == nullptr || pnEnd == nullptr || pbstrName == nullptr) return E_POINTER;
  *pbstrName = nullptr;
  return ComCall([&] {
    const std::shared_lock lock(content_->lock);
    const SectionMarker& marker = RecordAt(content_->annotations.markers, niSectionMarker);
    *pbstrName = ToBstr(marker.name, CP_ACP);
    *pnBegin = marker.section.begin;
    *pnEnd = marker.section.end;
    return S_OK;
  });
}

STDMETHODIMP CEditedAudio::SetSectionMarker(LONG niSectionMarker, __int64 nBegin, __int64 nEnd,
                                            BSTR bstrName) {
  return ComCall([&] {
    SectionMarker marker{{nBegin, nEnd}, ToAnsi(bstrName)};
    const std::unique_lock lock(content_->lock);
    RecordAt(content_->annotations.markers, niSectionMarker) = std::move(marker);
    return S_OK;
  });
}

STDMETHODIMP CEditedAudio::RemoveSectionMarker(LONG niSectionMarker) {
  return ComCall([&] {
    const std::unique_lock lock(content_->lock);
    RemoveRecord(content_->annotations.markers, niSectionMarker);
    return S_OK;
  });
}

STDMETHODIMP CEditedAudio::RemoveAllSectionMarkers() {
  const std::unique_lock lock(content_->lock);
  content_->annotations.markers.clear();
  return S_OK;
}

// Deliberate: the array holds floats although the type library declares shorts, and columns that no
// piece is drawn into keep what the host put there. Pieces are laid side by side from the first
// column also when the range begins before the document.
STDMETHODIMP CEditedAudio::ReadWaveplot(__int64 nBegin, __int64 nEnd, SAFEARRAY* psaPeaks) {
  return ComCall([&] {
    SampleArrayView view;
    Check(view.Lock(psaPeaks));
    std::shared_lock lock(content_->lock);
    if (content_->format.channels <= 0) return S_OK;
    const auto channels = static_cast<std::size_t>(content_->format.channels);
    const std::vector<Segment> pieces = content_->segments.Cut({nBegin, nEnd});
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
      DrawPiece(piece.source.Get(), piece, channels, last - first, pairs, content_->scratch);
    }
    return S_OK;
  });
}

STDMETHODIMP CEditedAudio::SetFormat(LONG nSamplesPerSec, SHORT nChannels, SHORT nBitsPerSample) {
  const std::unique_lock lock(content_->lock);
  content_->format = {nSamplesPerSec, nChannels, nBitsPerSample};
  return S_OK;
}

STDMETHODIMP CEditedAudio::GetBitsPerSample(SHORT* pnBitsPerSample) {
  if (pnBitsPerSample == nullptr) return E_POINTER;
  *pnBitsPerSample = content_->CurrentFormat().bits_per_sample;
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
  return ComCall([&] { return CopyInto(peaDest, CSection(nBegin, nEnd)); });
}

STDMETHODIMP CEditedAudio::CopyAll(IEditedAudio* peaDest) {
  if (peaDest == nullptr) return E_POINTER;
  return ComCall([&] { return CopyInto(peaDest, std::nullopt); });
}

STDMETHODIMP CEditedAudio::Clear() {
  std::unique_lock lock(content_->lock);
  // Destroyed after the lock is gone: a source may do anything when it is released.
  const DocumentContent::Segments segments = std::exchange(content_->segments, {});
  const Annotations annotations = std::exchange(content_->annotations, {});
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
    std::unique_lock lock(content_->lock);
    if (!content_->format.IsSet()) {
      lock.unlock();
      AdoptFormat(parSource);
      lock.lock();
    }
    content_->segments.Append(std::move(segment));
    return S_OK;
  });
}

STDMETHODIMP CEditedAudio::GetFirstSegment(IAudioReader** pparSource, __int64* pnBegin,
                                           __int64* pnEnd, LONG* bValid) {
  const HRESULT hr = RequirePointers(pparSource, pnBegin, pnEnd, bValid);
  if (FAILED(hr)) return hr;
  const std::unique_lock lock(content_->lock);
  return Lend(content_->segments.First(), pparSource, pnBegin, pnEnd, bValid);
}

STDMETHODIMP CEditedAudio::GetNextSegment(IAudioReader** pparSource, __int64* pnBegin,
                                          __int64* pnEnd, LONG* bValid) {
  const HRESULT hr = RequirePointers(pparSource, pnBegin, pnEnd, bValid);
  if (FAILED(hr)) return hr;
  const std::unique_lock lock(content_->lock);
  return Lend(content_->segments.Next(), pparSource, pnBegin, pnEnd, bValid);
}

// Deliberately made of copies and insertions: labels and markers follow from that, a marker around
// the range comes back as two, a range that runs backward doubles what lies in it, and empty and
// backward segments are gone afterwards. In a document without such segments a range that lies
// forward can as well be cut out of the list, which takes no time for the segments that stay.
STDMETHODIMP CEditedAudio::Delete(__int64 nBegin, __int64 nEnd) {
  return ComCall([&] {
    ComPtr<IEditedAudio> head;
    ComPtr<IEditedAudio> tail;
    Check(CreateInstance(CLSID_CEditedAudio, head));
    Check(CreateInstance(CLSID_CEditedAudio, tail));
    if (Direct(head.Get()) != nullptr && Direct(tail.Get()) != nullptr && CutOut({nBegin, nEnd})) {
      return S_OK;
    }
    __int64 length = 0;
    GetSampleCount(&length);
    CopyInto(head.Get(), CSection(0, nBegin));
    CopyInto(tail.Get(), CSection(nEnd, length));
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
    CopyInto(snapshot.Get(), CSection(0, length));
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

void CEditedAudio::FireStoreUndo(BSTR operation) {
  const auto identity = TryQuery<IUnknown>(Identity());
  connection_points_.undo.Fire(kFireStoreUndo, [&] {
    std::vector<VARIANTARG> arguments(2);
    VARIANTARG& document = arguments.front();
    VARIANTARG& name = arguments.back();
    V_VT(&document) = VT_UNKNOWN;
    V_UNKNOWN(&document) = identity.Get();
    if (identity) identity->AddRef();
    V_VT(&name) = VT_BSTR;
    V_BSTR(&name) =
        operation == nullptr ? nullptr : SysAllocStringLen(operation, SysStringLen(operation));
    return arguments;
  });
}

// The first source decides the format of a document that has none. Its result is ignored on
// purpose: what it wrote counts.
void CEditedAudio::AdoptFormat(IAudioReader* source) {
  DocumentFormat format = content_->CurrentFormat();
  if (source == nullptr || format.IsSet()) return;
  source->GetFormat(&format.samples_per_sec, &format.channels);
  const std::unique_lock lock(content_->lock);
  content_->format.samples_per_sec = format.samples_per_sec;
  content_->format.channels = format.channels;
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
  const std::unique_lock lock(content_->lock);
  content_->segments.Insert(position, std::move(segments));
  content_->annotations.MoveForInsertion(position, length);
}

// Replaces the destination's content by what lies in the range, or by all. The destination is
// emptied first, also when it is this document: then nothing is left to copy.
HRESULT CEditedAudio::CopyInto(IEditedAudio* destination, const std::optional<CSection>& range) {
  destination->Clear();
  const DocumentFormat format = content_->CurrentFormat();
  destination->SetFormat(format.samples_per_sec, format.channels, format.bits_per_sample);

  const __int64 offset = range ? WrappingSubtract(0, range->begin) : 0;
  // Without a format the destination asks each source for one.
  CEditedAudio* const direct = format.IsSet() ? Direct(destination) : nullptr;
  std::shared_lock lock(content_->lock);
  const DocumentContent::Segments& segments = content_->segments;
  if (direct != nullptr) {
    DocumentContent::Segments pieces = range ? segments.CutList(*range) : segments.Copy();
    Annotations annotations =
        range ? content_->annotations.Part(*range, offset) : content_->annotations;
    lock.unlock();
    direct->Receive(std::move(pieces), std::move(annotations));
    return S_OK;
  }
  const std::vector<Segment> pieces = range ? segments.Cut(*range) : segments.All();
  lock.unlock();
  for (const Segment& piece : pieces) {
    destination->AppendSegment(piece.source.Get(), piece.begin, piece.end);
  }
  return CopyAnnotations(Identity(), destination, offset, range);
}

// The object behind another document, where this one may work on it without its interface: both
// are of this class, and no outer object answers for one of them.
CEditedAudio* CEditedAudio::Direct(IEditedAudio* document) {
  const auto object = TryQuery<IDocumentObject>(document);
  CEditedAudio* const found = object ? object->Implementation() : nullptr;
  const bool bare =
      found != nullptr && found == document && !found->IsAggregated() && !IsAggregated();
  return bare ? found : nullptr;
}

// Takes the content of a copy in the place of its own.
void CEditedAudio::Receive(DocumentContent::Segments segments, Annotations annotations) {
  // The old content is destroyed after the lock is gone.
  const std::unique_lock lock(content_->lock);
  std::swap(content_->segments, segments);
  std::swap(content_->annotations, annotations);
}

// Deletes the range where that comes to the same as copies and insertions; otherwise does nothing
// and returns false.
bool CEditedAudio::CutOut(const CSection& range) {
  // Destroyed after the lock is gone: a source may do anything when it is released.
  std::vector<Segment> removed;
  const std::unique_lock lock(content_->lock);
  if (!content_->format.IsSet() || !content_->segments.AllHaveFrames() || range.begin < 0 ||
      range.end < range.begin) {
    return false;
  }
  const CSection tail(range.end, content_->segments.Length());
  Annotations kept = content_->annotations.Part({0, range.begin}, 0);
  kept.Append(content_->annotations.Part(tail, WrappingSubtract(range.begin, range.end)));
  removed = content_->segments.Remove(range);
  content_->annotations = std::move(kept);
  return true;
}

MARLINDA_DEFINE_CLASS(CEditedAudio)

}  // namespace marlinda
