#include "export/id3_tag.h"

#include <algorithm>
#include <string_view>

namespace marlinda {
namespace {

using Bytes = std::vector<std::byte>;

constexpr std::size_t kYearCharacters = 4;
constexpr unsigned kNoGenre = 255;

bool IsLatin1(std::u16string_view text) {
  return std::ranges::all_of(text, [](char16_t c) { return c < 0x100; });
}

void Append(Bytes& bytes, std::string_view text) {
  for (const char c : text) bytes.push_back(static_cast<std::byte>(c));
}

// Four bytes, the highest first, of `bits` significant bits each.
void AppendSize(Bytes& bytes, std::size_t size, int bits) {
  for (int shift = 3 * bits; shift >= 0; shift -= bits) {
    bytes.push_back(static_cast<std::byte>((size >> shift) & ((1U << bits) - 1)));
  }
}

Bytes Encoded(std::u16string_view text) {
  Bytes bytes;
  if (IsLatin1(text)) {
    bytes.push_back(std::byte{0});
    for (const char16_t c : text) bytes.push_back(static_cast<std::byte>(c));
    return bytes;
  }
  // Encoding 1: with a byte order mark, here the one of low byte first.
  for (const unsigned char c : {0x01, 0xFF, 0xFE}) bytes.push_back(std::byte{c});
  for (const char16_t c : text) {
    bytes.push_back(static_cast<std::byte>(c & 0xFF));
    bytes.push_back(static_cast<std::byte>(c >> 8));
  }
  return bytes;
}

void AppendFrame(Bytes& frames, std::string_view id, std::u16string_view text) {
  if (text.empty()) return;
  const Bytes body = Encoded(text);
  Append(frames, id);
  AppendSize(frames, body.size(), 8);
  Append(frames, std::string_view("\0\0", 2));  // no flags
  frames.insert(frames.end(), body.begin(), body.end());
}

void AppendField(Bytes& tag, std::u16string_view text, std::size_t size) {
  for (std::size_t i = 0; i < size; ++i) {
    const char16_t c = i < text.size() ? text[i] : u'\0';
    tag.push_back(c < 0x100 ? static_cast<std::byte>(c) : std::byte{'?'});
  }
}

std::u16string_view Year(const Id3Texts& texts) {
  const std::u16string_view year = texts.year;
  return year.substr(0, kYearCharacters);
}

}  // namespace

std::vector<std::byte> Id3v2Tag(const Id3Texts& texts) {
  Bytes frames;
  AppendFrame(frames, "TIT2", texts.title);
  AppendFrame(frames, "TPE1", texts.artist);
  AppendFrame(frames, "TALB", texts.album);
  AppendFrame(frames, "TYER", Year(texts));
  AppendFrame(frames, "TCON", texts.genre);
  if (frames.empty()) return {};
  Bytes tag;
  Append(tag, std::string_view("ID3\3\0\0", 6));
  AppendSize(tag, frames.size(), 7);
  tag.insert(tag.end(), frames.begin(), frames.end());
  return tag;
}

std::vector<std::byte> Id3v1Tag(const Id3Texts& texts) {
  if (Id3v2Tag(texts).empty()) return {};
  Bytes tag;
  Append(tag, "TAG");
  AppendField(tag, texts.title, 30);
  AppendField(tag, texts.artist, 30);
  AppendField(tag, texts.album, 30);
  AppendField(tag, Year(texts), kYearCharacters);
  AppendField(tag, {}, 30);  // a comment
  tag.push_back(static_cast<std::byte>(kNoGenre));
  return tag;
}

}  // namespace marlinda
