// CEditedAudio: the editable document, a list of segments of other readers with labels and section
// markers. It is a reader itself.
#pragma once

#include <marlinda.h>

#include <memory>
#include <optional>
#include <vector>

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
    : public Object<CEditedAudio, IAudioReader, IScrubSupport, ILabelSupport, ISectionMarkerSupport,
                    IEditedAudio, IConnectionPointContainer, IDocumentObject> {
 public:
  static constexpr const CLSID& kClassId = CLSID_CEditedAudio;
  static constexpr bool kHasEvents = true;

  // IAudioReader
  STDMETHODIMP ReadAudio(__int64 nSamplePos, SAFEARRAY* psaAudioData) override;
  STDMETHODIMP GetFormat(LONG* pnSamplesPerSec, SHORT* pnChannels) override;
  STDMETHODIMP GetSampleCount(__int64* pnSamples) override;
  STDMETHODIMP OpenDevice() override;
  STDMETHODIMP CloseDevice() override;

  // IScrubSupport
  STDMETHODIMP StartScrub() override;
  STDMETHODIMP SetScrubPosition(__int64 nPosition) override;
  STDMETHODIMP StopScrub() override;

  // ILabelSupport
  STDMETHODIMP AddLabel(__int64 nPosition, BSTR bstrName) override;
  STDMETHODIMP GetLabelCount(LONG* pnLabelCount) override;
  STDMETHODIMP GetLabel(LONG niLabel, __int64* pnPosition, BSTR* pbstrName) override;
  STDMETHODIMP SetLabel(LONG niLabel, __int64 nPosition, BSTR bstrName) override;
  STDMETHODIMP RemoveLabel(LONG niLabel) override;
  STDMETHODIMP RemoveAllLabels() override;

  // ISectionMarkerSupport
  STDMETHODIMP AddSectionMarker(__int64 nBegin, __int64 nEnd, BSTR bstrName) override;
  STDMETHODIMP GetMarkerCount(LONG* pnMarkerCount) override;
  STDMETHODIMP GetSectionMarker(LONG niSectionMarker, __int64* pnBegin, __int64* pnEnd,
                                BSTR* pbstrName) override;
  STDMETHODIMP SetSectionMarker(LONG niSectionMarker, __int64 nBegin, __int64 nEnd,
                                BSTR bstrName) override;
  STDMETHODIMP RemoveSectionMarker(LONG niSectionMarker) override;
  STDMETHODIMP RemoveAllSectionMarkers() override;

  // IEditedAudio
  STDMETHODIMP ReadWaveplot(__int64 nBegin, __int64 nEnd, SAFEARRAY* psaPeaks) override;
  STDMETHODIMP SetFormat(LONG nSamplesPerSec, SHORT nChannels, SHORT nBitsPerSample) override;
  STDMETHODIMP Insert(__int64 nPosition, IEditedAudio* peaInsert) override;
  STDMETHODIMP Copy(IEditedAudio* peaDest, __int64 nBegin, __int64 nEnd) override;
  STDMETHODIMP CopyAll(IEditedAudio* peaDest) override;
  STDMETHODIMP Clear() override;
  STDMETHODIMP InsertSegment(__int64 nPosition, IAudioReader* parSource, __int64 nBegin,
                             __int64 nEnd) override;
  STDMETHODIMP AppendSegment(IAudioReader* parSource, __int64 nBegin, __int64 nEnd) override;
  STDMETHODIMP GetFirstSegment(IAudioReader** pparSource, __int64* pnBegin, __int64* pnEnd,
                               LONG* bValid) override;
  STDMETHODIMP GetNextSegment(IAudioReader** pparSource, __int64* pnBegin, __int64* pnEnd,
                              LONG* bValid) override;
  STDMETHODIMP Delete(__int64 nBegin, __int64 nEnd) override;
  STDMETHODIMP InitChange(LONG bStoreUndo, BSTR bstrOperation) override;
  STDMETHODIMP CommitChange() override;
  STDMETHODIMP RollbackChange() override;
  STDMETHODIMP Play(__int64 nBegin, __int64 nEnd, ULONG dwChannelMask,
                    VARIANT_BOOL bLooped) override;
  STDMETHODIMP StopPlay() override;
  STDMETHODIMP GetPlayStatus(VARIANT_BOOL* pbPlaying, __int64* pnPosition) override;
  STDMETHODIMP GetOutputLevel(SHORT niChannel, float* pfOutputLevel) override;
  STDMETHODIMP SetPlaybackDevice(LONG niDevice) override;
  STDMETHODIMP GetBitsPerSample(SHORT* pnBitsPerSample) override;
  STDMETHODIMP ModifyPlaySection(__int64 nBegin, __int64 nEnd) override;

  // IConnectionPointContainer
  STDMETHODIMP EnumConnectionPoints(IEnumConnectionPoints** ppEnum) override;
  STDMETHODIMP FindConnectionPoint(REFIID riid, IConnectionPoint** ppCP) override;

  // IDocumentObject
  CEditedAudio* STDMETHODCALLTYPE Implementation() override { return this; }

  // IProvideClassInfo2
  STDMETHODIMP GetGUID(DWORD dwGuidKind, GUID* pGUID) override;

 private:
  using Segment = DocumentContent::Segment;

  IUnknown* Identity() noexcept { return static_cast<IEditedAudio*>(this); }

  void FireStoreUndo(BSTR operation);

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
