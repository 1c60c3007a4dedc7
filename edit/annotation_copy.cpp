#include "edit/annotation_copy.h"

#include <marlinda.h>

#include "core/com_ptr.h"
#include "core/text.h"
#include "edit/annotations.h"

namespace marlinda {
namespace {

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

}  // namespace

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

}  // namespace marlinda
