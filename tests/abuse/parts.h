// What the abuse tests do again and again.
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

// Samples from `first` on that all differ.
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

// Where this process and its children put temporary files.
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

// The exit code of a program.
inline DWORD RunProgram(const std::wstring& path, const std::wstring& arguments) {
  std::wstring command = L"\"" + path + L"\" " + arguments;
  STARTUPINFOW startup = {};
  startup.cb = sizeof startup;
  PROCESS_INFORMATION process = {};
  Check(CreateProcessW(nullptr, command.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr,
                       &startup, &process)
            ? S_OK
            : LastErrorResult());
  const KernelHandle thread(process.hThread);
  const KernelHandle ended(process.hProcess);
  WaitForSingleObject(ended.get(), INFINITE);
  DWORD code = STILL_ACTIVE;
  GetExitCodeProcess(ended.get(), &code);
  return code;
}

}  // namespace marlinda::testing
