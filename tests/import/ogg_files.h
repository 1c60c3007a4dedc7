// Test files and a reference decoder. The functions make further Ogg files from those in the tree.
// The decoder calls ov_read in a plain loop, with the import filter's build of the codec library.
#pragma once

#include <vorbis/vorbisfile.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "tests/export/riff_builder.h"

namespace marlinda::testing {

using riff::Bytes;

// Twelve seconds of stereo, for tests that need a longer file.
inline constexpr char kDemoPiece[] = "host/demo/demo.ogg";
// Files of one short block. kSmallest has one codeword, kManyCodewords has 2^22. kManyCodebooks has
// a hundred codebooks with 2^10 codewords and 8191 values each.
inline constexpr char kSmallest[] = "tests/import/hostile/smallest.ogg";
inline constexpr char kManyCodebooks[] = "tests/import/hostile/codebooks.ogg";
inline constexpr char kManyCodewords[] = "tests/import/hostile/codewords.ogg";

// Returns the path of a file. A name without a folder is a file of tests/data.
inline std::filesystem::path DataFile(const std::string& name) {
  const std::filesystem::path root(TESSALY_SOURCE_DIR);
  return root / (name.find('/') == std::string::npos ? "tests/data/" + name : name);
}

inline Bytes ReadData(const std::string& name) {
  std::ifstream file(DataFile(name), std::ios::binary);
  if (!file) throw std::runtime_error("cannot open " + name);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

struct Decoded {
  bool opened = false;
  std::int64_t total_frames = 0;
  // The sample rate of the file's first format.
  long samples_per_sec = 0;
  int channels = 0;
  std::vector<std::int16_t> samples;
  std::vector<std::size_t> block_sizes;  // in samples; a block has at most 32768 bytes
};

// Decodes a file up to an error or a change of format.
inline Decoded DecodeWithLibrary(const std::filesystem::path& path) {
  Decoded result;
  OggVorbis_File file;
  if (ov_fopen(path.string().c_str(), &file) != 0) return result;
  result.opened = true;
  result.total_frames = ov_pcm_total(&file, -1);
  result.samples_per_sec = ov_info(&file, -1)->rate;
  result.channels = ov_info(&file, -1)->channels;
  std::vector<std::int16_t> buffer(16384);
  int link = 0;
  for (;;) {
    const long bytes =
        ov_read(&file, reinterpret_cast<char*>(buffer.data()), 32768, 0, 2, 1, &link);
    const vorbis_info* info = ov_info(&file, -1);
    if (bytes <= 0 || info->rate != result.samples_per_sec || info->channels != result.channels) {
      break;
    }
    result.block_sizes.push_back(static_cast<std::size_t>(bytes) / 2);
    result.samples.insert(result.samples.end(), buffer.begin(), buffer.begin() + bytes / 2);
  }
  ov_clear(&file);
  return result;
}

// A file in the system's temporary folder, deleted by the destructor.
class TemporaryOgg {
 public:
  explicit TemporaryOgg(const Bytes& bytes) {
    static const unsigned process = std::random_device{}();
    static int counter = 0;
    path_ = std::filesystem::temp_directory_path() /
            ("tessaly-" + std::to_string(process) + "-" + std::to_string(++counter) + ".ogg");
    std::ofstream file(path_, std::ios::binary);
    std::ranges::copy(bytes, std::ostreambuf_iterator<char>(file));
  }
  TemporaryOgg(const TemporaryOgg&) = delete;
  TemporaryOgg& operator=(const TemporaryOgg&) = delete;
  ~TemporaryOgg() {
    std::error_code ignored;
    std::filesystem::remove(path_, ignored);
  }
  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

// Returns the offset of each page and the end of the last page.
inline std::vector<std::size_t> PagesOf(const Bytes& file) {
  std::vector<std::size_t> begins = {0};
  while (begins.back() + 27 < file.size()) {
    const auto header = file.begin() + static_cast<std::ptrdiff_t>(begins.back());
    const auto segments = header + 27;
    begins.push_back(
        std::accumulate(segments, segments + header[26], begins.back() + 27 + header[26]));
  }
  return begins;
}

inline void MakeChecksumsRight(Bytes& file) {
  const auto begins = PagesOf(file);
  for (std::size_t i = 0; i + 1 < begins.size(); ++i) {
    unsigned char* const header = file.data() + begins[i];
    const long length = 27 + header[26];
    ogg_page page = {header, length, header + length,
                     static_cast<long>(begins[i + 1] - begins[i]) - length};
    ogg_page_checksum_set(&page);
  }
}

// Returns the start and end of the page in the middle of a file.
inline std::pair<std::ptrdiff_t, std::ptrdiff_t> MiddlePage(const Bytes& file) {
  const auto begins = PagesOf(file);
  const std::size_t middle = begins.size() / 2;
  return {begins[middle], begins[middle + 1]};
}

inline Bytes WithoutMiddlePage(Bytes file) {
  const auto [begin, end] = MiddlePage(file);
  file.erase(file.begin() + begin, file.begin() + end);
  return file;
}

// Flips bits of one byte and corrects all checksums.
inline Bytes WithBitsFlipped(Bytes file, std::ptrdiff_t offset, int bits) {
  file[static_cast<std::size_t>(offset)] ^= static_cast<unsigned char>(bits);
  MakeChecksumsRight(file);
  return file;
}

// Sets the position of the last page, which determines the length of the file.
inline Bytes WithLastPosition(const std::string& name, std::int64_t frames) {
  Bytes file = ReadData(name);
  const auto begins = PagesOf(file);
  std::memcpy(file.data() + begins[begins.size() - 2] + 6, &frames, sizeof frames);
  MakeChecksumsRight(file);
  return file;
}

// Returns a chain of `count` copies of `file`, each with its own serial number.
inline Bytes ManyLinks(Bytes file, std::uint32_t count) {
  Bytes chain;
  const auto begins = PagesOf(file);
  for (std::uint32_t link = 0; link < count; ++link) {
    for (std::size_t i = 0; i + 1 < begins.size(); ++i) {
      std::memcpy(file.data() + begins[i] + 14, &link, sizeof link);
    }
    MakeChecksumsRight(file);
    chain = std::move(chain) + file;
  }
  return chain;
}

}  // namespace marlinda::testing
