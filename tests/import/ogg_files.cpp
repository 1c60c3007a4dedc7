#include "tests/import/ogg_files.h"

#include <vorbis/vorbisfile.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <random>
#include <stdexcept>

namespace marlinda::testing {
namespace {

constexpr std::size_t kPageHeaderBytes = 27;

struct Page {
  std::size_t begin;
  std::size_t body;
  std::size_t end;
};

std::vector<Page> PagesOf(const Bytes& file) {
  std::vector<Page> pages;
  for (std::size_t begin = 0; begin + kPageHeaderBytes < file.size();) {
    const std::size_t segments = file[begin + 26];
    const std::size_t body = begin + kPageHeaderBytes + segments;
    std::size_t end = body;
    for (std::size_t i = 0; i < segments; ++i) end += file[begin + kPageHeaderBytes + i];
    pages.push_back({begin, body, end});
    begin = end;
  }
  return pages;
}

void MakeChecksumRight(Bytes& file, const Page& page) {
  ogg_page ogg = {file.data() + page.begin, static_cast<long>(page.body - page.begin),
                  file.data() + page.body, static_cast<long>(page.end - page.body)};
  ogg_page_checksum_set(&ogg);
}

}  // namespace

const std::vector<std::string>& WholeFiles() {
  static const std::vector<std::string> names = {
      "mono.ogg", "stereo.ogg", "other.ogg", "six_channels.ogg", "rate_8000.ogg", "no_samples.ogg"};
  return names;
}

std::filesystem::path DataFile(const std::string& name) {
  const std::filesystem::path root(TESSALY_SOURCE_DIR);
  return root / (name == kDemoPiece ? "host/demo" : "tests/data") / name;
}

Bytes ReadAll(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) throw std::runtime_error("cannot open " + path.string());
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

Decoded DecodeWithLibrary(const std::filesystem::path& path) {
  Decoded result;
  OggVorbis_File file;
  if (ov_fopen(path.string().c_str(), &file) != 0) return result;
  result.opened = true;
  result.total_frames = ov_pcm_total(&file, -1);
  std::vector<std::int16_t> buffer(16384);
  int last_link = -1;
  for (;;) {
    int link = 0;
    const long bytes =
        ov_read(&file, reinterpret_cast<char*>(buffer.data()), 32768, 0, 2, 1, &link);
    if (bytes <= 0) break;
    if (link != last_link) {
      const vorbis_info* info = ov_info(&file, link);
      result.links.push_back({info->rate, info->channels, {}, {}});
      last_link = link;
    }
    DecodedLink& current = result.links.back();
    current.block_sizes.push_back(static_cast<std::size_t>(bytes) / 2);
    current.samples.insert(current.samples.end(), buffer.begin(), buffer.begin() + bytes / 2);
  }
  ov_clear(&file);
  return result;
}

std::vector<std::int16_t> DecodedByOggdec(const std::string& name) {
  const Bytes raw = ReadAll(std::filesystem::path(TESSALY_OGGDEC_OUTPUT) / (name + ".raw"));
  std::vector<std::int16_t> samples(raw.size() / 2);
  for (std::size_t i = 0; i < samples.size(); ++i) {
    samples[i] = static_cast<std::int16_t>(raw[2 * i] | raw[2 * i + 1] << 8);
  }
  return samples;
}

int LargestDifference(const std::vector<std::int16_t>& a, const std::vector<std::int16_t>& b) {
  if (a.size() != b.size()) return -1;
  int largest = 0;
  for (std::size_t i = 0; i < a.size(); ++i) largest = std::max(largest, std::abs(a[i] - b[i]));
  return largest;
}

TemporaryOgg::TemporaryOgg(const Bytes& bytes) {
  static const unsigned process = std::random_device{}();
  static int counter = 0;
  path_ = std::filesystem::temp_directory_path() /
          ("tessaly-" + std::to_string(process) + "-" + std::to_string(++counter) + ".ogg");
  std::ofstream file(path_, std::ios::binary);
  file.write(reinterpret_cast<const char*>(bytes.data()),
             static_cast<std::streamsize>(bytes.size()));
  if (!file) throw std::runtime_error("cannot write " + path_.string());
}

TemporaryOgg::~TemporaryOgg() {
  std::error_code ignored;
  std::filesystem::remove(path_, ignored);
}

Bytes Chained(const std::string& first, const std::string& second) {
  Bytes file = ReadAll(DataFile(first));
  const Bytes tail = ReadAll(DataFile(second));
  file.insert(file.end(), tail.begin(), tail.end());
  return file;
}

Bytes Truncated(const std::string& name, std::size_t length) {
  Bytes file = ReadAll(DataFile(name));
  file.resize(length);
  return file;
}

Bytes WithByteFlipped(const std::string& name, std::size_t offset) {
  Bytes file = ReadAll(DataFile(name));
  file[offset] ^= 0x55;
  return file;
}

Bytes WithPacketsScrambled(const std::string& name, unsigned seed) {
  Bytes file = ReadAll(DataFile(name));
  std::mt19937 random(seed);
  const auto pages = PagesOf(file);
  // The first two pages hold the headers of the files that are scrambled here.
  for (std::size_t i = 2; i < pages.size(); ++i) {
    const std::size_t length = pages[i].end - pages[i].body;
    for (std::size_t flips = length / 20; flips > 0; --flips) {
      file[pages[i].body + random() % length] ^= static_cast<unsigned char>(1U << random() % 8);
    }
    MakeChecksumRight(file, pages[i]);
  }
  return file;
}

Bytes WithLastPosition(const std::string& name, std::int64_t frames) {
  Bytes file = ReadAll(DataFile(name));
  const Page last = PagesOf(file).back();
  for (std::size_t i = 0; i < 8; ++i) {
    file[last.begin + 6 + i] =
        static_cast<unsigned char>(static_cast<std::uint64_t>(frames) >> (8 * i));
  }
  MakeChecksumRight(file, last);
  return file;
}

Bytes WithPageMissing(const std::string& name) {
  Bytes file = ReadAll(DataFile(name));
  const auto pages = PagesOf(file);
  const Page& page = pages[2 + (pages.size() - 2) / 2];
  file.erase(file.begin() + static_cast<std::ptrdiff_t>(page.begin),
             file.begin() + static_cast<std::ptrdiff_t>(page.end));
  return file;
}

}  // namespace marlinda::testing
