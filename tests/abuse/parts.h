// Helpers that several abuse tests share.
#pragma once

#include <vector>

#include "tests/support/com_client.h"

namespace marlinda::testing {

using Samples = std::vector<float>;

inline ComPtr<IAudioReader> Silence(__int64 frames) {
  const auto silence = Create<INullReader>(CLSID_CNullReader);
  Check(silence->Create(frames, 44100, 2));
  return As<IAudioReader>(silence);
}

inline void WriteTake(IAudioWriter* writer, const Samples& samples) {
  Check(writer->SetFormat(44100, 2));
  Check(writer->OpenDevice());
  Check(writer->WriteAudio(Floats(samples)));
  Check(writer->CloseDevice());
}

}  // namespace marlinda::testing
