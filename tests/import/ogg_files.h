// Ogg files for the tests: those of the tree, damaged and chained ones made from them, and decoders
// that are independent of the import code: a plain loop over the same build of the codec library
// for exact comparison, and the output of the oggdec program.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace marlinda::testing {

using Bytes = std::vector<unsigned char>;

// The Ogg files of the tree that are whole, by name.
const std::vector<std::string>& WholeFiles();

// Twelve seconds of stereo, where the other files are too short.
inline constexpr char kDemoPiece[] = "demo.ogg";

std::filesystem::path DataFile(const std::string& name);
Bytes ReadAll(const std::filesystem::path& path);

// Stretches of the same format that a decoder delivered, as blocks of up to 32768 bytes.
struct DecodedLink {
  long samples_per_sec = 0;
  int channels = 0;
  std::vector<std::int16_t> samples;
  std::vector<std::size_t> block_sizes;  // in samples
};

struct Decoded {
  bool opened = false;
  std::int64_t total_frames = 0;
  std::vector<DecodedLink> links;
};

// Decodes a whole file, past holes, to the first other error.
Decoded DecodeWithLibrary(const std::filesystem::path& path);

// What oggdec made of a file of the tree when the tests were built.
std::vector<std::int16_t> DecodedByOggdec(const std::string& name);

// The largest difference of two decodings, a 16-bit step being 1; -1 when the lengths differ.
int LargestDifference(const std::vector<std::int16_t>& a, const std::vector<std::int16_t>& b);

// A file with the given bytes in the system's temporary folder, removed at the end.
class TemporaryOgg {
 public:
  explicit TemporaryOgg(const Bytes& bytes);
  TemporaryOgg(const TemporaryOgg&) = delete;
  TemporaryOgg& operator=(const TemporaryOgg&) = delete;
  ~TemporaryOgg();
  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

// Files made out of the tree's.
Bytes Chained(const std::string& first, const std::string& second);
Bytes Truncated(const std::string& name, std::size_t length);
Bytes WithByteFlipped(const std::string& name, std::size_t offset);
// Many flips in the bodies of audio pages with the pages' checksums made right again, so that the
// damage reaches the decoder instead of being thrown away as a broken page.
Bytes WithPacketsScrambled(const std::string& name, unsigned seed);
// The last page's position set, from which the length of the file follows.
Bytes WithLastPosition(const std::string& name, std::int64_t frames);
// A page in the middle taken out.
Bytes WithPageMissing(const std::string& name);

}  // namespace marlinda::testing
