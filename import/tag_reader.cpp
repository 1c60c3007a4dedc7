#include "import/tag_reader.h"

#include <algorithm>
#include <string_view>
#include <vector>

#include "import/byte_reader.h"

namespace marlinda {
namespace {

using Bytes = std::span<const std::byte>;

// Of a tag; texts that lie behind so many bytes of pictures are not found.
constexpr std::uint64_t kMostTagBytes = std::uint64_t{1} << 20;
constexpr std::size_t kYearCharacters = 4;

// The numbers of ID3 genres: the 80 of the first tags, then those that players added.
constexpr std::string_view kGenres[] = {
    "Blues",
    "Classic Rock",
    "Country",
    "Dance",
    "Disco",
    "Funk",
    "Grunge",
    "Hip-Hop",
    "Jazz",
    "Metal",
    "New Age",
    "Oldies",
    "Other",
    "Pop",
    "R&B",
    "Rap",
    "Reggae",
    "Rock",
    "Techno",
    "Industrial",
    "Alternative",
    "Ska",
    "Death Metal",
    "Pranks",
    "Soundtrack",
    "Euro-Techno",
    "Ambient",
    "Trip-Hop",
    "Vocal",
    "Jazz+Funk",
    "Fusion",
    "Trance",
    "Classical",
    "Instrumental",
    "Acid",
    "House",
    "Game",
    "Sound Clip",
    "Gospel",
    "Noise",
    "Alternative Rock",
    "Bass",
    "Soul",
    "Punk",
    "Space",
    "Meditative",
    "Instrumental Pop",
    "Instrumental Rock",
    "Ethnic",
    "Gothic",
    "Darkwave",
    "Techno-Industrial",
    "Electronic",
    "Pop-Folk",
    "Eurodance",
    "Dream",
    "Southern Rock",
    "Comedy",
    "Cult",
    "Gangsta",
    "Top 40",
    "Christian Rap",
    "Pop/Funk",
    "Jungle",
    "Native American",
    "Cabaret",
    "New Wave",
    "Psychedelic",
    "Rave",
    "Showtunes",
    "Trailer",
    "Lo-Fi",
    "Tribal",
    "Acid Punk",
    "Acid Jazz",
    "Polka",
    "Retro",
    "Musical",
    "Rock & Roll",
    "Hard Rock",
    "Folk",
    "Folk-Rock",
    "National Folk",
    "Swing",
    "Fast Fusion",
    "Bebop",
    "Latin",
    "Revival",
    "Celtic",
    "Bluegrass",
    "Avantgarde",
    "Gothic Rock",
    "Progressive Rock",
    "Psychedelic Rock",
    "Symphonic Rock",
    "Slow Rock",
    "Big Band",
    "Chorus",
    "Easy Listening",
    "Acoustic",
    "Humour",
    "Speech",
    "Chanson",
    "Opera",
    "Chamber Music",
    "Sonata",
    "Symphony",
    "Booty Bass",
    "Primus",
    "Porn Groove",
    "Satire",
    "Slow Jam",
    "Club",
    "Tango",
    "Samba",
    "Folklore",
    "Ballad",
    "Power Ballad",
    "Rhythmic Soul",
    "Freestyle",
    "Duet",
    "Punk Rock",
    "Drum Solo",
    "A Cappella",
    "Euro-House",
    "Dance Hall",
};

std::string GenreName(std::size_t number) {
  return number < std::size(kGenres) ? std::string(kGenres[number]) : std::string();
}

void AppendUtf8(std::uint32_t code, std::string& text) {
  const auto add = [&](std::uint32_t byte) { text += static_cast<char>(byte); };
  if (code < 0x80) {
    add(code);
  } else if (code < 0x800) {
    add(0xC0 | code >> 6);
    add(0x80 | (code & 0x3F));
  } else if (code < 0x10000) {
    add(0xE0 | code >> 12);
    add(0x80 | (code >> 6 & 0x3F));
    add(0x80 | (code & 0x3F));
  } else {
    add(0xF0 | code >> 18);
    add(0x80 | (code >> 12 & 0x3F));
    add(0x80 | (code >> 6 & 0x3F));
    add(0x80 | (code & 0x3F));
  }
}

// All up to the first NUL.
std::string FromLatin1(Bytes bytes) {
  std::string text;
  for (const std::byte byte : bytes) {
    if (byte == std::byte{0}) break;
    AppendUtf8(std::to_integer<std::uint32_t>(byte), text);
  }
  return text;
}

std::string FromUtf16(Bytes bytes, bool big_endian) {
  std::string text;
  const auto unit = [&](std::size_t i) {
    return static_cast<std::uint32_t>(big_endian ? ReadBig<2>(bytes, i) : LittleU16(bytes, i));
  };
  for (std::size_t i = 0; i + 1 < bytes.size() && unit(i) != 0; i += 2) {
    std::uint32_t code = unit(i);
    const bool is_pair = code >= 0xD800 && code < 0xDC00 && i + 3 < bytes.size() &&
                         unit(i + 2) >= 0xDC00 && unit(i + 2) < 0xE000;
    if (is_pair) {
      code = 0x10000 + ((code - 0xD800) << 10) + (unit(i + 2) - 0xDC00);
      i += 2;
    }
    const bool is_half = code >= 0xD800 && code < 0xE000;
    AppendUtf8(is_half ? 0xFFFD : code, text);
  }
  return text;
}

// A text frame: one byte of encoding, then the text.
std::string FrameText(Bytes frame) {
  if (frame.empty()) return {};
  const Bytes text = frame.subspan(1);
  switch (std::to_integer<int>(frame[0])) {
    case 1: {
      if (text.size() < 2) return {};
      const bool big_endian = ReadBig<2>(text, 0) == 0xFEFF;
      const bool has_mark = big_endian || LittleU16(text, 0) == 0xFEFF;
      return FromUtf16(has_mark ? text.subspan(2) : text, big_endian);
    }
    case 2:
      return FromUtf16(text, true);
    case 3: {
      const std::string_view all = AsText(text);
      return std::string(all.substr(0, all.find('\0')));
    }
    default:
      return FromLatin1(text);
  }
}

// "(17)", "(17)Rock" and "17" stand for a genre by its number; what follows the parenthesis is a
// better name.
std::string GenreFrom(std::string text) {
  std::string_view digits = text;
  std::string_view refinement;
  if (digits.starts_with('(') && digits.find(')') != std::string_view::npos) {
    refinement = digits.substr(digits.find(')') + 1);
    digits = digits.substr(1, digits.find(')') - 1);
  }
  const bool is_number = !digits.empty() && digits.size() <= 3 &&
                         std::ranges::all_of(digits, [](char c) { return c >= '0' && c <= '9'; });
  if (!is_number) return text;
  if (!refinement.empty()) return std::string(refinement);
  const std::string name = GenreName(static_cast<std::size_t>(std::stoi(std::string(digits))));
  return name.empty() ? text : name;
}

void TakeFrame(std::string_view id, Bytes frame, MetaData& data) {
  if (id == "TIT2" || id == "TT2") {
    data.title = FrameText(frame);
  } else if (id == "TPE1" || id == "TP1") {
    data.artist = FrameText(frame);
  } else if (id == "TALB" || id == "TAL") {
    data.album = FrameText(frame);
  } else if (id == "TDRC" || id == "TYER" || id == "TYE") {
    data.year = FrameText(frame).substr(0, kYearCharacters);
  } else if (id == "TCON" || id == "TCO") {
    data.genre = GenreFrom(FrameText(frame));
  }
}

// Seven bits to a byte, so that no size looks like the start of a frame of sound.
std::uint32_t SyncSafe(Bytes bytes, std::size_t offset) {
  std::uint32_t value = 0;
  for (std::size_t i = 0; i < 4; ++i) {
    value = value << 7 | (std::to_integer<std::uint32_t>(bytes[offset + i]) & 0x7F);
  }
  return value;
}

// Takes out the zeros that keep a tag from looking like sound.
std::vector<std::byte> Resynchronised(Bytes bytes) {
  std::vector<std::byte> result;
  result.reserve(bytes.size());
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    const bool stuffed = i > 0 && bytes[i - 1] == std::byte{0xFF} && bytes[i] == std::byte{0};
    if (!stuffed) result.push_back(bytes[i]);
  }
  return result;
}

// The frames of an ID3v2 tag of one version, 2 to 4.
void ReadFrames(Bytes frames, int version, MetaData& data) {
  const std::size_t id_bytes = version == 2 ? 3 : 4;
  const std::size_t header_bytes = version == 2 ? 6 : 10;
  while (frames.size() > header_bytes && frames[0] != std::byte{0}) {
    std::uint64_t size = version == 2   ? ReadBig<3>(frames, 3)
                         : version == 3 ? BigU32(frames, 4)
                                        : SyncSafe(frames, 4);
    const std::string_view id = AsText(frames.first(id_bytes));
    const unsigned flags = version == 2 ? 0U : std::to_integer<unsigned>(frames[9]);
    frames = frames.subspan(header_bytes);
    size = std::min<std::uint64_t>(size, frames.size());
    Bytes body = frames.first(static_cast<std::size_t>(size));
    frames = frames.subspan(static_cast<std::size_t>(size));
    // Compressed or encrypted.
    if ((flags & (version == 3 ? 0xC0U : 0x0CU)) != 0) continue;
    std::vector<std::byte> whole;
    if (version == 4) {
      if ((flags & 0x01U) != 0) body = body.subspan(std::min<std::size_t>(4, body.size()));
      if ((flags & 0x02U) != 0) body = whole = Resynchronised(body);
    }
    TakeFrame(id, body, data);
  }
}

std::optional<MetaData> ReadId3v2(ByteSource& file) {
  const std::vector<std::byte> header = file.ReadUpTo(0, 10);
  if (header.size() < 10 || AsText(header).substr(0, 3) != "ID3") return std::nullopt;
  const int version = std::to_integer<int>(header[3]);
  if (version < 2 || version > 4) return std::nullopt;
  const auto flags = std::to_integer<unsigned>(header[5]);
  std::vector<std::byte> tag =
      file.ReadUpTo(10, std::min<std::uint64_t>(SyncSafe(header, 6), kMostTagBytes));
  if ((flags & 0x80U) != 0 && version < 4) tag = Resynchronised(tag);
  Bytes frames = tag;
  if ((flags & 0x40U) != 0 && version > 2 && frames.size() >= 4) {
    const std::uint64_t extended =
        version == 3 ? std::uint64_t{4} + BigU32(frames, 0) : SyncSafe(frames, 0);
    frames =
        frames.subspan(static_cast<std::size_t>(std::min<std::uint64_t>(extended, frames.size())));
  }
  MetaData data;
  ReadFrames(frames, version, data);
  return data;
}

std::optional<MetaData> ReadId3v1(ByteSource& file) {
  constexpr std::uint64_t kTagBytes = 128;
  if (file.size() < kTagBytes) return std::nullopt;
  const std::vector<std::byte> tag = file.ReadUpTo(file.size() - kTagBytes, kTagBytes);
  if (tag.size() < kTagBytes || AsText(tag).substr(0, 3) != "TAG") return std::nullopt;
  const auto field = [&](std::size_t offset, std::size_t length) {
    std::string text = FromLatin1(Bytes(tag).subspan(offset, length));
    text.erase(text.find_last_not_of(' ') + 1);
    return text;
  };
  return MetaData{field(3, 30), field(33, 30), field(63, 30), field(93, 4),
                  GenreName(std::to_integer<std::size_t>(tag[127]))};
}

void FillIn(std::string& text, const std::string& other) {
  if (text.empty()) text = other;
}

// Objects of a Windows Media file: an identifier, a 64-bit size that counts both, a body.
constexpr std::size_t kAsfObjectHeaderBytes = 24;

bool HasId(Bytes object, std::string_view id) { return AsText(object.first(id.size())) == id; }

constexpr std::string_view kAsfHeader(
    "\x30\x26\xB2\x75\x8E\x66\xCF\x11\xA6\xD9\x00\xAA\x00\x62\xCE\x6C", 16);
constexpr std::string_view kAsfDescription(
    "\x33\x26\xB2\x75\x8E\x66\xCF\x11\xA6\xD9\x00\xAA\x00\x62\xCE\x6C", 16);
constexpr std::string_view kAsfExtendedDescription(
    "\x40\xA4\xD0\xD2\x07\xE3\xD2\x11\x97\xF0\x00\xA0\xC9\x5E\xA8\x50", 16);

// Takes `count` bytes off the front; fewer when there are not so many.
Bytes TakeFront(Bytes& bytes, std::size_t count) {
  const Bytes front = bytes.first(std::min(count, bytes.size()));
  bytes = bytes.subspan(front.size());
  return front;
}

void ReadAsfDescription(Bytes body, MetaData& data) {
  const Bytes lengths = TakeFront(body, 10);
  if (lengths.size() < 10) return;
  data.title = FromUtf16(TakeFront(body, LittleU16(lengths, 0)), false);
  data.artist = FromUtf16(TakeFront(body, LittleU16(lengths, 2)), false);
}

void ReadAsfExtendedDescription(Bytes body, MetaData& data) {
  TakeFront(body, 2);
  while (body.size() >= 6) {
    const std::string name = FromUtf16(TakeFront(body, LittleU16(TakeFront(body, 2), 0)), false);
    if (body.size() < 4) return;
    const bool is_text = LittleU16(TakeFront(body, 2), 0) == 0;
    const Bytes value = TakeFront(body, LittleU16(TakeFront(body, 2), 0));
    if (!is_text) continue;
    if (name == "WM/AlbumTitle") data.album = FromUtf16(value, false);
    if (name == "WM/Year") data.year = FromUtf16(value, false).substr(0, kYearCharacters);
    if (name == "WM/Genre") data.genre = FromUtf16(value, false);
  }
}

std::optional<MetaData> ReadAsf(ByteSource& file) {
  const std::vector<std::byte> start = file.ReadUpTo(0, 30);
  if (start.size() < 30 || !HasId(start, kAsfHeader)) return std::nullopt;
  const std::vector<std::byte> header =
      file.ReadUpTo(30, std::min<std::uint64_t>(ReadLittle<8>(start, 16), kMostTagBytes));
  MetaData data;
  Bytes objects = header;
  while (objects.size() >= kAsfObjectHeaderBytes) {
    const std::uint64_t size = ReadLittle<8>(objects, 16);
    if (size < kAsfObjectHeaderBytes) break;
    const Bytes object =
        TakeFront(objects, static_cast<std::size_t>(std::min<std::uint64_t>(size, objects.size())));
    const Bytes body = object.subspan(kAsfObjectHeaderBytes);
    if (HasId(object, kAsfDescription)) ReadAsfDescription(body, data);
    if (HasId(object, kAsfExtendedDescription)) ReadAsfExtendedDescription(body, data);
  }
  return data;
}

}  // namespace

std::optional<MetaData> ReadTags(ByteSource& file) {
  if (auto data = ReadAsf(file)) return data;
  auto data = ReadId3v2(file);
  const auto older = ReadId3v1(file);
  if (!data || !older) return data ? data : older;
  FillIn(data->title, older->title);
  FillIn(data->artist, older->artist);
  FillIn(data->album, older->album);
  FillIn(data->year, older->year);
  FillIn(data->genre, older->genre);
  return data;
}

}  // namespace marlinda
