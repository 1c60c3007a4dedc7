// Headers, chunks, tags and samples of sound files as other programs write them, and as nobody
// should.
#include "import/sound_examiner.h"

#include <gmock/gmock.h>

#include <string>

#include "import/mpeg_stream.h"
#include "tests/export/riff_builder.h"
#include "tests/import/memory_source.h"

namespace marlinda::testing {
namespace {

using namespace riff;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::SizeIs;

SoundFileInfo Examine(const Bytes& file) {
  MemorySource source(file);
  return ExamineSound(source);
}

// A chunk as RIFF has it: padded to 2 bytes, the padding not counted.
Bytes EvenChunk(std::string_view id, const Bytes& body) {
  return Text(id) + U32(body.size()) + body + Bytes(body.size() % 2, 0);
}
Bytes EvenList(std::string_view type, const Bytes& body) {
  return EvenChunk("LIST", Text(type) + body);
}
Bytes RiffFile(const Bytes& chunks) { return EvenChunk("RIFF", Text("WAVE") + chunks); }
Bytes Format(const Bytes& body) { return EvenChunk("fmt ", body); }
Bytes WaveOf(const Bytes& format, const Bytes& data) {
  return RiffFile(Format(format) + EvenChunk("data", data));
}
const Bytes kStereo16 = PlainFormat(1, 2, 44100, 2, 16);

Bytes Big(std::uint64_t value, int bytes) {
  Bytes result = Integer(value, bytes);
  std::ranges::reverse(result);
  return result;
}
Bytes BigChunk(std::string_view id, const Bytes& body) {
  return Text(id) + Big(body.size(), 4) + body + Bytes(body.size() % 2, 0);
}
const Bytes kRate44100 = {0x40, 0x0E, 0xAC, 0x44, 0, 0, 0, 0, 0, 0};

Bytes Aiff(int channels, int frames, int bits, const Bytes& samples) {
  return BigChunk(
      "FORM", Text("AIFF") +
                  BigChunk("COMM", Big(channels, 2) + Big(frames, 4) + Big(bits, 2) + kRate44100) +
                  BigChunk("SSND", U32(0) + U32(0) + samples));
}
Bytes Aifc(std::string_view type, int channels, int bits, const Bytes& samples) {
  return BigChunk("FORM", Text("AIFC") + BigChunk("NAME", Text("odd")) +
                              BigChunk("SSND", Big(2, 4) + U32(0) + Bytes(2, 0x55) + samples) +
                              BigChunk("COMM", Big(channels, 2) + Big(2, 4) + Big(bits, 2) +
                                                   kRate44100 + Text(type) + Bytes(2, 0)));
}
Bytes Au(int encoding, std::uint64_t size, const Bytes& samples, int channels = 1) {
  return Text(".snd") + Big(28, 4) + Big(size, 4) + Big(encoding, 4) + Big(8000, 4) +
         Big(channels, 4) + U32(0) + samples;
}

// A Windows Media file with a stream of audio, or of another kind, and other objects.
Bytes Asf(const Bytes& format, bool is_audio = true, const Bytes& rest = {}) {
  const Bytes objects = Hex("9107DCB7B7A9CF118EE600C00C205365") + U32(78 + format.size()) + U32(0) +
                        (is_audio ? Hex("409E69F84D5BCF11A8FD00805F5C442B") : Bytes(16, 0)) +
                        Bytes(38, 0) + format + rest;
  return Hex("3026B2758E66CF11A6D900AA0062CE6C") + U32(30 + objects.size()) + U32(0) + U32(3) +
         U16(0) + objects;
}
const Bytes kWindowsMedia = PlainFormat(0x161, 2, 44100, 1024, 16);

// Frames of silence at 44,100 Hz and 128 kbit/s: 1152 samples of each channel.
Bytes MpegFrame(bool stereo = false) {
  return Bytes{0xFF, 0xFB, 0x90, static_cast<unsigned char>(stereo ? 0x00 : 0xC0)} + Bytes(413, 0);
}
Bytes MpegFrames(int count) {
  Bytes frames;
  for (; count > 0; --count) frames = std::move(frames) + MpegFrame();
  return frames;
}
// Names the frames behind it and how many samples the encoder put before and behind the sound.
Bytes MpegInfo(int frames, int before, int behind) {
  Bytes frame = MpegFrame();
  const Bytes info = Text("Info") + Big(1, 4) + Big(frames, 4) + Text("LAME3.100") + Bytes(12, 0) +
                     Big(before << 12 | behind, 3);
  std::ranges::copy(info, frame.begin() + 21);
  return frame;
}

std::vector<std::int16_t> MpegSamples(const Bytes& file) {
  MemorySource source(file);
  const SoundFileInfo info = ExamineSound(source);
  if (!info.mpeg) return {};
  const auto stream = MpegStream::Open(source, *info.mpeg);
  const auto channels = static_cast<std::size_t>(stream->channels());
  const auto announced = static_cast<std::size_t>(stream->CountFrames()) * channels;
  std::vector<std::int16_t> samples(announced + 1000 * channels, 9);
  samples.resize(stream->Read(samples));
  EXPECT_TRUE(stream->has_ended_well());
  EXPECT_THAT(samples, SizeIs(announced));
  return samples;
}

std::vector<float> SamplesOf(const Bytes& file) {
  MemorySource source(file);
  const SoundFileInfo info = ExamineSound(source);
  if (!info.pcm) return {};
  const auto count = static_cast<std::size_t>(info.pcm->frames * info.pcm->format.channels);
  std::vector<float> samples(count + 4, 9.0F);
  std::vector<std::byte> scratch;
  samples.resize(ReadSamples(source, *info.pcm, 0, samples, scratch));
  EXPECT_GE(samples.size(), count);
  samples.resize(std::min(samples.size(), count));
  return samples;
}

// The 16-bit codes that the samples were made from.
std::vector<int> CodesOf(const Bytes& file) {
  std::vector<int> codes;
  for (const float sample : SamplesOf(file)) codes.push_back(std::lround(sample * 32767.0F));
  return codes;
}

TEST(SoundExaminer, ReadsCuesRegionsTextsAndLoopsOfOtherPrograms) {
  const Bytes region_without_text = U32(7) + U32(50) + Text("rgn ") + U32(0) + U32(0);
  const Bytes point_as_region = U32(3) + U32(0) + Text("mark") + U32(0) + U32(0);
  const SoundFileInfo info = Examine(RiffFile(
      EvenChunk("JUNK", Text("odd")) +
      EvenList("adtl",
               EvenChunk("labl", U32(7) + TextZ("Solo")) + EvenChunk("ltxt", region_without_text) +
                   EvenChunk("labl", U32(3) + TextZ("Hit")) + EvenChunk("ltxt", point_as_region) +
                   EvenChunk("note", U32(9) + TextZ("a note")) +
                   EvenChunk("labl", U32(99) + TextZ("of no point"))) +
      Format(kStereo16) +
      EvenChunk("cue ", U32(4) + CuePoint(3, 0, 0, 10) + CuePoint(7, 0, 0, 100) +
                            CuePoint(9, 0, 0, 4294967295) + CuePoint(3, 0, 0, 12)) +
      EvenChunk("data", Bytes(9, 1)) +
      EvenList("INFO", EvenChunk("INAM", TextZ("Song")) + EvenChunk("IART", Text("Band")) +
                           EvenChunk("IPRD", TextZ("LP")) + EvenChunk("IGNR", TextZ("Dub")) +
                           EvenChunk("ICRD", TextZ("1998-10-02"))) +
      EvenChunk("acid", U32(60) + U32(1) + U32(2) + U32(16) + U16(3) + U16(4) + F32(99.5F))));
  const std::vector<marlinda::Label> labels = {{10, "Hit"}, {4294967295, "a note"}, {12, ""}};
  EXPECT_EQ(info.labels, labels);
  ASSERT_EQ(info.markers.size(), 1U);
  EXPECT_EQ(info.markers[0].name, "Solo");
  EXPECT_EQ(info.markers[0].section.begin, 100);
  EXPECT_EQ(info.markers[0].section.end, 150);
  EXPECT_EQ(info.tags, (Tags{"Song", "Band", "LP", "1998", "Dub"}));
  EXPECT_EQ(info.acid, (AcidData{60, 3, 4, 16, 99.5F}));
  EXPECT_EQ(info.pcm.value().frames, 2);
  EXPECT_EQ(Examine(Wav(kStereo16, {}, Info())).tags, Tags()) << "a year that nobody knew";
  EXPECT_EQ(Examine(Wav(kStereo16, {}, Info("", "", "", "", "99-01-01"))).tags.year, "99");
  // A count of cue points that no file can hold.
  EXPECT_THAT(Examine(Wav(kStereo16, {}, Chunk("cue ", U32(0xFFFFFFFF) + Bytes(24, 0)))).labels,
              SizeIs(1));
}

TEST(SoundExaminer, ReadsEveryUncompressedWaveFormatAndRefusesContradictions) {
  const auto format_of = [](const Bytes& body) {
    const SoundFileInfo info = Examine(WaveOf(body, Bytes(64, 0)));
    EXPECT_NE(info.pcm.has_value(), info.refused);
    return info.pcm ? info.pcm->format : PcmFormat();
  };
  EXPECT_EQ(format_of(PlainFormat(1, 1, 8000, 1, 8)), (PcmFormat{8000, 1, 8, false}));
  EXPECT_EQ(format_of(PlainFormat(1, 2, 96000, 3, 20)), (PcmFormat{96000, 2, 24, false}));
  EXPECT_EQ(format_of(PlainFormat(1, 2, 48000, 4, 24)), (PcmFormat{48000, 2, 32, false}));
  EXPECT_EQ(format_of(PlainFormat(1, 2, 48000, 0, 24)), (PcmFormat{48000, 2, 24, false}));
  EXPECT_EQ(format_of(PlainFormat(3, 1, 48000, 8, 64)), (PcmFormat{48000, 1, 64, true}));
  EXPECT_EQ(format_of(ExtensibleFormat(3, 8, 48000, 4, 32, 0xFF)), (PcmFormat{48000, 8, 32, true}));
  EXPECT_EQ(format_of(ExtensibleFormat(1, 6, 44100, 2, 16, 0)), (PcmFormat{44100, 6, 16, false}));
  for (const Bytes& body :
       {PlainFormat(1, 0, 44100, 2, 16), PlainFormat(1, 2, 0, 2, 16),
        PlainFormat(1, 2, 44100, 1, 16), PlainFormat(1, 2, 44100, 2, 0),
        PlainFormat(3, 2, 44100, 2, 16), PlainFormat(1, 40000, 44100, 1, 8),
        PlainFormat(1, 30000, 44100, 0, 24), PlainFormat(1, 1, 0x80000000, 2, 16),
        PlainFormat(1, 2, 44100, 5, 40), PlainFormat(1, 2, 44100, 8, 64), Bytes(10, 1), Bytes()}) {
    EXPECT_EQ(format_of(body), PcmFormat());
  }
  EXPECT_TRUE(Examine(RiffFile(EvenChunk("data", Bytes(64, 0)))).refused);
  EXPECT_TRUE(Examine(RiffFile(Format(kStereo16))).refused) << "no samples promised";
}

// Some decoders of the system crash or hang on the files that are refused here.
TEST(SoundExaminer, LeavesOnlySoundFilesInPossibleFormatsToTheFiltersOfTheSystem) {
  const auto is_for_filters = [](const Bytes& file) {
    const SoundFileInfo info = Examine(file);
    EXPECT_LE(info.pcm.has_value() + info.mpeg.has_value() + info.refused, 1);
    return !info.pcm && !info.mpeg && !info.refused;
  };
  const auto avi = [](std::string_view kind, const Bytes& format) {
    return EvenChunk(
        "RIFF",
        Text("AVI ") + EvenList("hdrl", EvenChunk("avih", Bytes(56, 0)) +
                                            EvenList("strl", EvenChunk("strh", Text(kind)) +
                                                                 EvenChunk("strf", format))));
  };
  const Bytes gsm = PlainFormat(0x31, 1, 8000, 65, 0);
  for (const Bytes& file :
       {avi("auds", kStereo16), avi("auds", kWindowsMedia), avi("iavs", {}), Asf(kWindowsMedia),
        WaveOf(gsm, Bytes(65, 0)), WaveOf(kWindowsMedia, Bytes(4096, 0)),
        Hex("000001BA") + Bytes(99, 0)}) {
    EXPECT_TRUE(is_for_filters(file)) << ::testing::PrintToString(file);
  }
  for (const Bytes& file :
       {avi("auds", PlainFormat(0x161, 255, 44100, 1, 16)),
        avi("auds", PlainFormat(1, 2, 0, 2, 16)), avi("vids", kStereo16),
        EvenChunk("RIFF", Text("CDXA") + Bytes(99, 0)),
        Asf(PlainFormat(0x161, 65535, 44100, 1, 16)), Asf(kWindowsMedia, false),
        WaveOf(gsm, Bytes(64, 0)), WaveOf(PlainFormat(0x31, 2, 8000, 65, 0), Bytes(999, 0)),
        WaveOf(PlainFormat(0x55, 16, 8000, 1, 0), Bytes(999, 0)),
        WaveOf(PlainFormat(0x161, 2, 0, 8, 16), Bytes(999, 0)), Aifc("ima4", 1, 16, Bytes(99, 0)),
        Aifc("MAC6", 255, 16, Bytes(99, 0)), Au(23, 9, {1, 2}),
        Text("OggS") + Bytes(24, 0) + Text("\x80theora"), Text("fLaC") + Bytes(99, 0), Bytes(),
        Text("RIFFRAFF and other texts")}) {
    EXPECT_TRUE(Examine(file).refused) << ::testing::PrintToString(file);
  }
}

TEST(SoundExaminer, CutsSizesThatReachBeyondTheFile) {
  const auto frames = [](std::uint64_t riff, std::uint64_t data, int bytes) {
    const SoundFileInfo info = Examine(Text("RIFF") + U32(riff) + Text("WAVE") + Format(kStereo16) +
                                       Text("data") + U32(data) + Bytes(bytes, 0));
    return info.pcm ? info.pcm->frames : -1;
  };
  for (const std::uint64_t size : {100ULL, 0x7FFFFFFFULL, 0xFFFFFFFEULL, 0xFFFFFFFFULL}) {
    EXPECT_TRUE(frames(size, size, 41) == 10 && frames(0, size, 41) == 10) << size;
  }
  // The whole says less than it holds, down to nothing but its own name.
  for (const std::uint32_t size : {4U, 20U, 36U, 75U}) EXPECT_EQ(frames(size, 40, 40), 10) << size;
  // A writer that was stopped has filled in nothing; one of an empty file has.
  for (const std::uint32_t size : {0U, 36U, 76U}) {
    EXPECT_TRUE(frames(size, 0, 41) == 10 && frames(size, 0, 4) == 1) << size;
  }
  EXPECT_EQ(
      Examine(RiffFile(Format(kStereo16) + EvenChunk("data", {}) + EvenList("INFO", Bytes(40, 0))))
          .pcm->frames,
      0);
  // The size of a file past 4 GiB stands in a chunk of its own.
  const Bytes wide = EvenChunk("ds64", U32(0) + U32(0) + U32(8) + U32(0) + U32(2) + Bytes(8, 0));
  EXPECT_EQ(Examine(Text("RF64") + U32(0xFFFFFFFF) + Text("WAVE") + wide + Format(kStereo16) +
                    Text("data") + U32(0xFFFFFFFF) + Bytes(41, 0))
                .pcm->frames,
            2);
}

TEST(SoundExaminer, ReadsSamplesInEveryByteOrder) {
  const float step = 1.0F / 32767.0F;
  EXPECT_THAT(SamplesOf(Aiff(1, 2, 16, {0x00, 0x01, 0x7F, 0xFF, 9, 9})), ElementsAre(step, 1.0F));
  EXPECT_THAT(SamplesOf(Aiff(1, 1, 8, {0xFF})), ElementsAre(0.0F));
  EXPECT_THAT(SamplesOf(Aiff(2, 9, 24, {0x40, 0, 0, 0xC0, 0, 0})), ElementsAre(0.5F, -0.5F));
  EXPECT_THAT(SamplesOf(Aifc("sowt", 1, 16, {1, 0, 0xFF, 0x7F})), ElementsAre(step, 1.0F));
  EXPECT_THAT(SamplesOf(Aifc("fl32", 1, 32, {0x3F, 0x80, 0, 0, 0xC0, 0, 0, 0})),
              ElementsAre(1.0F, -2.0F));
  EXPECT_THAT(SamplesOf(Au(2, 1, {0xFF, 1})), ElementsAre(0.0F));
  EXPECT_THAT(SamplesOf(Au(3, 0xFFFFFFFF, {0x00, 0x01, 0x7F, 0xFF})), ElementsAre(step, 1.0F));
  EXPECT_THAT(SamplesOf(Au(7, 100, {0x3F, 0xF0, 0, 0, 0, 0, 0, 0, 1})), ElementsAre(1.0F));
  EXPECT_THAT(SamplesOf(Wav(PlainFormat(1, 1, 8000, 3, 24), {0, 0, 0x40}, {})), ElementsAre(0.5F));
  EXPECT_EQ(Examine(Aiff(1, 0, 16, {})).pcm->format, (PcmFormat{44100, 1, 16, false}));
  EXPECT_TRUE(Examine(Aiff(0, 1, 16, {1, 2})).refused);
  EXPECT_TRUE(Examine(Aiff(1, 1, 40, {1, 2, 3, 4, 5})).refused);
  EXPECT_TRUE(Examine(Aiff(32767, 1, 24, {})).refused);
  EXPECT_TRUE(Examine(Au(6, 9, {1, 2}, 16384)).refused);
  EXPECT_TRUE(Examine(Au(3, 9, {1, 2}, 0)).refused);
}

TEST(SoundExaminer, ExpandsLogarithmicSamplesAndBlocksOfFourBits) {
  EXPECT_THAT(CodesOf(Au(1, 3, {0x00, 0x80, 0xFE, 0x55})), ElementsAre(-32124, 32124, 8));
  EXPECT_THAT(CodesOf(Au(27, 9, {0xD5, 0x2A, 0xAA})), ElementsAre(8, -32256, 32256));
  EXPECT_THAT(CodesOf(Aifc("ulaw", 1, 16, {0x7F, 0xFF})), ElementsAre(0, 0));
  EXPECT_THAT(CodesOf(WaveOf(PlainFormat(7, 1, 8000, 1, 8), {0x00})), ElementsAre(-32124));
  EXPECT_THAT(CodesOf(WaveOf(PlainFormat(6, 2, 8000, 1, 8), {0x2A, 0xAA, 1})),
              ElementsAre(-32256, 32256));
  EXPECT_THAT(CodesOf(WaveOf(ExtensibleFormat(7, 1, 8000, 1, 8, 0), {0x80})), ElementsAre(32124));

  const Bytes ima = U16(100) + Bytes{0, 0, 0xF7, 0x00, 0x00, 0x08};
  const auto ima_format = PlainFormat(0x11, 1, 8000, 8, 4);
  const std::vector<int> ima_codes = {100, 111, 81, 85, 88, 91, 94, 92, 94};
  EXPECT_EQ(CodesOf(WaveOf(ima_format, ima)), ima_codes);
  const Bytes ima_stereo =
      U16(100) + U16(0) + U16(0xFFFF) + U16(0) + Bytes{0xF7, 0, 0, 8} + Bytes(4, 0x88);
  const std::vector<int> stereo_codes =
      CodesOf(WaveOf(PlainFormat(0x11, 2, 8000, 8, 4), ima_stereo));
  ASSERT_THAT(stereo_codes, SizeIs(18));
  for (std::size_t i = 0; i < 9; ++i) {
    EXPECT_EQ(stereo_codes[2 * i], ima_codes[i]);
    EXPECT_EQ(stereo_codes[2 * i + 1], -1);
  }
  const Bytes ms = Bytes{4} + U16(16) + U16(0xFFFD) + U16(50) + Bytes{0x1F};
  const auto ms_format = PlainFormat(2, 1, 8000, 8, 4);
  EXPECT_THAT(CodesOf(WaveOf(ms_format, ms)), ElementsAre(50, -3, 14, -3));
  EXPECT_THAT(CodesOf(WaveOf(ms_format, Bytes{7} + Bytes(7, 1))), Each(0)) << "no such predictor";
  // Several blocks, the last of them cut off, and files that say how much of it is sound.
  EXPECT_THAT(CodesOf(WaveOf(ms_format, ms + ms + Bytes(7, 0))), SizeIs(4 + 4 + 2));
  EXPECT_THAT(CodesOf(WaveOf(ima_format, ima + ima + Bytes(4, 0))), SizeIs(9 + 9 + 1));
  const auto announced = [&](std::uint32_t frames) {
    return SamplesOf(RiffFile(Format(ima_format) + EvenChunk("fact", U32(frames)) +
                              EvenChunk("data", ima + ima)))
        .size();
  };
  EXPECT_EQ(announced(10), 10U);
  EXPECT_EQ(announced(9), 18U) << "not in the last block";
  EXPECT_EQ(announced(19), 18U);
}

TEST(SoundExaminer, DecodesAsManyMpegSamplesAsItAnnounces) {
  EXPECT_THAT(MpegSamples(MpegFrames(2)), SizeIs(2 * 1152));
  EXPECT_THAT(MpegSamples(MpegFrames(3) + Bytes(100, 0xFF)), SizeIs(3 * 1152));
  EXPECT_THAT(MpegSamples(Bytes(2000, 0) + MpegFrames(4) + Bytes(70000, 7) + MpegFrames(3)),
              SizeIs(7 * 1152));
  EXPECT_TRUE(Examine(Bytes(2000, 0) + MpegFrames(3) + Bytes(70000, 7) + MpegFrames(3)).refused);
  EXPECT_THAT(MpegSamples(Text("ID3") + Bytes{4, 0, 0, 0, 0, 1, 0} + Bytes(128, 0) + MpegFrames(4)),
              SizeIs(4 * 1152));
  // The format of the first frame is that of all.
  EXPECT_THAT(MpegSamples(MpegFrames(2) + MpegFrame(true) + MpegFrame(true)), SizeIs(4 * 1152));
  EXPECT_THAT(MpegSamples(MpegFrame(true) + MpegFrame(true) + MpegFrames(1)), SizeIs(3 * 2 * 1152));
  EXPECT_THAT(MpegSamples(MpegInfo(5, 576, 1000) + MpegFrames(5)), SizeIs(5 * 1152 - 576 - 1000));
  EXPECT_THAT(MpegSamples(WaveOf(PlainFormat(0x55, 1, 8000, 1, 0), MpegFrames(2))),
              SizeIs(2 * 1152));
  EXPECT_TRUE(Examine(MpegFrames(1)).refused);
  EXPECT_TRUE(Examine(Text("ID3") + Bytes{4, 0, 0, 1, 0, 0, 0} + MpegFrames(4)).refused)
      << "a tag that is longer than the file";
}

Bytes SyncSafe(std::uint64_t size) {
  return Big(size >> 21, 1) + Big(size >> 14 & 127, 1) + Big(size >> 7 & 127, 1) +
         Big(size & 127, 1);
}
Bytes Frame(int version, std::string_view id, const Bytes& text) {
  if (version == 2) return Text(id) + Big(text.size(), 3) + text;
  return Text(id) + (version == 4 ? SyncSafe(text.size()) : Big(text.size(), 4)) + U16(0) + text;
}
Bytes Utf16(std::string_view text) {
  Bytes result;
  for (const char c : text) result = result + U16(static_cast<unsigned char>(c));
  return result;
}

TEST(SoundExaminer, ReadsTheTagsOfCompressedFiles) {
  const Bytes old_tag = Text("TAG") + Text("Old title") + Bytes(21, ' ') + Text("Old artist") +
                        Bytes(20, 0) + Bytes(30, 0) + Text("1977") + Bytes(30, 0) + Bytes{17};
  const auto tags_of = [](int version, int flags, const Bytes& frames, const Bytes& rest = {}) {
    return Examine(Text("ID3") + Big(version, 1) + Big(0, 1) + Big(flags, 1) +
                   SyncSafe(frames.size()) + frames + MpegFrames(2) + rest)
        .tags;
  };
  const SoundFileInfo old_only = Examine(MpegFrames(2) + old_tag);
  EXPECT_EQ(old_only.tags, (Tags{"Old title", "Old artist", "", "1977", "Rock"}));
  EXPECT_TRUE(old_only.utf8);
  EXPECT_EQ(
      tags_of(2, 0, Frame(2, "TT2", {0, 0xDC}) + Frame(2, "TAL", Bytes{0} + Text("LP")), old_tag),
      (Tags{"\xC3\x9C", "Old artist", "LP", "1977", "Rock"}));
  // The byte order mark of the text looks like sound, so a zero was put into it.
  Bytes frame = Frame(3, "TPE1", Bytes{1, 0xFF, 0xFE} + Utf16("Title"));
  frame.insert(frame.begin() + 12, 0);
  const Bytes extended = Big(6, 4) + Bytes(6, 0);
  EXPECT_EQ(tags_of(3, 0xC0, extended + frame + Frame(3, "TCON", Bytes{0} + Text("(4)Nu-Disco"))),
            (Tags{"", "Title", "", "", "Disco Nu-Disco"}));
  EXPECT_EQ(tags_of(3, 0, Frame(3, "TCON", Bytes{0} + Text("(51)(39)"))).genre,
            "Techno-Industrial Noise");
  EXPECT_EQ(tags_of(4, 0,
                    Frame(4, "APIC", Bytes(3 << 20, 1)) +
                        Frame(4, "TALB", Bytes{3} + Text("\xE2\x82\xAC")) +
                        Frame(4, "TDRC", Bytes{3} + Text("2009-05-01")) +
                        Frame(4, "TIT2", Bytes{2, 0xD8, 0x3C, 0xDF, 0xB5}) + Text("TPE1") +
                        Big(0x7F7F7F7F, 4)),
            (Tags{"\xF0\x9F\x8E\xB5", "", "\xE2\x82\xAC", "2009", ""}));
  // A byte that names a group stands before the text.
  for (const auto& [version, flag] : {std::pair{3, 0x20}, {4, 0x40}}) {
    Bytes grouped = Frame(version, "TIT2", Bytes{7, 0} + Text("In a group"));
    grouped[9] = static_cast<char>(flag);
    EXPECT_EQ(tags_of(version, 0, Frame(version, "TALB", Bytes{0, 'A'}) + grouped).title,
              "In a group");
  }
  // Chapters inside chapters, deeper than a stack.
  Bytes chapters;
  for (std::uint64_t depth = 30000; depth > 0; --depth) {
    chapters = std::move(chapters) + Text("CHAP") + SyncSafe(28 * depth - 10) + U16(0) +
               TextZ("c") + Bytes(16, 0);
  }
  EXPECT_EQ(tags_of(4, 0, chapters + Frame(4, "TIT2", Bytes{3} + Text("top"))).title, "top");

  const auto object = [](const Bytes& id, const Bytes& body) {
    return id + U32(body.size() + 24) + U32(0) + body;
  };
  const auto field = [](std::string_view name, const Bytes& value) {
    const Bytes wide = Utf16(name) + U16(0);
    return U16(wide.size()) + wide + U16(0) + U16(value.size()) + value;
  };
  const Bytes objects =
      object(Hex("3326B2758E66CF11A6D900AA0062CE6C"),
             U16(4) + U16(6) + Bytes(6, 0) + Utf16("Ti") + Utf16("Art")) +
      object(Hex("40A4D0D207E3D21197F000A0C95EA850"), U16(3) + field("WM/AlbumTitle", Utf16("LP")) +
                                                          field("WM/Year", Utf16("2010-02-03")) +
                                                          field("WM/Genre", Utf16("Dub")));
  EXPECT_EQ(Examine(Asf(kWindowsMedia, true, objects)).tags,
            (Tags{"Ti", "Art", "LP", "2010", "Dub"}));
}

}  // namespace
}  // namespace marlinda::testing
