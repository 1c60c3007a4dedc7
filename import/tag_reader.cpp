#include "import/tag_reader.h"

#include <taglib/asffile.h>
#include <taglib/id3v1tag.h>
#include <taglib/id3v2framefactory.h>
#include <taglib/id3v2header.h>
#include <taglib/id3v2tag.h>
#include <taglib/tbytevectorstream.h>

#include <algorithm>
#include <string>

namespace marlinda {
namespace {

// TagLib is given this much of a file and no more, which bounds its time and its memory. Texts that
// lie behind so many bytes of pictures are not found.
constexpr std::uint64_t kMaxTagBytes = std::uint64_t{8} << 20;
constexpr std::uint64_t kId3v1Bytes = 128;

TagLib::ByteVector Read(ByteSource& file, std::uint64_t offset, std::uint64_t count) {
  const std::vector<std::byte> bytes = file.ReadUpTo(offset, count);
  return {reinterpret_cast<const char*>(bytes.data()), static_cast<unsigned>(bytes.size())};
}

// Bytes as the file that TagLib's tags are read from.
class TagFile final : public TagLib::File {
 public:
  explicit TagFile(TagLib::ByteVectorStream& stream) : File(&stream) {}
  TagLib::Tag* tag() const override { return nullptr; }
  TagLib::AudioProperties* audioProperties() const override { return nullptr; }
  bool save() override { return false; }
};

// The header of a frame, whose name TagLib shows to derived classes alone.
struct AnyFrame : TagLib::ID3v2::Frame {
  using Frame::Header;
};

// Reads text frames only. Chapters would be read recursively, as deep as a hostile file nests them.
class TextFrameFactory final : public TagLib::ID3v2::FrameFactory {
  bool updateFrame(AnyFrame::Header* header) const override {
    return header->frameID().startsWith("T") && FrameFactory::updateFrame(header);
  }
};

// TagLib takes the size of a version 2.3 extended header for one of version 2.4.
void RemoveExtendedHeader(TagLib::ByteVector& tag) {
  constexpr unsigned kHeaderBytes = 10;
  constexpr char kExtended = 0x40;
  if (tag.size() < kHeaderBytes + 4 || tag[3] != 3 || (tag[5] & kExtended) == 0) return;
  tag[5] = static_cast<char>(tag[5] & ~kExtended);
  const std::uint64_t end = std::uint64_t{kHeaderBytes} + 4 + tag.toUInt(kHeaderBytes);
  const auto rest = static_cast<unsigned>(std::min<std::uint64_t>(end, tag.size()));
  tag = tag.mid(0, kHeaderBytes) + tag.mid(rest);
}

Tags TextsOf(const TagLib::Tag& tag) {
  return {tag.title().to8Bit(true), tag.artist().to8Bit(true), tag.album().to8Bit(true),
          tag.year() != 0 ? std::to_string(tag.year()) : "", tag.genre().to8Bit(true)};
}

void FillIn(std::string& text, const std::string& other) {
  if (text.empty()) text = other;
}

}  // namespace

std::optional<Tags> ReadTags(ByteSource& file) {
  TagLib::ByteVector bytes = Read(file, 0, kMaxTagBytes);
  const TagLib::ByteVector asf("\x30\x26\xB2\x75\x8E\x66\xCF\x11\xA6\xD9\0\xAA\0\x62\xCE\x6C", 16);
  if (bytes.startsWith(asf)) {
    TagLib::ByteVectorStream stream(bytes);
    return TextsOf(*TagLib::ASF::File(&stream, false).tag());
  }
  std::optional<Tags> tags;
  if (bytes.startsWith(TagLib::ID3v2::Header::fileIdentifier())) {
    RemoveExtendedHeader(bytes);
    TagLib::ByteVectorStream stream(bytes);
    TagFile id3(stream);
    const TextFrameFactory factory;
    tags = TextsOf(TagLib::ID3v2::Tag(&id3, 0, &factory));
  }
  if (file.size() < kId3v1Bytes) return tags;
  TagLib::ByteVectorStream back(Read(file, file.size() - kId3v1Bytes, kId3v1Bytes));
  const bool has_old = back.readBlock(3) == TagLib::ID3v1::Tag::fileIdentifier();
  back.seek(0);
  if (!has_old) return tags;
  TagFile id3(back);
  const Tags old = TextsOf(TagLib::ID3v1::Tag(&id3, 0));
  if (!tags) return old;
  FillIn(tags->title, old.title);
  FillIn(tags->artist, old.artist);
  FillIn(tags->album, old.album);
  FillIn(tags->year, old.year);
  FillIn(tags->genre, old.genre);
  return tags;
}

}  // namespace marlinda
