#include "export/wav_layout.h"

#include <string_view>

#include "core/extensible_rules.h"

namespace marlinda {
namespace {

constexpr std::uint16_t kTagPcm = 1;
constexpr std::uint16_t kTagFloat = 3;
constexpr std::uint16_t kTagExtensible = 0xFFFE;
constexpr std::uint16_t kExtensionBytes = 22;

LittleEndianBytes FormatFields(const WavFormat& format, std::uint16_t tag) {
  const std::int32_t block_align = format.BlockAlign();
  LittleEndianBytes body;
  body.U16(tag)
      .U16(format.channels)
      .U32(format.samples_per_sec)
      .U32(std::int64_t{block_align} * format.samples_per_sec)
      .U16(block_align)
      .U16(format.bits);
  return body;
}

// Low 32 bits of position * block_align, in unsigned arithmetic that may wrap.
std::uint32_t ByteOffset(std::int64_t position, std::int32_t block_align) {
  return static_cast<std::uint32_t>(position) * static_cast<std::uint32_t>(block_align);
}

void WriteChunk(RiffChunkWriter& file, FourCC id, const LittleEndianBytes& body) {
  file.BeginChunk(id);
  file.Write(body.bytes());
  file.EndChunk();
}

void BeginList(RiffChunkWriter& file, FourCC type) {
  file.BeginChunk(FourCC("LIST"));
  file.Write(LittleEndianBytes().Id(type).bytes());
}

LittleEndianBytes CuePoints(std::span<const WavLabel> labels, std::span<const WavMarker> markers,
                            std::int32_t block_align) {
  std::uint32_t id = 0;
  std::uint32_t position = 0;
  std::uint32_t block_start = 0;
  LittleEndianBytes body;
  const auto add_point = [&](std::int64_t sample_offset) {
    body.U32(id++).U32(position).Id(FourCC("data")).U32(0).U32(block_start).U32(sample_offset);
  };

  body.U32(labels.size() + markers.size());
  for (const WavLabel& label : labels) {
    position = static_cast<std::uint32_t>(label.position);
    block_start = ByteOffset(label.position, block_align);
    add_point(label.position);
  }
  // Deliberate: a marker's point tells its begin in the sample offset alone; position and block
  // start stay those of the last label.
  for (const WavMarker& marker : markers) add_point(marker.begin);
  return body;
}

}  // namespace

LittleEndianBytes PlainFormatBody(const WavFormat& format) {
  return FormatFields(format, format.is_float ? kTagFloat : kTagPcm);
}

LittleEndianBytes ExtensibleFormatBody(const WavFormat& format) {
  LittleEndianBytes body = FormatFields(format, kTagExtensible);
  body.U16(kExtensionBytes).U16(format.bits).U32(ChannelMask(format.channels, false));
  for (const std::uint8_t byte : SubFormatBytes(format.is_float)) body.Low<1>(byte);
  return body;
}

void BeginWav(RiffChunkWriter& file, std::span<const std::byte> format_body) {
  file.BeginChunk(FourCC("RIFF"));
  file.Write(LittleEndianBytes().Id(FourCC("WAVE")).bytes());
  file.BeginChunk(FourCC("fmt "));
  file.Write(format_body);
  file.EndChunk();
  file.BeginChunk(FourCC("data"));
}

void WriteCuesAndRegions(RiffChunkWriter& file, std::span<const WavLabel> labels,
                         std::span<const WavMarker> markers, std::int32_t block_align) {
  if (labels.empty() && markers.empty()) return;
  WriteChunk(file, FourCC("cue "), CuePoints(labels, markers, block_align));

  std::uint32_t id = 0;
  BeginList(file, FourCC("adtl"));
  for (const WavLabel& label : labels) {
    WriteChunk(file, FourCC("labl"), LittleEndianBytes().U32(id++).TextWithNul(label.name));
  }
  for (const WavMarker& marker : markers) {
    const std::uint32_t length =
        static_cast<std::uint32_t>(marker.end) - static_cast<std::uint32_t>(marker.begin);
    LittleEndianBytes body;
    body.U32(id++).U32(length).Id(FourCC("rgn "));
    body.U16(0).U16(0).U16(0).U16(0);  // country, language, dialect, code page
    WriteChunk(file, FourCC("ltxt"), body.TextWithNul(marker.name));
  }
  file.EndChunk();
}

void WriteInfo(RiffChunkWriter& file, const WavMetaData& meta_data) {
  const auto write_text = [&](FourCC id, std::string_view text) {
    WriteChunk(file, id, LittleEndianBytes().TextWithNul(text));
  };
  BeginList(file, FourCC("INFO"));
  write_text(FourCC("INAM"), meta_data.title);
  write_text(FourCC("IART"), meta_data.artist);
  write_text(FourCC("IGNR"), meta_data.genre);
  write_text(FourCC("IPRD"), meta_data.album);
  // A creation date needs a day, and only the year is known. An empty year gives "-01-01".
  write_text(FourCC("ICRD"), meta_data.year + "-01-01");
  file.EndChunk();
}

void WriteAcid(RiffChunkWriter& file, const WavAcidData& acid) {
  // Deliberate: the root note takes the four bytes in which other programs keep their flags, and
  // bytes 4 to 11 stay 0. This system's own reader expects it so.
  LittleEndianBytes body;
  body.U32(acid.root_note).U32(0).U32(0).U32(acid.beat_count);
  body.U16(acid.meter_beats).U16(acid.meter_delimiter).F32(acid.tempo);
  WriteChunk(file, FourCC("acid"), body);
}

void WriteAnnotations(RiffChunkWriter& file, const WavAnnotations& annotations,
                      std::int32_t block_align) {
  WriteCuesAndRegions(file, annotations.labels, annotations.markers, block_align);
  WriteInfo(file, annotations.meta_data);
  if (annotations.acid) WriteAcid(file, *annotations.acid);
}

}  // namespace marlinda
