// The sample converters with SSE2. Codes of 8 and 16 bits are rounded in double precision, as in
// the scalar form. For all other conversions, single precision gives the same results as the scalar
// form.
#include <emmintrin.h>

#include "core/samples/sample_kernel_blocks.h"

namespace marlinda {
namespace {

__m128i Load(const std::byte* in) noexcept {
  return _mm_loadu_si128(reinterpret_cast<const __m128i*>(in));
}

void Store(__m128i value, std::byte* out) noexcept {
  _mm_storeu_si128(reinterpret_cast<__m128i*>(out), value);
}

// Returns two codes from 0 to kHighest, which is 255 or 65535, in the lower half. For NaN the
// maximum returns its second operand, 0.
template <int kHighest>
__m128i RoundTwo(__m128 samples) noexcept {
  const __m128d half = _mm_set1_pd(0.5);
  constexpr int kScale = kHighest / 2;  // 127 or 32767
  const __m128d scale = _mm_set1_pd(kScale);
  const __m128d offset = _mm_set1_pd(kScale + 1);
  __m128d value = _mm_mul_pd(_mm_cvtps_pd(samples), scale);
  value = _mm_add_pd(_mm_add_pd(value, offset), half);
  value = _mm_max_pd(value, _mm_setzero_pd());
  return _mm_cvttpd_epi32(_mm_min_pd(value, _mm_set1_pd(kHighest)));
}

template <int kHighest>
__m128i RoundFour(const float* source) noexcept {
  const __m128 samples = _mm_loadu_ps(source);
  return _mm_unpacklo_epi64(RoundTwo<kHighest>(samples),
                            RoundTwo<kHighest>(_mm_movehl_ps(samples, samples)));
}

void EncodeBlock8(const float* source, std::byte* out) noexcept {
  const __m128i low = _mm_packs_epi32(RoundFour<255>(source), RoundFour<255>(source + 4));
  const __m128i high = _mm_packs_epi32(RoundFour<255>(source + 8), RoundFour<255>(source + 12));
  Store(_mm_packus_epi16(low, high), out);
}

void EncodeBlock16(const float* source, std::byte* out) noexcept {
  const __m128i offset = _mm_set1_epi32(32768);
  Store(_mm_packs_epi32(_mm_sub_epi32(RoundFour<65535>(source), offset),
                        _mm_sub_epi32(RoundFour<65535>(source + 4), offset)),
        out);
}

// Values that do not fit, +1.0 and NaN included, become the most negative code.
__m128i Scale32(const float* source) noexcept {
  return _mm_cvttps_epi32(_mm_mul_ps(_mm_loadu_ps(source), _mm_set1_ps(2147483648.0F)));
}

// Writes 16 bytes, although the four codes take 12.
void EncodeBlock24(const float* source, std::byte* out) noexcept {
  const __m128i codes = _mm_srli_epi32(Scale32(source), 8);
  // Packs two codes into six bytes of each half, then joins the halves to twelve bytes.
  const __m128i even = _mm_and_si128(codes, _mm_set_epi32(0, -1, 0, -1));
  const __m128i pairs = _mm_or_si128(even, _mm_srli_epi64(_mm_xor_si128(codes, even), 8));
  const __m128i high = _mm_slli_si128(_mm_srli_si128(pairs, 8), 6);
  Store(_mm_or_si128(_mm_move_epi64(pairs), high), out);
}

void EncodeBlock32(const float* source, std::byte* out) noexcept { Store(Scale32(source), out); }

// Code and divisor are exact as floats, so one division gives the result of the scalar form.
void Divide(__m128i codes, float divisor, float* destination) noexcept {
  _mm_storeu_ps(destination, _mm_div_ps(_mm_cvtepi32_ps(codes), _mm_set1_ps(divisor)));
}

void DecodeBlock8(const std::byte* in, float* destination) noexcept {
  const __m128i zero = _mm_setzero_si128();
  const __m128i centre = _mm_set1_epi32(127);
  const __m128i bytes = Load(in);
  const __m128i low = _mm_unpacklo_epi8(bytes, zero);
  const __m128i high = _mm_unpackhi_epi8(bytes, zero);
  Divide(_mm_sub_epi32(_mm_unpacklo_epi16(low, zero), centre), 127.0F, destination);
  Divide(_mm_sub_epi32(_mm_unpackhi_epi16(low, zero), centre), 127.0F, destination + 4);
  Divide(_mm_sub_epi32(_mm_unpacklo_epi16(high, zero), centre), 127.0F, destination + 8);
  Divide(_mm_sub_epi32(_mm_unpackhi_epi16(high, zero), centre), 127.0F, destination + 12);
}

void DecodeBlock16(const std::byte* in, float* destination) noexcept {
  const __m128i words = Load(in);
  const __m128i low = _mm_srai_epi32(_mm_unpacklo_epi16(words, words), 16);
  const __m128i high = _mm_srai_epi32(_mm_unpackhi_epi16(words, words), 16);
  Divide(low, 32767.0F, destination);
  Divide(high, 32767.0F, destination + 4);
}

void FromCodes32(__m128i codes, float* destination) noexcept {
  const __m128 scale = _mm_set1_ps(1.0F / 2147483648.0F);
  _mm_storeu_ps(destination, _mm_mul_ps(_mm_cvtepi32_ps(codes), scale));
}

// Reads 16 bytes, although the four codes take 12. Shifts each code to the upper bytes of its lane.
void DecodeBlock24(const std::byte* in, float* destination) noexcept {
  const __m128i bytes = Load(in);
  const __m128i first = _mm_unpacklo_epi32(_mm_slli_si128(bytes, 1), _mm_srli_si128(bytes, 2));
  const __m128i second = _mm_unpacklo_epi32(_mm_srli_si128(bytes, 5), _mm_srli_si128(bytes, 8));
  const __m128i upper = _mm_set1_epi32(-256);
  FromCodes32(_mm_and_si128(_mm_unpacklo_epi64(first, second), upper), destination);
}

void DecodeBlock32(const std::byte* in, float* destination) noexcept {
  FromCodes32(Load(in), destination);
}

}  // namespace

const SampleKernels kSse2SampleKernels = {
    {EncodeBlocks<1, 16, 16, EncodeBlock8>, EncodeBlocks<2, 8, 8, EncodeBlock16>,
     EncodeBlocks<3, 4, 6, EncodeBlock24>, EncodeBlocks<4, 4, 4, EncodeBlock32>},
    {DecodeBlocks<1, 16, 16, DecodeBlock8>, DecodeBlocks<2, 8, 8, DecodeBlock16>,
     DecodeBlocks<3, 4, 6, DecodeBlock24>, DecodeBlocks<4, 4, 4, DecodeBlock32>}};

}  // namespace marlinda
