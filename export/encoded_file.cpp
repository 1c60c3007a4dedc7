#include "export/encoded_file.h"

#include <dshow.h>

namespace marlinda {
namespace {

constexpr WORD kEncoderBits = 16;

}  // namespace

CodecError::CodecError() noexcept : HResultError(VFW_E_CANNOT_CONNECT) {}

WAVEFORMATEX PcmFormatOf(const EncoderSettings& settings) noexcept {
  WAVEFORMATEX format = {};
  format.wFormatTag = WAVE_FORMAT_PCM;
  format.nChannels = static_cast<WORD>(settings.channels);
  format.nSamplesPerSec = static_cast<DWORD>(settings.samples_per_sec);
  format.wBitsPerSample = kEncoderBits;
  format.nBlockAlign = static_cast<WORD>(format.nChannels * kEncoderBits / 8);
  format.nAvgBytesPerSec = format.nSamplesPerSec * format.nBlockAlign;
  return format;
}

bool IsBetterBitRate(DWORD rate, DWORD best, DWORD wanted) noexcept {
  if (rate <= wanted) return best > wanted || rate > best;
  return best > wanted && rate < best;
}

}  // namespace marlinda
