// A reader for exports at 24 and 32 bits. The engine scales such samples by 2^31, where +1.0 does
// not fit and becomes the lowest code.
#pragma once

#include <marlinda.h>

#include "core/com_ptr.h"

namespace marlinda {

// Reads from `source`; samples of 1.0 and above arrive as the greatest float below 1.0.
ComPtr<IAudioReader> ClampSamples(IAudioReader* source);

}  // namespace marlinda
