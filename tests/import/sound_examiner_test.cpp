// Tests unusual files of other programs, and malformed files. sound_files_test.py tests the usual
// files.
#include "import/sound_examiner.h"

#include <gmock/gmock.h>

#include <string>

#include "import/mpeg_stream.h"
#include "tests/export/riff_builder.h"
#include "tests/import/memory_source.h"

namespace marlinda::testing {
namespace {

using namespace riff;
using ::testing::SizeIs;

SoundFileInfo Examine(const Bytes& file) {
  MemorySource source(file);
  return ExamineSound(source);
}

// Returns a RIFF chunk, padded to 2 bytes. The chunk's size excludes the padding.
Bytes EvenChunk(std::string_view id, const Bytes& body) {
  return Text(id) + U32(body.size()) + body + Bytes(body.size() % 2, 0);
}
Bytes EvenList(std::string_view type, const Bytes& body) {
  return EvenChunk("LIST", Text(type) + body);
}
Bytes RiffFile(const Bytes& format, const Bytes& chunks) {
  return EvenChunk("RIFF", Text("WAVE") + EvenChunk("fmt ", format) + chunks);
}
Bytes WaveOf(const Bytes& format, const Bytes& data) {
  return RiffFile(format, EvenChunk("data", data));
}
const Bytes kStereo16 = PlainFormat(1, 2, 44100, 2, 16);
const Bytes kWindowsMedia = PlainFormat(0x161, 2, 44100, 1024, 16);

Bytes Big(std::uint64_t value, int bytes) {
  Bytes result = Integer(value, bytes);
  std::ranges::reverse(result);
  return result;
}
// Returns an AIFC file, or AIFF if `type` is empty. The samples come before the format.
Bytes Aiff(std::string_view type, int channels, int frames, int bits, const Bytes& samples) {
  const auto chunk = [](std::string_view id, const Bytes& body) {
    return Text(id) + Big(body.size(), 4) + body + Bytes(body.size() % 2, 0);
  };
  return chunk("FORM",
               Text(type.empty() ? "AIFF" : "AIFC") + chunk("NAME", Text("odd")) +
                   chunk("SSND", Big(2, 4) + U32(0) + Bytes(2, 0x55) + samples) +
                   chunk("COMM", Big(channels, 2) + Big(frames, 4) + Big(bits, 2) +
                                     Hex("400EAC44000000000000") + Text(type) + Bytes(2, 0)));
}
Bytes Au(int encoding, std::uint64_t size, const Bytes& samples, int channels = 1) {
  return Text(".snd") + Big(28, 4) + Big(size, 4) + Big(encoding, 4) + Big(8000, 4) +
         Big(channels, 4) + U32(0) + samples;
}
// Returns a Windows Media file: one stream, which is audio if `is_audio`, and then `rest`.
Bytes Asf(const Bytes& format, bool is_audio = true, const Bytes& rest = {}) {
  const Bytes objects = Hex("9107DCB7B7A9CF118EE600C00C205365") + U32(78 + format.size()) + U32(0) +
                        (is_audio ? Hex("409E69F84D5BCF11A8FD00805F5C442B") : Bytes(16, 0)) +
                        Bytes(38, 0) + format + rest;
  return Hex("3026B2758E66CF11A6D900AA0062CE6C") + U32(30 + objects.size()) + U32(0) + U32(3) +
         U16(0) + objects;
}

// Returns silent frames of 44,100 Hz and 128 kbit/s with 1152 samples per channel.
Bytes MpegFrames(int count, bool stereo = false) {
  Bytes frames;
  for (; count > 0; --count) {
    frames = std::move(frames) + Bytes{0xFF, 0xFB, 0x90} + Big(stereo ? 0 : 0xC0, 1) + Bytes(413);
  }
  return frames;
}
// Returns five frames after an info frame. The info frame states the number of frames and the
// encoder's padding before and after the sound.
Bytes MpegWithInfo(int before, int behind) {
  Bytes frame = MpegFrames(1);
  const Bytes info = Text("Info") + Big(1, 4) + Big(5, 4) + Text("LAME3.100") + Bytes(12) +
                     Big(before << 12 | behind, 3);
  std::ranges::copy(info, frame.begin() + 21);
  return frame + MpegFrames(5);
}

// Expects the stream to deliver as many samples as it announces. Returns this number, summed over
// all channels.
std::size_t MpegSamples(const Bytes& file) {
  MemorySource source(file);
  const auto stream = MpegStream::Open(source, ExamineSound(source).mpeg.value());
  const auto announced = static_cast<std::size_t>(stream->CountFrames() * stream->channels());
  std::vector<std::int16_t> samples(announced + 2000);
  EXPECT_EQ(stream->Read(samples), announced);
  EXPECT_TRUE(stream->has_ended_well());
  return announced;
}

// Returns the samples as 16-bit codes.
std::vector<int> CodesOf(const Bytes& file) {
  MemorySource source(file);
  const PcmData pcm = ExamineSound(source).pcm.value();
  const auto count = static_cast<std::size_t>(pcm.frames * pcm.format.channels);
  std::vector<float> samples(count + 4);
  std::vector<std::byte> scratch;
  EXPECT_GE(ReadSamples(source, pcm, 0, samples, scratch), count);
  std::vector<int> codes;
  for (std::size_t i = 0; i < count; ++i) codes.push_back(std::lround(samples[i] * 32767.0F));
  return codes;
}

TEST(SoundExaminer, ReadsCuesRegionsTextsAndLoopsOfOtherPrograms) {
  const Bytes region_without_text = U32(7) + U32(50) + Text("rgn ") + U32(0) + U32(0);
  const Bytes point_as_region = U32(3) + U32(0) + Text("mark") + U32(0) + U32(0);
  const SoundFileInfo info = Examine(RiffFile(
      kStereo16,
      EvenList("adtl",
               EvenChunk("labl", U32(7) + TextZ("Solo")) + EvenChunk("ltxt", region_without_text) +
                   EvenChunk("labl", U32(3) + TextZ("Hit")) + EvenChunk("ltxt", point_as_region) +
                   EvenChunk("note", U32(9) + TextZ("a note")) +
                   EvenChunk("labl", U32(99) + TextZ("of no point"))) +
          EvenChunk("cue ", U32(4) + CuePoint(3, 0, 0, 10) + CuePoint(7, 0, 0, 100) +
                                CuePoint(9, 0, 0, 4294967295) + CuePoint(3, 0, 0, 12)) +
          EvenChunk("data", Bytes(9, 1)) +
          EvenList("INFO", EvenChunk("INAM", TextZ("Song")) + EvenChunk("IART", Text("Band")) +
                               EvenChunk("IPRD", TextZ("LP")) + EvenChunk("IGNR", TextZ("Dub")) +
                               EvenChunk("ICRD", TextZ("1998-10-02"))) +
          EvenChunk("acid", U32(60) + U32(1) + U32(2) + U32(16) + U16(3) + U16(4) + F32(99.5F))));
  EXPECT_EQ(info.labels,
            (std::vector<marlinda::Label>{{10, "Hit"}, {4294967295, "a note"}, {12, ""}}));
  ASSERT_THAT(info.markers, SizeIs(1));
  EXPECT_EQ(info.markers[0].name, "Solo");
  EXPECT_TRUE(info.markers[0].section.begin == 100 && info.markers[0].section.end == 150);
  EXPECT_EQ(info.tags, (Tags{"Song", "Band", "LP", "1998", "Dub"}));
  EXPECT_EQ(info.acid, (AcidData{60, 3, 4, 16, 99.5F}));
  EXPECT_EQ(info.pcm.value().frames, 2);
  EXPECT_EQ(Examine(Wav(kStereo16, {}, Info())).tags, Tags()) << "a year that nobody knew";
}

TEST(SoundExaminer, ReadsEveryUncompressedWaveFormatAndRefusesInconsistentHeaders) {
  const std::pair<Bytes, PcmFormat> formats[] = {
      {PlainFormat(1, 1, 8000, 1, 8), {8000, 1, 8, false}},
      {PlainFormat(1, 2, 96000, 3, 20), {96000, 2, 24, false}},
      {PlainFormat(1, 2, 48000, 4, 24), {48000, 2, 32, false}},
      {PlainFormat(1, 2, 48000, 0, 24), {48000, 2, 24, false}},
      {PlainFormat(3, 1, 48000, 8, 64), {48000, 1, 64, true}},
      {ExtensibleFormat(3, 8, 48000, 4, 32, 0xFF), {48000, 8, 32, true}},
  };
  for (const auto& [body, format] : formats) {
    EXPECT_EQ(Examine(WaveOf(body, Bytes(64, 0))).pcm.value().format, format);
  }
  for (const Bytes& body :
       {PlainFormat(1, 0, 44100, 2, 16), PlainFormat(1, 2, 0, 2, 16),
        PlainFormat(1, 2, 44100, 1, 16), PlainFormat(3, 2, 44100, 2, 16),
        PlainFormat(1, 40000, 44100, 1, 8), PlainFormat(1, 1, 0x80000000, 2, 16),
        PlainFormat(1, 2, 44100, 5, 40), PlainFormat(1, 2, 44100, 8, 64), Bytes(10, 1)}) {
    const SoundFileInfo info = Examine(WaveOf(body, Bytes(64, 0)));
    EXPECT_TRUE(info.refused && !info.pcm) << ::testing::PrintToString(body);
  }
  for (const Bytes& file :
       {EvenChunk("RIFF", Text("WAVE") + EvenChunk("data", Bytes(64, 0))), RiffFile(kStereo16, {}),
        Aiff("", 0, 1, 16, {1, 2}), Aiff("", 1, 1, 40, {1, 2, 3, 4, 5}), Aiff("", 32767, 1, 24, {}),
        Au(6, 9, {1, 2}, 16384), Au(3, 9, {1, 2}, 0)}) {
    EXPECT_TRUE(Examine(file).refused) << ::testing::PrintToString(file);
  }
}

// Some decoders of the system crash or hang on the files that are refused here.
TEST(SoundExaminer, PassesOnlyFilesWithPlausibleFormatsToSystemFilters) {
  const auto avi = [](std::string_view kind, const Bytes& format) {
    const Bytes stream = EvenChunk("strh", Text(kind)) + EvenChunk("strf", format);
    return EvenChunk("RIFF", Text("AVI ") + EvenList("hdrl", EvenChunk("avih", Bytes(56, 0)) +
                                                                 EvenList("strl", stream)));
  };
  const Bytes gsm = PlainFormat(0x31, 1, 8000, 65, 0);
  for (const Bytes& file :
       {avi("auds", kStereo16), avi("auds", kWindowsMedia), avi("iavs", {}), Asf(kWindowsMedia),
        WaveOf(gsm, Bytes(65, 0)), WaveOf(kWindowsMedia, Bytes(4096, 0)),
        Hex("000001BA") + Bytes(99, 0)}) {
    const SoundFileInfo info = Examine(file);
    EXPECT_FALSE(info.pcm || info.mpeg || info.refused) << ::testing::PrintToString(file);
  }
  for (const Bytes& file :
       {avi("auds", PlainFormat(0x161, 255, 44100, 1, 16)),
        avi("auds", PlainFormat(1, 2, 0, 2, 16)), avi("vids", kStereo16),
        Asf(PlainFormat(0x161, 65535, 44100, 1, 16)), Asf(kWindowsMedia, false),
        WaveOf(gsm, Bytes(64, 0)), WaveOf(PlainFormat(0x31, 2, 8000, 65, 0), Bytes(999, 0)),
        WaveOf(PlainFormat(0x55, 16, 8000, 1, 0), Bytes(999, 0)),
        WaveOf(PlainFormat(0x161, 2, 0, 8, 16), Bytes(999, 0)),
        Aiff("ima4", 1, 2, 16, Bytes(99, 0)), Au(23, 9, {1, 2}),
        Text("OggS") + Bytes(24, 0) + Text("\x80theora"), Text("RIFFRAFF and other texts")}) {
    EXPECT_TRUE(Examine(file).refused) << ::testing::PrintToString(file);
  }
}

TEST(SoundExaminer, LimitsChunkSizesToTheFileSize) {
  const auto frames = [](std::uint64_t riff, std::uint64_t data, int bytes) {
    return Examine(Text("RIFF") + U32(riff) + Text("WAVE") + EvenChunk("fmt ", kStereo16) +
                   Text("data") + U32(data) + Bytes(bytes, 0))
        .pcm.value()
        .frames;
  };
  for (const std::uint64_t size : {100ULL, 0x7FFFFFFFULL, 0xFFFFFFFFULL}) {
    EXPECT_TRUE(frames(size, size, 41) == 10 && frames(0, size, 41) == 10) << size;
  }
  EXPECT_EQ(frames(20, 40, 40), 10) << "the RIFF size is too small";
  // An interrupted program leaves one of these RIFF sizes and a data size of 0, but the samples
  // count. The file made of `empty` really has no samples.
  for (const std::uint32_t size : {0U, 36U}) EXPECT_EQ(frames(size, 0, 41), 10) << size;
  const Bytes empty = EvenChunk("data", {}) + EvenList("INFO", Bytes(40, 0));
  EXPECT_EQ(Examine(RiffFile(kStereo16, empty)).pcm.value().frames, 0);
  // RF64, the form for files larger than 4 GiB, has its sizes in a separate chunk.
  const Bytes wide = EvenChunk("ds64", U32(0) + U32(0) + U32(8) + U32(0) + U32(2) + Bytes(8, 0));
  EXPECT_EQ(Examine(Text("RF64") + U32(0xFFFFFFFF) + Text("WAVE") + wide +
                    EvenChunk("fmt ", kStereo16) + Text("data") + U32(0xFFFFFFFF) + Bytes(41, 0))
                .pcm.value()
                .frames,
            2);
}

TEST(SoundExaminer, ReadsTheSamplesOfUnusualAndDamagedFiles) {
  const Bytes ima = U16(100) + Bytes{0, 0, 0xF7, 0x00, 0x00, 0x08};
  const Bytes ima_format = PlainFormat(0x11, 1, 8000, 8, 4);
  const Bytes ms = Bytes{4} + U16(16) + U16(0xFFFD) + U16(50) + Bytes{0x1F};
  const Bytes ms_format = PlainFormat(2, 1, 8000, 8, 4);
  const auto announced = [&](std::uint32_t frames) {
    return RiffFile(ima_format, EvenChunk("fact", U32(frames)) + EvenChunk("data", ima));
  };
  const std::pair<Bytes, std::vector<int>> files[] = {
      {Aiff("", 2, 9, 24, {0x40, 0, 0, 0xC0, 0, 0}), {16384, -16384}},
      {Aiff("sowt", 1, 2, 16, {1, 0, 0xFF, 0x7F}), {1, 32767}},
      {Aiff("fl32", 1, 2, 32, {0x3F, 0x80, 0, 0, 0xC0, 0, 0, 0}), {32767, -65534}},
      {Au(7, 0xFFFFFFFF, {0x3F, 0xF0, 0, 0, 0, 0, 0, 0, 1}), {32767}},
      {WaveOf(ExtensibleFormat(7, 1, 8000, 1, 8, 0), {0x80}), {32124}},
      {WaveOf(ms_format, ms), {50, -3, 14, -3}},
      // The last of several blocks is truncated. The next file uses the nonexistent predictor 7.
      {WaveOf(ima_format, ima + U16(7) + U16(0)), {100, 111, 81, 85, 88, 91, 94, 92, 94, 7}},
      {WaveOf(ms_format, Bytes{7} + Bytes(7, 1)), {0, 0, 0, 0}},
      // The announced number of frames is used only if it ends in the last block.
      {announced(1), {100}},
      {announced(0), {100, 111, 81, 85, 88, 91, 94, 92, 94}},
  };
  for (const auto& [file, codes] : files) EXPECT_EQ(CodesOf(file), codes);
}

TEST(SoundExaminer, DecodesAsManyMpegSamplesAsItAnnounces) {
  const std::pair<Bytes, std::size_t> files[] = {
      {MpegFrames(3) + Bytes(100, 0xFF), 3 * 1152},
      {Bytes(2000, 0) + MpegFrames(4) + Bytes(70000, 7) + MpegFrames(3), 7 * 1152},
      {Text("ID3") + Bytes{4, 0, 0, 0, 0, 1, 0} + Bytes(128, 0) + MpegFrames(4), 4 * 1152},
      // The format of the first frame applies to all.
      {MpegFrames(2) + MpegFrames(2, true), 4 * 1152},
      {MpegFrames(2, true) + MpegFrames(1), 3 * 2 * 1152},
      {MpegWithInfo(576, 1000), 5 * 1152 - 576 - 1000},
      {WaveOf(PlainFormat(0x55, 1, 8000, 1, 0), MpegFrames(2)), 2 * 1152},
  };
  for (const auto& [file, samples] : files) EXPECT_EQ(MpegSamples(file), samples);
  // These files have too few frames, or a tag that is longer than the file.
  for (const Bytes& file :
       {MpegFrames(1), Bytes(2000, 0) + MpegFrames(3) + Bytes(70000, 7) + MpegFrames(3),
        Text("ID3") + Bytes{4, 0, 0, 1, 0, 0, 0} + MpegFrames(4)}) {
    EXPECT_TRUE(Examine(file).refused);
  }
}

Bytes SyncSafe(std::uint64_t size) {
  return Big(size >> 21, 1) + Big(size >> 14 & 127, 1) + Big(size >> 7 & 127, 1) +
         Big(size & 127, 1);
}

TEST(SoundExaminer, ReadsTheTagsOfCompressedFiles) {
  const Bytes old_tag = Text("TAG") + Text("Old title") + Bytes(21, ' ') + Text("Old artist") +
                        Bytes(50, 0) + Text("1977") + Bytes(30, 0) + Bytes{17};
  // These chapters are nested deeper than a stack allows.
  Bytes chapters;
  for (std::uint64_t depth = 30000; depth > 0; --depth) {
    chapters = std::move(chapters) + Text("CHAP") + SyncSafe(28 * depth - 10) + U16(0) +
               TextZ("c") + Bytes(16, 0);
  }
  const std::tuple<int, int, Bytes, Tags> cases[] = {
      // The first tag has an extended header. In the next two, a group byte precedes the text.
      {3,
       0x40,
       Big(6, 4) + Bytes(6, 0) + Text("TPE1") + Big(6, 4) + Bytes(3, 0) + Text("Title"),
       {"Old title", "Title", "", "1977", "Rock"}},
      {3,
       0,
       Text("TIT2") + Big(9, 4) + Big(0x20, 2) + Bytes{7, 0} + Text("Grouped"),
       {"Grouped", "Old artist", "", "1977", "Rock"}},
      {4,
       0,
       Text("TIT2") + SyncSafe(9) + Big(0x40, 2) + Bytes{7, 0} + Text("Grouped"),
       {"Grouped", "Old artist", "", "1977", "Rock"}},
      {4,
       0,
       chapters + Text("TDRC") + SyncSafe(11) + Bytes{0, 0, 3} + Text("2009-05-01"),
       {"Old title", "Old artist", "", "2009", "Rock"}},
  };
  for (const auto& [version, flags, frames, tags] : cases) {
    const SoundFileInfo info = Examine(Text("ID3") + Big(version, 1) + Big(flags, 2) +
                                       SyncSafe(frames.size()) + frames + MpegFrames(2) + old_tag);
    EXPECT_EQ(info.tags, tags);
    EXPECT_TRUE(info.utf8);
  }
  const Bytes texts = U16(4) + U16(0) + Bytes(6, 0) + U16('T') + U16('i');
  EXPECT_EQ(Examine(Asf(kWindowsMedia, true,
                        Hex("3326B2758E66CF11A6D900AA0062CE6C") + U32(24 + texts.size()) + U32(0) +
                            texts))
                .tags.title,
            "Ti");
}

}  // namespace
}  // namespace marlinda::testing
