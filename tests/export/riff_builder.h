// Builds the bytes that a RIFF file must have, independently of the code under test. Example:
// Chunk("fmt ", U16(1) + U16(2)).
#pragma once

#include <bit>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace marlinda::testing::riff {

struct Bytes : std::vector<unsigned char> {
  using std::vector<unsigned char>::vector;
  Bytes(std::vector<unsigned char> bytes) : std::vector<unsigned char>(std::move(bytes)) {}
};

inline Bytes operator+(Bytes left, const Bytes& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

inline Bytes Integer(std::uint64_t value, int bytes) {
  Bytes result;
  for (; bytes > 0; --bytes, value >>= 8) result.push_back(static_cast<unsigned char>(value));
  return result;
}
inline Bytes U16(std::uint64_t value) { return Integer(value, 2); }
inline Bytes U32(std::uint64_t value) { return Integer(value, 4); }
inline Bytes F32(float value) { return U32(std::bit_cast<std::uint32_t>(value)); }

inline Bytes Text(std::string_view text) { return Bytes(text.begin(), text.end()); }
inline Bytes TextZ(std::string_view text) { return Text(text) + Bytes{0}; }

inline Bytes Hex(std::string_view digits) {
  Bytes result;
  for (; digits.size() >= 2; digits.remove_prefix(2)) {
    result.push_back(
        static_cast<unsigned char>(std::stoi(std::string(digits.substr(0, 2)), nullptr, 16)));
  }
  return result;
}

// Pads the chunk to a multiple of 4 bytes. The chunk's size includes the padding.
inline Bytes Chunk(std::string_view id, Bytes body) {
  while (body.size() % 4 != 0) body.push_back(0);
  return Text(id) + U32(body.size()) + body;
}
inline Bytes List(std::string_view type, const Bytes& body) {
  return Chunk("LIST", Text(type) + body);
}

inline Bytes Info(std::string_view title = "", std::string_view artist = "",
                  std::string_view genre = "", std::string_view album = "",
                  std::string_view date = "-01-01") {
  return List("INFO", Chunk("INAM", TextZ(title)) + Chunk("IART", TextZ(artist)) +
                          Chunk("IGNR", TextZ(genre)) + Chunk("IPRD", TextZ(album)) +
                          Chunk("ICRD", TextZ(date)));
}

inline Bytes CuePoint(std::uint32_t id, std::uint64_t position, std::uint64_t block_start,
                      std::uint64_t sample_offset) {
  return U32(id) + U32(position) + Text("data") + U32(0) + U32(block_start) + U32(sample_offset);
}
inline Bytes Label(std::uint32_t id, std::string_view name) {
  return Chunk("labl", U32(id) + TextZ(name));
}
inline Bytes Region(std::uint32_t id, std::uint64_t length, std::string_view name) {
  return Chunk("ltxt", U32(id) + U32(length) + Text("rgn ") + U16(0) + U16(0) + U16(0) + U16(0) +
                           TextZ(name));
}

// Returns a whole file. `rest` follows the samples.
inline Bytes Wav(const Bytes& format, const Bytes& samples, const Bytes& rest) {
  return Chunk("RIFF", Text("WAVE") + Chunk("fmt ", format) + Chunk("data", samples) + rest);
}

inline Bytes PlainFormat(int tag, int channels, int rate, int bytes_per_sample, int bits) {
  const int block_align = channels * bytes_per_sample;
  return U16(tag) + U16(channels) + U32(rate) + U32(std::uint64_t(block_align) * rate) +
         U16(block_align) + U16(bits);
}

// `type` is 1 for PCM and 3 for floats.
inline Bytes ExtensibleFormat(int type, int channels, int rate, int bytes_per_sample, int bits,
                              std::uint32_t mask) {
  return PlainFormat(0xFFFE, channels, rate, bytes_per_sample, bits) + U16(22) + U16(bits) +
         U32(mask) + U32(type) + U16(0) + U16(0x10) +
         Bytes{0x80, 0x00, 0x00, 0xAA, 0x00, 0x38, 0x9B, 0x71};
}

}  // namespace marlinda::testing::riff
