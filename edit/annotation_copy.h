// Copies labels and section markers from one object to another, through their interfaces.
#pragma once

#include <windows.h>

#include <optional>

#include "core/section.h"

namespace marlinda {

// Appends the source's labels and markers to the destination's, in order, moved by `offset`. With a
// range, only labels inside it and the parts of markers that lie inside it. E_FAIL when one of the
// objects has no labels or no markers; what was copied before that stays.
HRESULT CopyAnnotations(IUnknown* source, IUnknown* destination, __int64 offset,
                        const std::optional<CSection>& range);

}  // namespace marlinda
