// Readers that change what another one reads.
#pragma once

#include <marlinda.h>

#include <functional>

#include "core/com_ptr.h"

namespace marlinda {

// Reads with `read(source, position, array)`, on the threads that call the reader.
using ReadFunction = std::function<HRESULT(IAudioReader*, __int64, SAFEARRAY*)>;
ComPtr<IAudioReader> ReadWith(IAudioReader* source, ReadFunction read);

// For exports at 24 and 32 bits. The engine scales such samples by 2^31, where +1.0 does not fit
// and becomes the lowest code: samples of 1.0 and above arrive as the greatest float below 1.0.
ComPtr<IAudioReader> ClampSamples(IAudioReader* source);

}  // namespace marlinda
