#include "import/null_reader.h"

#include <algorithm>

#include "core/sample_array.h"

namespace marlinda {

HRESULT CNullReader::FillWithSilence(SAFEARRAY* array) noexcept {
  SampleArrayView view;
  const HRESULT hr = view.Lock(array);
  if (SUCCEEDED(hr)) std::ranges::fill(view.samples(), 0.0F);
  return hr;
}

MARLINDA_DEFINE_CLASS(CNullReader)

}  // namespace marlinda
