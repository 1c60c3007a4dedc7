// The common parts of the abuse tests.
#pragma once

#include <gtest/gtest.h>

#include <numeric>
#include <string>
#include <vector>

#include "core/handle.h"
#include "tests/support/com_client.h"

namespace marlinda::testing {

using Samples = std::vector<float>;

inline ComPtr<IAudioReader> Silence(__int64 frames) {
  const auto silence = Create<INullReader>(CLSID_CNullReader);
  Check(silence->Create(frames, 44100, 2));
  return As<IAudioReader>(silence);
}

// Samples from `first` on, all different.
inline Samples Ramp(std::size_t count, float first) {
  Samples samples(count);
  std::iota(samples.begin(), samples.end(), first);
  return samples;
}

inline void WriteTake(IAudioWriter* writer, const Samples& samples) {
  Check(writer->SetFormat(44100, 2));
  Check(writer->OpenDevice());
  Check(writer->WriteAudio(Floats(samples)));
  Check(writer->CloseDevice());
}

inline void ExpectStored(IAudioReader* reader, __int64 position, const Samples& expected) {
  const Floats block(expected.size(), -7.0F);
  EXPECT_EQ(reader->ReadAudio(position, block), S_OK);
  EXPECT_TRUE(block.ToVector() == expected) << "other samples from " << position << " on";
}

// Directs the temporary files of this process and its children to a folder.
class TemporaryFilesIn {
 public:
  explicit TemporaryFilesIn(const std::wstring& folder) {
    SetEnvironmentVariableW(L"TMP", folder.c_str());
  }
  TemporaryFilesIn(const TemporaryFilesIn&) = delete;
  TemporaryFilesIn& operator=(const TemporaryFilesIn&) = delete;
  ~TemporaryFilesIn() { SetEnvironmentVariableW(L"TMP", usual_.c_str()); }

 private:
  const std::wstring usual_ = _wgetenv(L"TMP");
};

}  // namespace marlinda::testing
