#include "import/sound_readers.h"

#include <taglib/asffile.h>
#include <taglib/id3v1tag.h>
#include <taglib/id3v2framefactory.h>
#include <taglib/id3v2header.h>
#include <taglib/id3v2synchdata.h>
#include <taglib/id3v2tag.h>
#include <taglib/tbytevectorstream.h>

#include <algorithm>
#include <string>

namespace marlinda {
namespace {

// TagLib gets only this many bytes of a file, which limits time and memory. Texts that follow a
// picture of this size are not found.
constexpr std::uint64_t kMaxTagBytes = std::uint64_t{8} << 20;
constexpr std::uint64_t kId3v1Bytes = 128;

TagLib::ByteVector Read(ByteSource& file, std::uint64_t offset, std::uint64_t count) {
  const std::vector<std::byte> bytes = file.ReadUpTo(offset, count);
  return {reinterpret_cast<const char*>(bytes.data()), static_cast<unsigned>(bytes.size())};
}

// A TagLib::File over bytes in memory.
class TagFile final : public TagLib::File {
 public:
  explicit TagFile(TagLib::ByteVectorStream& stream) : File(&stream) {}
  TagLib::Tag* tag() const override { return nullptr; }
  TagLib::AudioProperties* audioProperties() const override { return nullptr; }
  bool save() override { return false; }
};

// Gives access to the frame's header class, which TagLib declares protected.
struct AnyFrame : TagLib::ID3v2::Frame {
  using Frame::Header;
};

// Reads text frames only. TagLib reads chapters recursively, so chapters in a hostile file could
// overflow the stack.
class TextFrameFactory final : public TagLib::ID3v2::FrameFactory {
  bool updateFrame(AnyFrame::Header* header) const override {
    return header->frameID().startsWith("T") && FrameFactory::updateFrame(header);
  }
};

// Size of a tag's header. A frame's header has the same size.
constexpr unsigned kTagHeaderBytes = 10;

// Removes a version 2.3 extended header, whose size TagLib reads as in version 2.4.
void RemoveExtendedHeader(TagLib::ByteVector& tag) {
  constexpr char kExtended = 0x40;
  if (tag.size() < kTagHeaderBytes + 4 || tag[3] != 3 || (tag[5] & kExtended) == 0) return;
  tag[5] = static_cast<char>(tag[5] & ~kExtended);
  const std::uint64_t end = std::uint64_t{kTagHeaderBytes} + 4 + tag.toUInt(kTagHeaderBytes);
  const auto rest = static_cast<unsigned>(std::min<std::uint64_t>(end, tag.size()));
  tag = tag.mid(0, kTagHeaderBytes) + tag.mid(rest);
}

// Removes the group byte of text frames, because TagLib reads it as the first byte of the text.
void RemoveGroups(TagLib::ByteVector& tag) {
  const bool is_new = tag.size() > kTagHeaderBytes && tag[3] == 4;
  const char grouped = is_new ? 0x40 : 0x20;
  if (tag.size() <= kTagHeaderBytes || tag[3] < 3 || tag[5] != 0) return;
  for (std::uint64_t at = kTagHeaderBytes; at + kTagHeaderBytes < tag.size();) {
    const auto frame = static_cast<unsigned>(at);
    const std::uint64_t size =
        is_new ? TagLib::ID3v2::SynchData::toUInt(tag.mid(frame + 4, 4)) : tag.toUInt(frame + 4);
    at += kTagHeaderBytes + size;
    if (at > tag.size() || size < 2 || tag[frame] != 'T' || tag[frame + 9] != grouped) continue;
    // Replaces the group byte by a zero at the end of the text, where TagLib ignores it.
    tag[frame + 9] = tag[frame + kTagHeaderBytes] = 0;
    std::rotate(tag.begin() + frame + kTagHeaderBytes, tag.begin() + frame + kTagHeaderBytes + 1,
                tag.begin() + static_cast<unsigned>(at));
  }
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
    RemoveGroups(bytes);
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
