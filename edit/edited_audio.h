// CEditedAudio: the editable document, a list of segments of other readers with labels and section
// markers. It is a reader itself.
#pragma once

#include <marlinda.h>

#include <memory>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

#include "core/annotation_support.h"
#include "core/com_object.h"
#include "core/com_ptr.h"
#include "edit/connection_points.h"
#include "edit/document_content.h"
#include "edit/document_player.h"

namespace marlinda {

class CEditedAudio;

// How a document recognises another one of this module, to copy many segments without a call for
// each. Private: no type library names it.
struct DECLSPEC_UUID("6f0c9e42-7d35-4b1a-9a5e-2c81d4f7b360") IDocumentObject : public IUnknown {
  // The object itself, without a reference.
  virtual CEditedAudio* STDMETHODCALLTYPE Implementation() = 0;
};

}  // namespace marlinda

#ifdef __CRT_UUID_DECL
__CRT_UUID_DECL(marlinda::IDocumentObject, 0x6f0c9e42, 0x7d35, 0x4b1a, 0x9a, 0x5e, 0x2c, 0x81, 0xd4,
                0xf7, 0xb3, 0x60)
#endif

namespace marlinda {

// Editing rearranges, splits and clones segments; samples stay in their sources. No method checks
// its ranges, and no edit fires an event.
//
// The host must not edit while another thread reads, the playback thread included, or that read may
// miss a part of the edit. The content's lock only keeps such a mistake from corrupting memory.
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
  STDMETHODIMP GetSampleCount(__int64* pnSamples) override;
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

  // IEditedAudio
  STDMETHODIMP ReadWaveplot(__int64 nBegin, __int64 nEnd, SAFEARRAY* psaPeaks) override;
  STDMETHODIMP SetFormat(LONG nSamplesPerSec, SHORT nChannels, SHORT nBitsPerSample) override;
  STDMETHODIMP Insert(__int64 nPosition, IEditedAudio* peaInsert) override;
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
                             __int64 nEnd) override;
  STDMETHODIMP AppendSegment(IAudioReader* parSource, __int64 nBegin, __int64 nEnd) override;
  // The source comes without a reference: it is valid as long as the segment exists, and the caller
  // must not release it. Past the end only bValid is written.
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
  STDMETHODIMP InitChange(LONG bStoreUndo, BSTR bstrOperation) override;
  STDMETHODIMP CommitChange() override;
  STDMETHODIMP RollbackChange() override;
  STDMETHODIMP Play(__int64 nBegin, __int64 nEnd, ULONG dwChannelMask,
                    VARIANT_BOOL bLooped) override;
  STDMETHODIMP StopPlay() override {
    return ComCall([&] { player_.StopPlay(); });
  }
  STDMETHODIMP GetPlayStatus(VARIANT_BOOL* pbPlaying, __int64* pnPosition) override;
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
  STDMETHODIMP ModifyPlaySection(__int64 nBegin, __int64 nEnd) override;

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

  void FireStoreUndo(BSTR operation);
  HRESULT GiveSegment(const Segment* (DocumentContent::Segments::*step)() noexcept,
                      IAudioReader** source, __int64* begin, __int64* end, LONG* valid);
  std::vector<Segment> TakeSegments(IEditedAudio* document);
  HRESULT CopyInto(IEditedAudio* destination, const std::optional<CSection>& range);
  CEditedAudio* Direct(IEditedAudio* document);

  const std::shared_ptr<DocumentContent> content_ = std::make_shared<DocumentContent>();

  // A change is open as long as this holds; the snapshot is the content at its beginning.
  bool change_open_ = false;
  ComPtr<IEditedAudio> snapshot_;

  ConnectionPoints connection_points_{*this};
  DocumentPlayer player_{content_};
};

}  // namespace marlinda
