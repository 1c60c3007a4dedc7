// CEditedAudio: the editable document. It lists segments of other readers, holds labels and section
// markers, and is a reader itself.
#include <marlinda.h>

#include <algorithm>
#include <memory>
#include <mutex>
#include <optional>
#include <shared_mutex>
#include <utility>
#include <vector>

#include "core/annotation_support.h"
#include "core/com_object.h"
#include "core/com_ptr.h"
#include "core/nested_call.h"
#include "core/sample_array.h"
#include "core/text.h"
#include "edit/connection_points.h"
#include "edit/document_content.h"
#include "edit/document_player.h"
#include "edit/piece_plot.h"
#include "edit/waveplot.h"

namespace marlinda {

namespace {

enum class PlayerCall { kPlay };

// Limits the recursion of a sink that calls Play when it receives FireStartedPlayback.
constexpr int kMaxPlayDepth = 16;

// Events of _IEAUpdateEvents and _IEAUndoEvents.
constexpr DISPID kFireStartedPlayback = 1;
constexpr DISPID kFireContentChanged = 3;
constexpr DISPID kFireStoreUndo = 1;

void CopyLabels(ILabelSupport* source, ILabelSupport* destination, __int64 offset,
                const std::optional<CSection>& range) {
  LONG count = 0;
  source->GetLabelCount(&count);
  for (LONG i = 0; i < count; ++i) {
    __int64 position = 0;
    OwnedBstr name;
    if (FAILED(source->GetLabel(i, &position, name.Receive()))) continue;
    if (range && !range->Contains(position)) continue;
    destination->AddLabel(WrappingAdd(position, offset), name.get());
  }
}

void CopyMarkers(ISectionMarkerSupport* source, ISectionMarkerSupport* destination, __int64 offset,
                 const std::optional<CSection>& range) {
  LONG count = 0;
  source->GetMarkerCount(&count);
  for (LONG i = 0; i < count; ++i) {
    OwnedBstr name;
    __int64 begin = 0;
    __int64 end = 0;
    if (FAILED(source->GetSectionMarker(i, &begin, &end, name.Receive()))) continue;
    std::optional<CSection> kept = CSection(begin, end);
    if (range) kept = ClipMarker(*kept, *range);
    if (!kept) continue;
    destination->AddSectionMarker(WrappingAdd(kept->begin, offset), WrappingAdd(kept->end, offset),
                                  name.get());
  }
}

// Adds the source's labels and markers, moved by `offset`, after those of the destination, through
// the COM interfaces of both objects. With a range, copies only the labels and the parts of markers
// in the range. Fails with E_FAIL if one of the objects does not support labels or markers. Labels
// copied before the failure stay.
HRESULT CopyAnnotations(IUnknown* source, IUnknown* destination, __int64 offset,
                        const std::optional<CSection>& range) {
  const auto source_labels = TryQuery<ILabelSupport>(source);
  const auto destination_labels = TryQuery<ILabelSupport>(destination);
  if (!source_labels || !destination_labels) return E_FAIL;
  CopyLabels(source_labels.Get(), destination_labels.Get(), offset, range);

  const auto source_markers = TryQuery<ISectionMarkerSupport>(source);
  const auto destination_markers = TryQuery<ISectionMarkerSupport>(destination);
  if (!source_markers || !destination_markers) return E_FAIL;
  CopyMarkers(source_markers.Get(), destination_markers.Get(), offset, range);
  return S_OK;
}

}  // namespace

class CEditedAudio;

// Gives access to another document of this module, so that copying needs no COM call per segment.
// Private. No type library describes it.
struct DECLSPEC_UUID("6f0c9e42-7d35-4b1a-9a5e-2c81d4f7b360") IDocumentObject : public IUnknown {
  // Returns the object itself. Does not call AddRef.
  virtual CEditedAudio* STDMETHODCALLTYPE Implementation() = 0;
};

}  // namespace marlinda

#ifdef __CRT_UUID_DECL
__CRT_UUID_DECL(marlinda::IDocumentObject, 0x6f0c9e42, 0x7d35, 0x4b1a, 0x9a, 0x5e, 0x2c, 0x81, 0xd4,
                0xf7, 0xb3, 0x60)
#endif

namespace marlinda {

// Editing rearranges, splits and copies segments. The samples stay in their sources. The methods do
// not check ranges. Edits send no events.
//
// The host must not edit while another thread, such as the playback thread, reads. The content's
// lock protects the memory, but the read may see only a part of the edit.
class CEditedAudio final
    : public AnnotationSupport<
          CEditedAudio,
          Object<CEditedAudio, IAudioReader, IScrubSupport, ILabelSupport, ISectionMarkerSupport,
                 IEditedAudio, IConnectionPointContainer, IDocumentObject>> {
 public:
  static constexpr const CLSID& kClassId = CLSID_CEditedAudio;
  static constexpr bool kHasEvents = true;
  static constexpr bool kAddsNotes = true;
  static constexpr bool kReadsNotes = true;
  static constexpr bool kEditsNotes = true;
  static constexpr UINT kNoteCodePage = CP_ACP;

  // IAudioReader
  STDMETHODIMP ReadAudio(__int64 nSamplePos, SAFEARRAY* psaAudioData) override {
    return content_->ReadAudio(nSamplePos, psaAudioData);
  }
  STDMETHODIMP GetFormat(LONG* pnSamplesPerSec, SHORT* pnChannels) override {
    const DocumentFormat format = content_->CurrentFormat();
    return SetOut(pnSamplesPerSec, format.samples_per_sec, pnChannels, format.channels);
  }
  STDMETHODIMP GetSampleCount(__int64* pnSamples) override {
    const std::shared_lock lock(content_->lock);
    return SetOut(pnSamples, content_->segments.Length());
  }
  STDMETHODIMP OpenDevice() override { return content_->OpenDevice(); }
  STDMETHODIMP CloseDevice() override { return content_->CloseDevice(); }

  // IScrubSupport
  STDMETHODIMP StartScrub() override {
    return ComCall([&] { player_.StartScrub(); });
  }
  STDMETHODIMP SetScrubPosition(__int64 nPosition) override {
    return ComCall([&] { player_.SetScrubPosition(nPosition); });
  }
  STDMETHODIMP StopScrub() override {
    return ComCall([&] { player_.StopScrub(); });
  }

  // IEditedAudio. The array of ReadWaveplot holds floats although the type library declares shorts.
  // Draws the parts of segments that lie in the range, side by side from the first column on. All
  // other columns keep their values. If the range begins before frame 0, the first column still
  // shows frame 0.
  STDMETHODIMP ReadWaveplot(__int64 nBegin, __int64 nEnd, SAFEARRAY* psaPeaks) override {
    return ComCall([&] {
      SampleArrayView view;
      Check(view.Lock(psaPeaks));
      const DocumentContent::Pin pin(*content_);
      std::shared_lock lock(content_->lock);
      if (content_->format.channels <= 0) return;
      const auto channels = static_cast<std::size_t>(content_->format.channels);
      const std::vector<DocumentContent::Piece> pieces = content_->Cut(CSection(nBegin, nEnd));
      lock.unlock();

      const std::size_t pair_floats = 2 * channels;
      const auto columns = static_cast<__int64>(view.samples().size() / pair_floats);
      const __int64 range = SaturatingSubtract(nEnd, nBegin);
      __int64 offset = 0;
      for (const DocumentContent::Piece& piece : pieces) {
        const CSection section(piece.begin, piece.end);
        const __int64 first = Scale(offset, columns, range);
        offset = SaturatingAdd(offset, section.Length());
        const __int64 last = Scale(offset, columns, range);
        // A backward segment (end before begin) makes its neighbours overlap, so the pieces can be
        // wider than the array.
        if (first >= last || first >= columns) continue;
        const std::span<float> pairs = view.samples().subspan(
            static_cast<std::size_t>(first) * pair_floats,
            static_cast<std::size_t>(std::min(last, columns) - first) * pair_floats);
        DrawPiece(piece.source, section, channels, last - first, pairs, content_->scratch);
      }
    });
  }
  STDMETHODIMP SetFormat(LONG nSamplesPerSec, SHORT nChannels, SHORT nBitsPerSample) override {
    const std::unique_lock lock(content_->lock);
    content_->format = {nSamplesPerSec, nChannels, nBitsPerSample};
    return S_OK;
  }
  STDMETHODIMP Insert(__int64 nPosition, IEditedAudio* peaInsert) override {
    if (peaInsert == nullptr) return E_POINTER;
    return ComCall([&] {
      if (IsSameObject(peaInsert, Identity())) {
        // Copies the content first, because the document cannot be read while it changes.
        ComPtr<IEditedAudio> before;
        Check(CreateInstance(CLSID_CEditedAudio, before));
        CopyAll(before.Get());
        return Insert(nPosition, before.Get());
      }
      content_->Insert(nPosition, TakeSegments(peaInsert));
      return CopyAnnotations(peaInsert, Identity(), nPosition, std::nullopt);
    });
  }
  STDMETHODIMP Copy(IEditedAudio* peaDest, __int64 nBegin, __int64 nEnd) override {
    return ComCall([&] { return CopyInto(peaDest, CSection(nBegin, nEnd)); });
  }
  STDMETHODIMP CopyAll(IEditedAudio* peaDest) override {
    return ComCall([&] { return CopyInto(peaDest, std::nullopt); });
  }
  STDMETHODIMP Clear() override {
    return ComCall([&] { content_->Replace({}, {}); });
  }
  STDMETHODIMP InsertSegment(__int64 nPosition, IAudioReader* parSource, __int64 nBegin,
                             __int64 nEnd) override {
    return ComCall([&] {
      content_->AdoptFormat(parSource);
      content_->Insert(nPosition, {Segment(parSource, nBegin, nEnd)});
    });
  }
  STDMETHODIMP AppendSegment(IAudioReader* parSource, __int64 nBegin, __int64 nEnd) override {
    return ComCall([&] {
      Segment segment(parSource, nBegin, nEnd);
      content_->AdoptFormat(parSource);
      const std::unique_lock lock(content_->lock);
      content_->segments.Append(std::move(segment));
    });
  }
  // The returned source is borrowed: the caller must not release it, and it is valid while the
  // segment exists. After the last segment, only bValid is written.
  STDMETHODIMP GetFirstSegment(IAudioReader** pparSource, __int64* pnBegin, __int64* pnEnd,
                               LONG* bValid) override {
    return GiveSegment(&DocumentContent::Segments::First, pparSource, pnBegin, pnEnd, bValid);
  }
  STDMETHODIMP GetNextSegment(IAudioReader** pparSource, __int64* pnBegin, __int64* pnEnd,
                              LONG* bValid) override {
    return GiveSegment(&DocumentContent::Segments::Next, pparSource, pnBegin, pnEnd, bValid);
  }
  STDMETHODIMP Delete(__int64 nBegin, __int64 nEnd) override {
    return ComCall([&] { content_->Delete({nBegin, nEnd}); });
  }
  STDMETHODIMP InitChange(LONG bStoreUndo, BSTR bstrOperation) override {
    return ComCall([&]() -> HRESULT {
      if (change_open_) return E_FAIL;
      // A sink may release this document during the event.
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
  STDMETHODIMP CommitChange() override {
    return ComCall([&]() -> HRESULT {
      if (!change_open_) return E_FAIL;
      const ComPtr<IUnknown> keep_alive(Identity());
      change_open_ = false;
      snapshot_.Reset();
      connection_points_.update.Fire(kFireContentChanged, {});
      return S_OK;
    });
  }
  // Empties the document and restores nothing. The snapshot is copied into itself, and Copy first
  // clears the destination. The host restores the content from the copy that it made before the
  // change.
  STDMETHODIMP RollbackChange() override {
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
  // Sends FireStartedPlayback and returns S_OK even if playback already runs, the section is empty
  // or playback cannot start.
  STDMETHODIMP Play(__int64 nBegin, __int64 nEnd, ULONG dwChannelMask,
                    VARIANT_BOOL bLooped) override {
    return ComCall([&] {
      const ComPtr<IUnknown> keep_alive(Identity());
      const NestedCall call(this, PlayerCall::kPlay);
      // Ignores failures, because GetPlayStatus reports whether playback runs.
      static_cast<void>(ComCall([&] {
        player_.Play({nBegin, nEnd}, dwChannelMask, bLooped != VARIANT_FALSE);
      }));
      if (call.Depth() <= kMaxPlayDepth) connection_points_.update.Fire(kFireStartedPlayback, {});
    });
  }
  STDMETHODIMP StopPlay() override {
    return ComCall([&] { player_.StopPlay(); });
  }
  STDMETHODIMP GetPlayStatus(VARIANT_BOOL* pbPlaying, __int64* pnPosition) override {
    const std::optional<__int64> position = player_.Position();
    return SetOut(pbPlaying, position ? VARIANT_TRUE : VARIANT_FALSE, pnPosition,
                  position.value_or(0));
  }
  STDMETHODIMP GetOutputLevel(SHORT niChannel, float* pfOutputLevel) override {
    if (pfOutputLevel == nullptr) return E_POINTER;
    return ComCall([&] { return player_.GetOutputLevel(niChannel, pfOutputLevel); });
  }
  STDMETHODIMP SetPlaybackDevice(LONG niDevice) override {
    return ComCall([&] { player_.SetDevice(niDevice); });
  }
  STDMETHODIMP GetBitsPerSample(SHORT* pnBitsPerSample) override {
    return SetOut(pnBitsPerSample, content_->CurrentFormat().bits_per_sample);
  }
  STDMETHODIMP ModifyPlaySection(__int64 nBegin, __int64 nEnd) override {
    const std::optional<ULONG> channel_mask = player_.LoopedChannelMask();
    if (!channel_mask) return S_OK;
    player_.StopPlay();
    return Play(nBegin, std::max(nEnd, SaturatingAdd(nBegin, 1)), *channel_mask, VARIANT_TRUE);
  }

  // IConnectionPointContainer
  STDMETHODIMP EnumConnectionPoints(IEnumConnectionPoints** ppEnum) override {
    return ComCall([&] { return connection_points_.Enumerate(ppEnum); });
  }
  STDMETHODIMP FindConnectionPoint(REFIID riid, IConnectionPoint** ppCP) override {
    return connection_points_.Find(riid, ppCP);
  }

  // IDocumentObject
  CEditedAudio* STDMETHODCALLTYPE Implementation() override { return this; }

  // IProvideClassInfo2
  STDMETHODIMP GetGUID(DWORD dwGuidKind, GUID* pGUID) override {
    const bool known = dwGuidKind == GUIDKIND_DEFAULT_SOURCE_DISP_IID;
    const HRESULT hr = SetOut(pGUID, known ? DIID__IEAUpdateEvents : GUID_NULL);
    return SUCCEEDED(hr) && !known ? E_INVALIDARG : hr;
  }

  // AnnotationSupport
  template <class Use>
  HRESULT WithNotes(Use&& use) {
    return ComCall([&] {
      const std::unique_lock lock(content_->lock);
      return std::forward<Use>(use)(content_->annotations);
    });
  }

 private:
  using Segment = DocumentContent::Segment;

  IUnknown* Identity() noexcept { return static_cast<IEditedAudio*>(this); }

  void FireStoreUndo(BSTR operation) {
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
  HRESULT GiveSegment(const Segment* (DocumentContent::Segments::*step)() noexcept,
                      IAudioReader** source, __int64* begin, __int64* end, LONG* valid) {
    if (source == nullptr || begin == nullptr || end == nullptr || valid == nullptr)
      return E_POINTER;
    const std::unique_lock lock(content_->lock);
    const Segment* const segment = (content_->segments.*step)();
    *valid = segment != nullptr ? 1 : 0;
    if (segment == nullptr) return S_OK;
    return SetOut(source, segment->source.Get(), begin, segment->begin, end, segment->end);
  }
  // Uses GetFirstSegment and GetNextSegment to read the segments of another document.
  std::vector<CEditedAudio::Segment> TakeSegments(IEditedAudio* document) {
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
      content_->AdoptFormat(lent);
    }
  }
  // Replaces the destination's content by the range or, without a range, by the whole document.
  // Clears the destination first. If the destination is this document, nothing is left to copy.
  HRESULT CopyInto(IEditedAudio* destination, const std::optional<CSection>& range) {
    if (destination == nullptr) return E_POINTER;
    destination->Clear();
    const DocumentFormat format = content_->CurrentFormat();
    destination->SetFormat(format.samples_per_sec, format.channels, format.bits_per_sample);

    const __int64 offset = range ? WrappingSubtract(0, range->begin) : 0;
    // Without a format, uses AppendSegment, so that the destination adopts a source's format.
    CEditedAudio* const direct = format.IsSet() ? Direct(destination) : nullptr;
    const DocumentContent::Pin pin(*content_);
    std::shared_lock lock(content_->lock);
    const std::vector<DocumentContent::Piece> pieces = content_->Cut(range);
    if (direct == nullptr) {
      lock.unlock();
      for (const DocumentContent::Piece& piece : pieces) {
        destination->AppendSegment(piece.source, piece.begin, piece.end);
      }
      return CopyAnnotations(Identity(), destination, offset, range);
    }
    Annotations annotations =
        range ? content_->annotations.Part(*range, offset) : content_->annotations;
    lock.unlock();
    DocumentContent::Segments segments;
    for (const DocumentContent::Piece& piece : pieces) {
      segments.Append({piece.source, piece.begin, piece.end});
    }
    direct->content_->Replace(std::move(segments), std::move(annotations));
    return S_OK;
  }
  // Returns the object behind another document if this object may access it directly, otherwise
  // null. Both must be of this class, and neither may be aggregated.
  CEditedAudio* Direct(IEditedAudio* document) {
    const auto object = TryQuery<IDocumentObject>(document);
    CEditedAudio* const found = object ? object->Implementation() : nullptr;
    const bool bare =
        found != nullptr && found == document && !found->IsAggregated() && !IsAggregated();
    return bare ? found : nullptr;
  }

  const std::shared_ptr<DocumentContent> content_ = std::make_shared<DocumentContent>();

  // True while a change is open. `snapshot_` is the content before the change.
  bool change_open_ = false;
  ComPtr<IEditedAudio> snapshot_;

  ConnectionPoints connection_points_{*this};
  DocumentPlayer player_{content_};
};

MARLINDA_DEFINE_CLASS(CEditedAudio)

}  // namespace marlinda
