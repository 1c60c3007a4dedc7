// CEditedAudio: the editable document, a list of segments of other readers with labels and section
// markers. It is a reader itself.
#pragma once

#include <marlinda.h>

#include <vector>

#include "core/com_object.h"
#include "core/com_ptr.h"
#include "core/scratch_array.h"
#include "core/srw_lock.h"
#include "edit/annotations.h"
#include "edit/connection_points.h"
#include "edit/segment_list.h"

namespace marlinda {

// Editing rearranges, splits and clones segments; samples stay in their sources. No method checks
// its ranges, and no edit fires an event.
//
// The host must not edit while another thread reads, or that read may miss a part of the edit. The
// lock only keeps such a mistake from corrupting memory; it is never held while a source, a sink
// or another document is called.
class CEditedAudio final
    : public Object<CEditedAudio, IAudioReader, IScrubSupport, ILabelSupport, ISectionMarkerSupport,
                    IEditedAudio, IConnectionPointContainer> {
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

  // IProvideClassInfo2
  STDMETHODIMP GetGUID(DWORD dwGuidKind, GUID* pGUID) override;

 private:
  using SegmentList = marlinda::SegmentList<ComPtr<IAudioReader>>;
  using Segment = SegmentList::Segment;

  // The rate of 1 is deliberate: what marks a fresh document is that it has no channels.
  struct Format {
    bool IsSet() const noexcept { return samples_per_sec != 0 && channels != 0; }

    LONG samples_per_sec = 1;
    SHORT channels = 0;
    SHORT bits_per_sample = 16;
  };

  IUnknown* Identity() noexcept { return static_cast<IEditedAudio*>(this); }

  void FireStoreUndo(BSTR operation);

  Format CurrentFormat() const;
  void AdoptFormat(IAudioReader* source);
  std::vector<Segment> TakeSegments(IEditedAudio* document);
  void InsertSegments(__int64 position, std::vector<Segment> segments);
  void BeginCopy(IEditedAudio* destination);
  HRESULT CopyRange(IEditedAudio* destination, const CSection& range);
  std::vector<ComPtr<IAudioReader>> Sources() const;

  mutable SrwLock lock_;
  Format format_;
  SegmentList segments_;
  Annotations annotations_;

  // A change is open as long as this holds; the snapshot is the content at its beginning.
  bool change_open_ = false;
  ComPtr<IEditedAudio> snapshot_;

  LONG playback_device_ = -1;
  ScratchKeeper scratch_;
  ConnectionPoints connection_points_{*this};
};

}  // namespace marlinda
