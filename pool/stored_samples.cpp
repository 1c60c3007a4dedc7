#include "pool/stored_samples.h"

#include "core/samples/sample_converter.h"

namespace marlinda {
namespace {

constexpr std::size_t kMaxKeptBytes = std::size_t{1} << 22;

}  // namespace

std::span<const std::byte> StoredSamples::Encode(std::span<const float> samples, int bits) {
  if (bits == 32) return std::as_bytes(samples);
  const std::span<std::byte> stored = Prepare(samples.size(), bits);
  ConvertFloatToPcm(samples, buffer_, bits);
  const std::size_t codes = samples.size() * PcmBytesPerSample(bits);
  std::ranges::fill(std::span(buffer_).subspan(codes), std::byte{});
  return stored;
}

std::span<std::byte> StoredSamples::Prepare(std::size_t count, int bits) {
  const auto stored_bytes = static_cast<std::size_t>(StoredBytes(bits));
  buffer_.resize(count * std::max(PcmBytesPerSample(bits), stored_bytes));
  return std::span(buffer_).first(count * stored_bytes);
}

void StoredSamples::Decode(std::size_t read, std::span<float> samples, int bits) const {
  ConvertPcmToFloat(buffer_, samples, bits);
  const std::size_t decoded = std::min(samples.size(), read / PcmBytesPerSample(bits));
  std::ranges::fill(samples.subspan(decoded), 0.0F);
}

void StoredSamples::Trim() noexcept {
  if (buffer_.capacity() > kMaxKeptBytes) std::vector<std::byte>().swap(buffer_);
}

}  // namespace marlinda
