#include "export/wav_layout.h"

#include <string_view>

#include "core/extensible_rules.h"

namespace marlinda {
namespace {

constexpr std::uint16_t kTagPcm = 1;
constexpr std::uint16_t kTagFloat = 3;
constexpr std::uint16_t kTagExtensible = 0xFFFE;
constexpr std::uint16_t kExtensionBytes = 22;

void AddFormat(LittleEndianBytes& file, const WavFormat& format, bool is_extensible) {
  const std::int32_t block_align = format.BlockAlign();
  file.U16(is_extensible     ? kTagExtensible
           : format.is_float ? kTagFloat
                             : kTagPcm)
      .U16(format.channels)
      .U32(format.samples_per_sec)
      .U32(std::int64_t{block_align} * format.samples_per_sec)
      .U16(block_align)
      .U16(format.bits);
  if (!is_extensible) return;
  file.U16(kExtensionBytes).U16(format.bits).U32(ChannelMask(format.channels, false));
  for (const std::uint8_t byte : SubFormatBytes(format.is_float)) file.Low<1>(byte);
}

void AddCuePoints(LittleEndianBytes& file, const WavAnnotations& all, std::int32_t block_align) {
  std::uint32_t id = 0;
  std::uint32_t position = 0;
  std::uint32_t block_start = 0;
  const auto add_point = [&](std::int64_t sample_offset) {
    file.U32(id++).U32(position).Id(FourCC("data")).U32(0).U32(block_start).U32(sample_offset);
  };
  file.U32(all.labels.size() + all.markers.size());
  for (const Label& label : all.labels) {
    position = static_cast<std::uint32_t>(label.position);
    // The field holds the low 32 bits of the product, so unsigned arithmetic may wrap.
    block_start = position * static_cast<std::uint32_t>(block_align);
    add_point(label.position);
  }
  // In a marker's cue point, only the sample offset is the marker's. Position and block start
  // repeat those of the last label, or are 0 without labels.
  for (const SectionMarker& marker : all.markers) add_point(marker.section.begin);
}

void AddNamesAndRegions(LittleEndianBytes& file, const WavAnnotations& all) {
  std::uint32_t id = 0;
  file.Id(FourCC("adtl"));
  for (const Label& label : all.labels) {
    file.Chunk(FourCC("labl"), [&] { file.U32(id++).TextWithNul(label.name); });
  }
  for (const SectionMarker& marker : all.markers) {
    file.Chunk(FourCC("ltxt"), [&] {
      file.U32(id++).U32(marker.section.Length()).Id(FourCC("rgn "));
      file.U16(0).U16(0).U16(0).U16(0);  // country, language, dialect, code page
      file.TextWithNul(marker.name);
    });
  }
}

void AddInfo(LittleEndianBytes& file, const Tags& tags) {
  const auto add = [&](FourCC id, std::string_view text) {
    file.Chunk(id, [&] { file.TextWithNul(text); });
  };
  file.Id(FourCC("INFO"));
  add(FourCC("INAM"), tags.title);
  add(FourCC("IART"), tags.artist);
  add(FourCC("IGNR"), tags.genre);
  add(FourCC("IPRD"), tags.album);
  // A creation date needs a day, but only the year is known. An empty year gives "-01-01".
  add(FourCC("ICRD"), tags.year + "-01-01");
}

}  // namespace

LittleEndianBytes WavHeader(const WavFormat& format, ManyChannels many_channels) {
  const bool is_extensible = format.channels > 2 && many_channels == ManyChannels::kExtensible;
  LittleEndianBytes file;
  file.Id(FourCC("RIFF")).U32(0).Id(FourCC("WAVE"));
  file.Chunk(FourCC("fmt "), [&] { AddFormat(file, format, is_extensible); });
  file.Id(FourCC("data")).U32(0);
  return file;
}

LittleEndianBytes WavTrailer(const WavAnnotations& annotations, std::int32_t block_align) {
  LittleEndianBytes file;
  if (!annotations.labels.empty() || !annotations.markers.empty()) {
    file.Chunk(FourCC("cue "), [&] { AddCuePoints(file, annotations, block_align); });
    file.Chunk(FourCC("LIST"), [&] { AddNamesAndRegions(file, annotations); });
  }
  file.Chunk(FourCC("LIST"), [&] { AddInfo(file, annotations.tags); });
  if (const auto& acid = annotations.acid) {
    // The root note takes the four bytes in which other programs store flags, and bytes 4 to 11
    // stay 0. CDShowImport reads this layout.
    file.Chunk(FourCC("acid"), [&] {
      file.U32(acid->root_note).U32(0).U32(0).U32(acid->beat_count);
      file.U16(acid->meter_beats).U16(acid->meter_delimiter).F32(acid->tempo);
    });
  }
  return file;
}

}  // namespace marlinda
