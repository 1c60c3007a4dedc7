// EncodedFile: a compressed file that is being written, and its settings.
#pragma once

#include <dshow.h>
#include <mmreg.h>

#include <cstddef>
#include <memory>
#include <span>
#include <string>

#include "core/com_call.h"

namespace marlinda {

// Thrown if the system has no encoder for the file, or the encoder refuses the format.
class CodecError final : public HResultError {
 public:
  CodecError() noexcept : HResultError(VFW_E_CANNOT_CONNECT) {}
};

// Tags in UTF-16, because MP3 and WMA files support characters outside the code page. Empty texts
// are omitted.
struct WideTags {
  std::wstring title;
  std::wstring artist;
  std::wstring album;
  std::wstring year;
  std::wstring genre;
};

struct EncoderSettings {
  std::string path;
  int samples_per_sec = 0;
  int channels = 0;
  int bit_rate_kbit = 0;  // see IsBetterBitRate for encoders without this rate
  WideTags tags;
};

// The encoders' input: interleaved 16-bit PCM.
inline WAVEFORMATEX PcmFormatOf(const EncoderSettings& settings) noexcept {
  constexpr WORD kBits = 16;
  WAVEFORMATEX format = {};
  format.wFormatTag = WAVE_FORMAT_PCM;
  format.nChannels = static_cast<WORD>(settings.channels);
  format.nSamplesPerSec = static_cast<DWORD>(settings.samples_per_sec);
  format.wBitsPerSample = kBits;
  format.nBlockAlign = static_cast<WORD>(format.nChannels * kBits / 8);
  format.nAvgBytesPerSec = format.nSamplesPerSec * format.nBlockAlign;
  return format;
}

// True if `rate` is a better choice than `best`. The best choice is the highest rate up to
// `wanted`, or the lowest rate if all are above `wanted`.
inline bool IsBetterBitRate(DWORD rate, DWORD best, DWORD wanted) noexcept {
  if (rate <= wanted) return best > wanted || rate > best;
  return best > wanted && rate < best;
}

// Use an object on one thread, which has entered an apartment.
class EncodedFile {
 public:
  EncodedFile() = default;
  // Without Finish, the file stays incomplete.
  virtual ~EncodedFile() = default;

  // Writes whole frames of 16-bit samples. Throws HResultError if the encoder or the disk fails.
  virtual void Write(std::span<const std::byte> pcm) = 0;
  // Writes the encoder's remaining output and completes the file. Throws like Write.
  virtual void Finish() = 0;
};

// Both functions throw CodecError, or HResultError if the file cannot be created. A CodecError
// leaves no new file and does not change an existing file.
std::unique_ptr<EncodedFile> CreateMp3File(const EncoderSettings& settings);
std::unique_ptr<EncodedFile> CreateWmaFile(const EncoderSettings& settings);

}  // namespace marlinda
