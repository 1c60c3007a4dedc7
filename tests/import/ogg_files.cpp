#include "tests/import/ogg_files.h"

#include <vorbis/vorbisfile.h>

#include <cstring>
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

// A packet of the codec, bit by bit.
class Packet {
 public:
  explicit Packet(unsigned char type) {
    oggpack_writeinit(&bits_);
    Put(type, 8);
    for (const unsigned char c : {'v', 'o', 'r', 'b', 'i', 's'}) Put(c, 8);
  }
  Packet(const Packet&) = delete;
  Packet& operator=(const Packet&) = delete;
  ~Packet() { oggpack_writeclear(&bits_); }

  Packet& Put(unsigned long value, int bits) {
    oggpack_write(&bits_, value, bits);
    return *this;
  }
  Bytes Take() { return {bits_.buffer, bits_.buffer + oggpack_bytes(&bits_)}; }

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
  std::memcpy(samples.data(), raw.data(), 2 * samples.size());
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

Bytes Joined(const Bytes& first, const Bytes& second) {
  Bytes file = first;
  file.insert(file.end(), second.begin(), second.end());
  return file;
}

Bytes Chained(const std::string& first, const std::string& second) {
  return Joined(ReadData(first), ReadData(second));
}

std::pair<std::ptrdiff_t, std::ptrdiff_t> MiddlePage(const Bytes& file) {
  const auto pages = PagesOf(file);
  const Page& page = pages[2 + (pages.size() - 2) / 2];
  return {static_cast<std::ptrdiff_t>(page.begin), static_cast<std::ptrdiff_t>(page.end)};
}

Bytes WithPacketsScrambled(const std::string& name, unsigned seed) {
  Bytes file = ReadData(name);
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
  Bytes file = ReadData(name);
  const Page last = PagesOf(file).back();
  std::memcpy(file.data() + last.begin + 6, &frames, sizeof frames);
  MakeChecksumRight(file, last);
  return file;
}

Bytes ManyLinks(Bytes file, std::uint32_t count) {
  Bytes chain;
  const auto pages = PagesOf(file);
  for (std::uint32_t link = 0; link < count; ++link) {
    for (const Page& page : pages) {
      std::memcpy(file.data() + page.begin + 14, &link, sizeof link);
      MakeChecksumRight(file, page);
    }
    chain.insert(chain.end(), file.begin(), file.end());
  }
  return chain;
}

Bytes WithCodebooks(int count, unsigned dimension, int entries, const Bytes& comment) {
  // Mono, in blocks of 64 samples.
  const Bytes format = Packet(1)
                           .Put(0, 32)
                           .Put(1, 8)
                           .Put(8000, 32)
                           .Put(0, 32)
                           .Put(0, 32)
                           .Put(0, 32)
                           .Put(0x66, 8)
                           .Put(1, 1)
                           .Take();
  Packet comments(3);
  comments.Put(0, 32).Put(1, 32).Put(static_cast<unsigned long>(comment.size()), 32);
  Packet setup(5);
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
      {format, Joined(Joined(comments.Take(), comment), {1}), setup.Take(), {0}, {0}, {0}});
}

}  // namespace marlinda::testing
