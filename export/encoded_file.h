// A compressed file while it is being written, whichever encoder makes it.
#pragma once

#include <dshow.h>
#include <mmreg.h>

#include <cstddef>
#include <memory>
#include <span>
#include <string>

#include "core/com_call.h"

namespace marlinda {

// No encoder of the system can make the file: there is none, or it refuses the format.
class CodecError final : public HResultError {
 public:
  CodecError() noexcept : HResultError(VFW_E_CANNOT_CONNECT) {}
};

// Tags as the host gives them: both kinds of files hold characters beyond the code page. Empty
// texts are left out.
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
  int bit_rate_kbit = 0;  // an encoder that does not have it takes the next lower one
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

// Whether bit rate `rate` serves better than `best`: the highest one up to `wanted` is best, and
// otherwise the lowest.
inline bool IsBetterBitRate(DWORD rate, DWORD best, DWORD wanted) noexcept {
  if (rate <= wanted) return best > wanted || rate > best;
  return best > wanted && rate < best;
}

// Belongs to one thread, from its creation to its end, which has entered an apartment.
class EncodedFile {
 public:
  EncodedFile() = default;
  // Without Finish before it, the file stays cut off.
  virtual ~EncodedFile() = default;

  // Whole frames of 16 bits. Throws HResultError where encoder or disk fail.
  virtual void Write(std::span<const std::byte> pcm) = 0;
  // Writes the encoder's remaining output and completes the file. Throws like Write.
  virtual void Finish() = 0;
};

// Throw CodecError, or HResultError where the file cannot be created; there is no new file then,
// and an old one is as it was.
std::unique_ptr<EncodedFile> CreateMp3File(const EncoderSettings& settings);
std::unique_ptr<EncodedFile> CreateWmaFile(const EncoderSettings& settings);

}  // namespace marlinda
