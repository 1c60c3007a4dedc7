// Ogg files for the tests: those of the tree, others made from them or from nothing, and decoders
// that are independent of the import code: a plain loop over the same build of the codec library
// for exact comparison, and the output of the oggdec program.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace marlinda::testing {

using Bytes = std::vector<unsigned char>;

// The Ogg files of the tree.
inline constexpr const char* kFiles[] = {"mono.ogg",         "stereo.ogg",    "other.ogg",
                                         "six_channels.ogg", "rate_8000.ogg", "no_samples.ogg"};
// Twelve seconds of stereo, where the other files are too short.
inline constexpr char kDemoPiece[] = "demo.ogg";

std::filesystem::path DataFile(const std::string& name);
Bytes ReadAll(const std::filesystem::path& path);
inline Bytes ReadData(const std::string& name) { return ReadAll(DataFile(name)); }

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

// What oggdec made of a file of the tree when the tests were built.
std::vector<std::int16_t> DecodedByOggdec(const std::string& name);

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

Bytes Joined(Bytes first, const Bytes& second);
Bytes Chained(const std::string& first, const std::string& second);
// Where the page in the middle of a file begins and ends.
std::pair<std::ptrdiff_t, std::ptrdiff_t> MiddlePage(const Bytes& file);
// A few pages lost, repeated, exchanged, or with other flags, positions, stream numbers or packet
// sizes, and all checksums right.
Bytes WithPagesMangled(const Bytes& file, unsigned seed);
// The last page's position set, from which the length of the file follows.
Bytes WithLastPosition(const std::string& name, std::int64_t frames);
// So many links, each with its own number and `file` as its content.
Bytes ManyLinks(Bytes file, std::uint32_t count);
// Headers and silence. Every codebook has 2^`entries` codewords, and `dimension` values for each
// unless that is 1.
Bytes WithCodebooks(int count, unsigned dimension, int entries, const Bytes& comment = {});

}  // namespace marlinda::testing
