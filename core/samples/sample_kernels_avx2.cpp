// The sample converters with AVX2 and FMA, in single precision. This file is compiled for both. Use
// kAvx2SampleKernels only on a processor with both.
#include <immintrin.h>

#include "core/samples/sample_kernel_blocks.h"

namespace marlinda {
namespace {

void Store(__m256i value, std::byte* out) noexcept {
  _mm256_storeu_si256(reinterpret_cast<__m256i*>(out), value);
}

// Returns sixteen rounded codes, limited to 16 bits.
//
// floor(sample * scale + 1/2) is the code. If rounding the sum to a float reaches the next integer,
// the floor is one too high. The exact remainder, from one fused multiply-add, is then negative,
// and the code is corrected by -1. Samples are first limited to 1.0, which gives the highest code.
// For NaN the minimum returns its second operand, the NaN. NaN and values far below -1.0 become the
// most negative integer. Saturation turns this integer into the lowest code, even if -1 is added.
template <int kScale>
__m256i RoundSixteen(const float* source) noexcept {
  const __m256 scale = _mm256_set1_ps(kScale);
  const __m256 half = _mm256_set1_ps(0.5F);
  const __m256 limit = _mm256_set1_ps(1.0F);
  const __m256 a = _mm256_min_ps(limit, _mm256_loadu_ps(source));
  const __m256 b = _mm256_min_ps(limit, _mm256_loadu_ps(source + 8));
  const __m256 a_floor = _mm256_floor_ps(_mm256_fmadd_ps(a, scale, half));
  const __m256 b_floor = _mm256_floor_ps(_mm256_fmadd_ps(b, scale, half));
  const __m256 a_rest = _mm256_fmadd_ps(a, scale, _mm256_sub_ps(half, a_floor));
  const __m256 b_rest = _mm256_fmadd_ps(b, scale, _mm256_sub_ps(half, b_floor));
  const __m256i codes =
      _mm256_packs_epi32(_mm256_cvttps_epi32(a_floor), _mm256_cvttps_epi32(b_floor));
  // A float's bits, read as an integer, have the sign of the float. Packing preserves this sign.
  const __m256i rests =
      _mm256_packs_epi32(_mm256_castps_si256(a_rest), _mm256_castps_si256(b_rest));
  const __m256i corrected = _mm256_adds_epi16(codes, _mm256_srai_epi16(rests, 15));
  // Packing works on each half of a register separately, so the quarters need reordering.
  return _mm256_permute4x64_epi64(corrected, 0xD8);
}

void EncodeBlock8(const float* source, std::byte* out) noexcept {
  const __m256i codes =
      _mm256_packs_epi16(RoundSixteen<127>(source), RoundSixteen<127>(source + 16));
  Store(_mm256_xor_si256(_mm256_permute4x64_epi64(codes, 0xD8), _mm256_set1_epi8(-128)), out);
}

void EncodeBlock16(const float* source, std::byte* out) noexcept {
  Store(RoundSixteen<32767>(source), out);
}

// Values that do not fit, +1.0 and NaN included, become the most negative code.
__m256i Scale32(const float* source) noexcept {
  return _mm256_cvttps_epi32(_mm256_mul_ps(_mm256_loadu_ps(source), _mm256_set1_ps(2147483648.0F)));
}

// Writes 32 bytes, although the eight codes take 24.
void EncodeBlock24(const float* source, std::byte* out) noexcept {
  const __m256i upper_bytes =
      _mm256_setr_epi8(1, 2, 3, 5, 6, 7, 9, 10, 11, 13, 14, 15, -1, -1, -1, -1, 1, 2, 3, 5, 6, 7, 9,
                       10, 11, 13, 14, 15, -1, -1, -1, -1);
  const __m256i join = _mm256_setr_epi32(0, 1, 2, 4, 5, 6, 3, 7);
  const __m256i codes = _mm256_shuffle_epi8(Scale32(source), upper_bytes);
  Store(_mm256_permutevar8x32_epi32(codes, join), out);
}

void EncodeBlock32(const float* source, std::byte* out) noexcept {
  Store(Scale32(source), out);
  Store(Scale32(source + 8), out + 32);
}

// Divides eight codes by kDivisor and rounds to the nearest float. Multiplying by the reciprocal
// and correcting once with the exact remainder costs less than a division. The tests prove the
// result for every code of 8 and 16 bits.
template <int kDivisor>
void Divide(const __m256i& codes, float* destination) noexcept {
  const __m256 divisor = _mm256_set1_ps(kDivisor);
  const __m256 reciprocal = _mm256_set1_ps(1.0F / kDivisor);
  const __m256 dividend = _mm256_cvtepi32_ps(codes);
  const __m256 quotient = _mm256_mul_ps(dividend, reciprocal);
  const __m256 rest = _mm256_fnmadd_ps(quotient, divisor, dividend);
  _mm256_storeu_ps(destination, _mm256_fmadd_ps(rest, reciprocal, quotient));
}

__m128i Load(const std::byte* in) noexcept {
  return _mm_loadu_si128(reinterpret_cast<const __m128i*>(in));
}

void DecodeBlock8(const std::byte* in, float* destination) noexcept {
  const __m256i centre = _mm256_set1_epi32(127);
  const __m128i bytes = Load(in);
  Divide<127>(_mm256_sub_epi32(_mm256_cvtepu8_epi32(bytes), centre), destination);
  Divide<127>(_mm256_sub_epi32(_mm256_cvtepu8_epi32(_mm_srli_si128(bytes, 8)), centre),
              destination + 8);
}

void DecodeBlock16(const std::byte* in, float* destination) noexcept {
  Divide<32767>(_mm256_cvtepi16_epi32(Load(in)), destination);
  Divide<32767>(_mm256_cvtepi16_epi32(Load(in + 16)), destination + 8);
}

void FromCodes32(const __m256i& codes, float* destination) noexcept {
  const __m256 scale = _mm256_set1_ps(1.0F / 2147483648.0F);
  _mm256_storeu_ps(destination, _mm256_mul_ps(_mm256_cvtepi32_ps(codes), scale));
}

// Reads 28 bytes, although the eight codes take 24.
void DecodeBlock24(const std::byte* in, float* destination) noexcept {
  const __m256i to_upper_bytes =
      _mm256_setr_epi8(-1, 0, 1, 2, -1, 3, 4, 5, -1, 6, 7, 8, -1, 9, 10, 11, -1, 0, 1, 2, -1, 3, 4,
                       5, -1, 6, 7, 8, -1, 9, 10, 11);
  const __m256i bytes = _mm256_inserti128_si256(_mm256_castsi128_si256(Load(in)), Load(in + 12), 1);
  FromCodes32(_mm256_shuffle_epi8(bytes, to_upper_bytes), destination);
}

void DecodeBlock32(const std::byte* in, float* destination) noexcept {
  const auto* const codes = reinterpret_cast<const __m256i*>(in);
  FromCodes32(_mm256_loadu_si256(codes), destination);
  FromCodes32(_mm256_loadu_si256(codes + 1), destination + 8);
}

}  // namespace

const SampleKernels kAvx2SampleKernels = {
    {EncodeBlocks<1, 32, 32, EncodeBlock8>, EncodeBlocks<2, 16, 16, EncodeBlock16>,
     EncodeBlocks<3, 8, 11, EncodeBlock24>, EncodeBlocks<4, 16, 16, EncodeBlock32>},
    {DecodeBlocks<1, 16, 16, DecodeBlock8>, DecodeBlocks<2, 16, 16, DecodeBlock16>,
     DecodeBlocks<3, 8, 10, DecodeBlock24>, DecodeBlocks<4, 16, 16, DecodeBlock32>}};

}  // namespace marlinda
