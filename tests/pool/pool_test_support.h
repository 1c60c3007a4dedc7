// The vocabulary of the pool's tests: a pool as its clients hold it, and the bytes of its files.
#pragma once

#include <windows.h>
// After windows.h.
#include <winioctl.h>

#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <span>
#include <vector>

#include "tests/support/com_client.h"

namespace marlinda::testing {

inline constexpr HRESULT kEndOfFile = static_cast<HRESULT>(0x80070026);
inline constexpr HRESULT kInvalidHandle = static_cast<HRESULT>(0x80070006);

using Bytes = std::vector<unsigned char>;
using Samples = std::vector<float>;

// `count` samples from -1.0 on, none like its neighbours.
inline Samples Wave(std::size_t count, float start = -1.0F) {
  Samples samples(count);
  for (std::size_t i = 0; i < count; ++i) {
    samples[i] = start + static_cast<float>((i * 37) % 1024) / 512.0F;
  }
  return samples;
}

// A pool with all its interfaces and the file handles that it hands out.
class Pool {
 public:
  explicit Pool(SHORT channels = 1, SHORT bits = 32, SHORT dithering = 0)
      : pool(Create<IAudioPool>(CLSID_CAudioPool)), writer(As<IAudioWriter>(pool)) {
    EXPECT_EQ(pool->SetBitDepth(bits, dithering), S_OK);
    EXPECT_EQ(writer->SetFormat(44100, channels), S_OK);
  }

  HANDLE AudioFile() const { return FileHandles().first; }
  HANDLE PeakFile() const { return FileHandles().second; }

  HRESULT Write(const Samples& samples) const {
    Floats block(samples);
    return writer->WriteAudio(block);
  }

  // One take of one block.
  void WriteTake(const Samples& samples) const {
    EXPECT_EQ(writer->OpenDevice(), S_OK);
    EXPECT_EQ(Write(samples), S_OK);
    EXPECT_EQ(writer->CloseDevice(), S_OK);
  }

  bool IsReady() const {
    LONG ready = -1;
    EXPECT_EQ(writer->QueryIsReady(&ready), S_OK);
    EXPECT_TRUE(ready == 0 || ready == 1);
    return ready == 1;
  }

  ComPtr<IAudioReader> LastReader() const {
    ComPtr<IAudioReader> reader;
    EXPECT_EQ(pool->CreateLastReader(reader.GetAddressOf()), S_OK);
    return reader;
  }
  ComPtr<IAudioReader> PrevReader() const {
    ComPtr<IAudioReader> reader;
    EXPECT_EQ(pool->CreatePrevReader(reader.GetAddressOf()), S_OK);
    return reader;
  }

  const ComPtr<IAudioPool> pool;
  const ComPtr<IAudioWriter> writer;

 private:
  std::pair<HANDLE, HANDLE> FileHandles() const {
    __int64 audio = 0;
    __int64 peak = 0;
    EXPECT_EQ(pool->GetFileHandles(&audio, &peak), S_OK);
    EXPECT_EQ(audio, static_cast<LONG>(audio)) << "not widened with its sign";
    return {reinterpret_cast<HANDLE>(static_cast<INT_PTR>(audio)),
            reinterpret_cast<HANDLE>(static_cast<INT_PTR>(peak))};
  }
};

// All bytes of a file that only its handle can reach.
inline Bytes BytesOf(HANDLE file) {
  LARGE_INTEGER size = {};
  EXPECT_TRUE(GetFileSizeEx(file, &size));
  Bytes bytes(static_cast<std::size_t>(size.QuadPart));
  SetFilePointerEx(file, LARGE_INTEGER{}, nullptr, FILE_BEGIN);
  DWORD read = 0;
  EXPECT_TRUE(ReadFile(file, bytes.data(), static_cast<DWORD>(bytes.size()), &read, nullptr));
  EXPECT_EQ(read, bytes.size());
  return bytes;
}

// The floats of a file, as stored.
inline Samples FloatsOf(HANDLE file) {
  const Bytes bytes = BytesOf(file);
  Samples floats(bytes.size() / sizeof(float));
  std::memcpy(floats.data(), bytes.data(), floats.size() * sizeof(float));
  return floats;
}

// Reads `count` samples, which must all be there.
inline Samples Read(IAudioReader* reader, __int64 position, std::size_t count) {
  Floats block(count, -7.0F);
  EXPECT_EQ(reader->ReadAudio(position, block), S_OK);
  return block.ToVector();
}

inline __int64 SampleCount(IAudioReader* reader) {
  __int64 count = -1;
  EXPECT_EQ(reader->GetSampleCount(&count), S_OK);
  return count;
}

// Lets a file have holes, so that places far behind its end cost no disk.
inline void MakeSparse(HANDLE file) {
  DWORD returned = 0;
  // Without effect where every file may have holes.
  DeviceIoControl(file, FSCTL_SET_SPARSE, nullptr, 0, nullptr, 0, &returned, nullptr);
}

// Takes a file out of its owner's hands for a while: an event stands in for it under the same
// handle value, so that the owner's calls fail without hitting anything else.
class WithheldFile {
 public:
  explicit WithheldFile(HANDLE file) : slot_(file) {
    file_ = Copy(file);
    CloseHandle(file);
    Occupy([] { return CreateEventW(nullptr, TRUE, FALSE, nullptr); });
  }
  ~WithheldFile() {
    CloseHandle(slot_);
    Occupy([this] { return Copy(file_); });
    CloseHandle(file_);
  }
  WithheldFile(const WithheldFile&) = delete;
  WithheldFile& operator=(const WithheldFile&) = delete;

 private:
  static HANDLE Copy(HANDLE file) {
    HANDLE copy = nullptr;
    EXPECT_TRUE(DuplicateHandle(GetCurrentProcess(), file, GetCurrentProcess(), &copy, 0, FALSE,
                                DUPLICATE_SAME_ACCESS))
        << GetLastError();
    return copy;
  }

  // The system reuses free handle values; which one comes first is its own affair.
  template <class Make>
  void Occupy(Make make) {
    std::vector<HANDLE> others;
    HANDLE handle = make();
    while (handle != slot_ && others.size() < 1000) {
      others.push_back(handle);
      handle = make();
    }
    EXPECT_EQ(handle, slot_) << "the handle value did not come back";
    for (const HANDLE other : others) CloseHandle(other);
  }

  HANDLE slot_;
  HANDLE file_ = nullptr;
};

}  // namespace marlinda::testing
