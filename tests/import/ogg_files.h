// Ogg files for the tests: those of the tree and others made from them, and an independent decoder:
// a plain loop over the same build of the codec library.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/export/riff_builder.h"

namespace marlinda::testing {

using riff::Bytes;

inline constexpr const char* kFiles[] = {"mono.ogg",         "stereo.ogg",    "other.ogg",
                                         "six_channels.ogg", "rate_8000.ogg", "no_samples.ogg"};
// Twelve seconds of stereo, where the other files are too short.
inline constexpr char kDemoPiece[] = "host/demo/demo.ogg";
// One short block, with one codeword, with 2^22, and with a hundred codebooks of 2^10 codewords and
// 8191 values each.
inline constexpr char kSmallest[] = "fuzz/corpus/import_vorbis_stream/smallest.ogg";
inline constexpr char kManyCodebooks[] = "fuzz/corpus/import_vorbis_stream/codebooks.ogg";
inline constexpr char kManyCodewords[] = "fuzz/corpus/import_vorbis_stream/codewords.ogg";

// A file of tests/data, or one that is named with its folder.
std::filesystem::path DataFile(const std::string& name);
Bytes ReadData(const std::string& name);

struct Decoded {
  bool opened = false;
  std::int64_t total_frames = 0;
  // Of the first format.
  long samples_per_sec = 0;
  int channels = 0;
  std::vector<std::int16_t> samples;
  std::vector<std::size_t> block_sizes;  // in samples, of up to 32768 bytes
};

// Decodes a file up to an error or a change of format.
Decoded DecodeWithLibrary(const std::filesystem::path& path);

// A file in the system's temporary folder, removed at the end: `bytes`, a gap of zeros, `tail`.
class TemporaryOgg {
 public:
  explicit TemporaryOgg(const Bytes& bytes, std::uintmax_t gap = 0, const Bytes& tail = {});
  TemporaryOgg(const TemporaryOgg&) = delete;
  TemporaryOgg& operator=(const TemporaryOgg&) = delete;
  ~TemporaryOgg();
  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

// Where the page in the middle of a file begins and ends, and the file without it.
std::pair<std::ptrdiff_t, std::ptrdiff_t> MiddlePage(const Bytes& file);
Bytes WithoutMiddlePage(Bytes file);
// A byte changed, and all checksums right.
Bytes WithBitsFlipped(Bytes file, std::ptrdiff_t offset, int bits);
// The last page's position set, from which the length of the file follows.
Bytes WithLastPosition(const std::string& name, std::int64_t frames);
// So many links, each with its own number and `file` as its content.
Bytes ManyLinks(Bytes file, std::uint32_t count);

}  // namespace marlinda::testing
