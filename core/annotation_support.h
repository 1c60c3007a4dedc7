// AnnotationSupport: implements ILabelSupport and ISectionMarkerSupport on lists of records.
#pragma once

#include <marlinda.h>

#include <utility>
#include <vector>

#include "core/com_call.h"
#include "core/records.h"
#include "core/text.h"

namespace marlinda {

// The derived class `Class` defines WithNotes(use), which calls use(all) inside ComCall. `all` has
// the vectors `labels` and `markers`. Methods check indexes, but not positions and ranges.
template <class Class, class Base>
class AnnotationSupport : public Base {
 public:
  // `Class` redeclares a constant as true to offer the methods that test it. Methods whose constant
  // is false return E_NOTIMPL. GetLabelCount and GetMarkerCount test no constant.
  static constexpr bool kAddsNotes = false;
  static constexpr bool kReadsNotes = false;
  static constexpr bool kEditsNotes = false;
  // The code page of returned names.
  static constexpr UINT kNoteCodePage = CP_THREAD_ACP;

  // ILabelSupport
  STDMETHODIMP AddLabel(__int64 nPosition, BSTR bstrName) override {
    return If<Class::kAddsNotes>([&](auto& all) {
      all.labels.push_back({nPosition, ToAnsi(bstrName)});
    });
  }
  STDMETHODIMP GetLabelCount(LONG* pnLabelCount) override {
    return If<true>(
        [&](auto& all) { return SetOut(pnLabelCount, static_cast<LONG>(all.labels.size())); });
  }
  STDMETHODIMP GetLabel(LONG niLabel, __int64* pnPosition, BSTR* pbstrName) override {
    return If<Class::kReadsNotes>([&](auto& all) {
      if (pnPosition == nullptr || pbstrName == nullptr) return E_POINTER;
      *pbstrName = nullptr;
      const Label& label = At(all.labels, niLabel);
      *pbstrName = ToBstr(label.name, Class::kNoteCodePage);
      return SetOut(pnPosition, label.position);
    });
  }
  STDMETHODIMP SetLabel(LONG niLabel, __int64 nPosition, BSTR bstrName) override {
    return If<Class::kEditsNotes>([&](auto& all) {
      At(all.labels, niLabel) = {nPosition, ToAnsi(bstrName)};
    });
  }
  STDMETHODIMP RemoveLabel(LONG niLabel) override {
    return If<Class::kEditsNotes>([&](auto& all) { Remove(all.labels, niLabel); });
  }
  STDMETHODIMP RemoveAllLabels() override {
    return If<Class::kAddsNotes>([&](auto& all) { all.labels.clear(); });
  }

  // ISectionMarkerSupport
  STDMETHODIMP AddSectionMarker(__int64 nBegin, __int64 nEnd, BSTR bstrName) override {
    return If<Class::kAddsNotes>([&](auto& all) {
      all.markers.push_back({{nBegin, nEnd}, ToAnsi(bstrName)});
    });
  }
  STDMETHODIMP GetMarkerCount(LONG* pnMarkerCount) override {
    return If<true>(
        [&](auto& all) { return SetOut(pnMarkerCount, static_cast<LONG>(all.markers.size())); });
  }
  STDMETHODIMP GetSectionMarker(LONG niSectionMarker, __int64* pnBegin, __int64* pnEnd,
                                BSTR* pbstrName) override {
    return If<Class::kReadsNotes>([&](auto& all) {
      if (pnBegin == nullptr || pnEnd == nullptr || pbstrName == nullptr) return E_POINTER;
      *pbstrName = nullptr;
      const SectionMarker& marker = At(all.markers, niSectionMarker);
      *pbstrName = ToBstr(marker.name, Class::kNoteCodePage);
      return SetOut(pnBegin, marker.section.begin, pnEnd, marker.section.end);
    });
  }
  STDMETHODIMP SetSectionMarker(LONG niSectionMarker, __int64 nBegin, __int64 nEnd,
                                BSTR bstrName) override {
    return If<Class::kEditsNotes>([&](auto& all) {
      At(all.markers, niSectionMarker) = {{nBegin, nEnd}, ToAnsi(bstrName)};
    });
  }
  STDMETHODIMP RemoveSectionMarker(LONG niSectionMarker) override {
    return If<Class::kEditsNotes>([&](auto& all) { Remove(all.markers, niSectionMarker); });
  }
  STDMETHODIMP RemoveAllSectionMarkers() override {
    return If<Class::kAddsNotes>([&](auto& all) { all.markers.clear(); });
  }

 private:
  template <bool kOffered, class Use>
  HRESULT If(Use&& use) {
    if constexpr (kOffered) return static_cast<Class*>(this)->WithNotes(std::forward<Use>(use));
    return E_NOTIMPL;
  }

  // Compares the index as unsigned, so that negative indexes fail too.
  template <class Record>
  static Record& At(std::vector<Record>& records, LONG index) {
    if (static_cast<ULONG>(index) >= records.size()) throw HResultError(E_INVALIDARG);
    return records[static_cast<ULONG>(index)];
  }

  template <class Record>
  static void Remove(std::vector<Record>& records, LONG index) {
    At(records, index);
    records.erase(records.begin() + index);
  }
};

}  // namespace marlinda
