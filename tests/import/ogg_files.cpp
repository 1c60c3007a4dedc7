#include "tests/import/ogg_files.h"

#include <vorbis/vorbisfile.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <iterator>
#include <numeric>
#include <random>
#include <stdexcept>

namespace marlinda::testing {
namespace {

// Where the pages begin, and the end of the last.
std::vector<std::size_t> PagesOf(const Bytes& file) {
  std::vector<std::size_t> begins = {0};
  while (begins.back() + 27 < file.size()) {
    const auto header = file.begin() + static_cast<std::ptrdiff_t>(begins.back());
    const auto segments = header + 27;
    begins.push_back(
        std::accumulate(segments, segments + header[26], begins.back() + 27 + header[26]));
  }
  return begins;
}

void MakeChecksumsRight(Bytes& file) {
  const auto begins = PagesOf(file);
  for (std::size_t i = 0; i + 1 < begins.size(); ++i) {
    unsigned char* const header = file.data() + begins[i];
    const long length = 27 + header[26];
    ogg_page page = {header, length, header + length,
                     static_cast<long>(begins[i + 1] - begins[i]) - length};
    ogg_page_checksum_set(&page);
  }
}

// A header of the codec, bit by bit.
class Header {
 public:
  explicit Header(unsigned char type) {
    oggpack_writeinit(&bits_);
    Put(type, 8);
    for (const unsigned char c : {'v', 'o', 'r', 'b', 'i', 's'}) Put(c, 8);
  }
  Header& Put(unsigned long value, int bits) {
    oggpack_write(&bits_, value, bits);
    return *this;
  }
  Bytes Take() {
    const Bytes bytes(bits_.buffer, bits_.buffer + oggpack_bytes(&bits_));
    oggpack_writeclear(&bits_);
    return bytes;
  }

 private:
  oggpack_buffer bits_;
};

Bytes StreamOf(const std::vector<Bytes>& packets) {
  Bytes file;
  ogg_stream_state stream;
  ogg_stream_init(&stream, 1);
  for (const Bytes& each : packets) {
    ogg_packet packet = {};
    packet.packet = const_cast<unsigned char*>(each.data());
    packet.bytes = static_cast<long>(each.size());
    packet.b_o_s = file.empty();
    packet.e_o_s = &each == &packets.back();
    packet.granulepos = packet.e_o_s ? 64 : 0;
    ogg_stream_packetin(&stream, &packet);
    for (ogg_page page; ogg_stream_flush(&stream, &page) != 0;) {
      file.insert(file.end(), page.header, page.header + page.header_len);
      file.insert(file.end(), page.body, page.body + page.body_len);
    }
  }
  ogg_stream_clear(&stream);
  return file;
}

}  // namespace

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

std::vector<std::int16_t> DecodedByOggdec(const std::string& name) {
  const Bytes raw = ReadAll(std::filesystem::path(TESSALY_OGGDEC_OUTPUT) / (name + ".raw"));
  std::vector<std::int16_t> samples(raw.size() / 2);
  std::ranges::copy(raw, reinterpret_cast<unsigned char*>(samples.data()));
  return samples;
}

TemporaryOgg::TemporaryOgg(const Bytes& bytes, std::uintmax_t gap, const Bytes& tail) {
  static const unsigned process = std::random_device{}();
  static int counter = 0;
  path_ = std::filesystem::temp_directory_path() /
          ("tessaly-" + std::to_string(process) + "-" + std::to_string(++counter) + ".ogg");
  std::ofstream(path_, std::ios::binary)
      .write(reinterpret_cast<const char*>(bytes.data()),
             static_cast<std::streamsize>(bytes.size()));
  // Sparse, where the system can.
  std::filesystem::resize_file(path_, bytes.size() + gap);
  std::ofstream(path_, std::ios::binary | std::ios::app)
      .write(reinterpret_cast<const char*>(tail.data()), static_cast<std::streamsize>(tail.size()));
}

TemporaryOgg::~TemporaryOgg() {
  std::error_code ignored;
  std::filesystem::remove(path_, ignored);
}

Bytes Joined(Bytes first, const Bytes& second) {
  first.insert(first.end(), second.begin(), second.end());
  return first;
}

Bytes Chained(const std::string& first, const std::string& second) {
  return Joined(ReadData(first), ReadData(second));
}

std::pair<std::ptrdiff_t, std::ptrdiff_t> MiddlePage(const Bytes& file) {
  const auto begins = PagesOf(file);
  const std::size_t middle = begins.size() / 2;
  return {begins[middle], begins[middle + 1]};
}

Bytes WithPagesMangled(const Bytes& file, unsigned seed) {
  const auto begins = PagesOf(file);
  std::vector<Bytes> pages;
  for (std::size_t i = 0; i + 1 < begins.size(); ++i) {
    pages.emplace_back(file.begin() + static_cast<std::ptrdiff_t>(begins[i]),
                       file.begin() + static_cast<std::ptrdiff_t>(begins[i + 1]));
  }
  std::mt19937 random(seed);
  for (unsigned count = 1 + seed % 3; count > 0; --count) {
    // Behind the headers.
    const std::size_t at = 2 + random() % (pages.size() - 2);
    Bytes& page = pages[at];
    const std::size_t segment = 27 + random() % page[26];
    switch (random() % 7) {
      case 0:
        page.clear();
        break;
      case 1:
        page = pages[at - 1];
        break;
      case 2:
        page.swap(pages[at - 1]);
        break;
      case 3:
        page[5] ^= static_cast<unsigned char>(1U << random() % 3);
        break;
      case 4:
        page[6 + random() % 8] ^= static_cast<unsigned char>(1U << random() % 8);
        break;
      case 5:
        page[14] ^= 1;
        break;
      default:
        // Two packets that only together have the right size.
        if (segment + 1 < 27U + page[26] && page[segment] + page[segment + 1] < 256) {
          page[segment + 1] = static_cast<unsigned char>(page[segment + 1] + page[segment]);
          page[segment] = 0;
        }
    }
    std::erase(pages, Bytes());
  }
  Bytes mangled;
  for (const Bytes& page : pages) mangled = Joined(mangled, page);
  MakeChecksumsRight(mangled);
  return mangled;
}

Bytes WithLastPosition(const std::string& name, std::int64_t frames) {
  Bytes file = ReadData(name);
  const auto begins = PagesOf(file);
  std::memcpy(file.data() + begins[begins.size() - 2] + 6, &frames, sizeof frames);
  MakeChecksumsRight(file);
  return file;
}

Bytes ManyLinks(Bytes file, std::uint32_t count) {
  Bytes chain;
  const auto begins = PagesOf(file);
  for (std::uint32_t link = 0; link < count; ++link) {
    for (std::size_t i = 0; i + 1 < begins.size(); ++i) {
      std::memcpy(file.data() + begins[i] + 14, &link, sizeof link);
    }
    MakeChecksumsRight(file);
    chain.insert(chain.end(), file.begin(), file.end());
  }
  return chain;
}

Bytes WithCodebooks(int count, unsigned dimension, int entries, const Bytes& comment) {
  // Mono, in blocks of 64 samples.
  Header format(1);
  format.Put(0, 32).Put(1, 8).Put(8000, 32).Put(0, 32).Put(0, 32).Put(0, 32).Put(0x66, 8).Put(1, 1);
  Header comments(3);
  comments.Put(0, 32).Put(1, 32).Put(static_cast<unsigned long>(comment.size()), 32);
  Header setup(5);
  setup.Put(static_cast<unsigned long>(count) - 1, 8);
  for (int book = 0; book < count; ++book) {
    // All codewords have the same length.
    setup.Put(0x564342, 24).Put(dimension, 16).Put(1UL << entries, 24).Put(1, 1);
    setup.Put(static_cast<unsigned long>(entries) - 1, 5).Put(1UL << entries, entries + 1);
    setup.Put(dimension > 1 ? 1 : 0, 4);
    if (dimension > 1) setup.Put(0, 32).Put(0, 32).Put(0, 4).Put(0, 1).Put(0, 1);
  }
  // One each of times, floors, residues, mappings and modes, all as plain as they can be.
  setup.Put(0, 6 + 16).Put(0, 6).Put(1, 16).Put(0, 5 + 2 + 4);
  setup.Put(0, 6 + 16).Put(0, 24).Put(0, 24).Put(0, 24).Put(0, 6 + 8 + 3 + 1);
  setup.Put(0, 6 + 16).Put(0, 1 + 1 + 2).Put(0, 24).Put(0, 6 + 1).Put(0, 32).Put(0, 8).Put(1, 1);
  return StreamOf(
      {format.Take(), Joined(Joined(comments.Take(), comment), {1}), setup.Take(), {0}, {0}, {0}});
}

}  // namespace marlinda::testing
