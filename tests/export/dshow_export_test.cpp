// Tests the compressed exports with the project's MP3 encoder, and without an encoder.

#include <gtest/gtest.h>
// Must follow windows.h.
#include <dshow.h>

#include <cmath>
#include <filesystem>
#include <optional>

#include "tests/export/mp3_user.h"
#include "tests/export/riff_builder.h"
#include "tests/support/ramp_source.h"
#include "tests/support/recording_writer.h"

namespace marlinda::testing {
namespace {

using namespace riff;

constexpr HRESULT kNoEncoder = VFW_E_CANNOT_CONNECT;

// A source with a different tone in each channel.
class Tones final : public RampSource {
 public:
  Tones(SHORT channels, __int64 count, LONG rate = 44100)
      : RampSource('A', channels, nullptr, rate) {
    frames = count;
  }
  float At(__int64 frame, int channel) const override {
    return 0.5F * std::sin(static_cast<float>(frame) * (channel == 0 ? 0.05F : 0.08F));
  }
};

class DShowExport : public ::testing::Test {
 protected:
  bool IsThere() const { return GetFileAttributesW(mp3.c_str()) != INVALID_FILE_ATTRIBUTES; }
  float Progress() const {
    float progress = -1;
    EXPECT_EQ(task->GetProgress(&progress), S_OK);
    return progress;
  }
  // Creates a new filter and initialises it.
  void Initialize(SHORT channels, __int64 frames, LONG rate = 44100) {
    filter = Create<IExportFilter>(CLSID_CDShowExport);
    task = As<ICoreTask>(filter);
    tones = MakeObject<Tones>(channels, frames, rate);
    EXPECT_EQ(filter->Initialize(Bstr(mp3), tones.Get()), S_OK);
  }
  void Run() {
    ASSERT_EQ(task->Start(), S_OK);
    ASSERT_TRUE(WaitForTask(task.Get()));
  }
  // Expects that an import of the file delivers this many frames with the original tones.
  void ExpectTones(__int64 frames) {
    const auto import = Create<IImportFilter>(CLSID_CDShowImport);
    const auto writer = MakeObject<RecordingWriter>();
    ASSERT_EQ(import->Initialize(Bstr(mp3), writer.Get()), S_OK);
    ASSERT_EQ(As<ICoreTask>(import)->Start(), S_OK);
    ASSERT_TRUE(WaitForTask(As<ICoreTask>(import).Get()));
    const std::vector<float>& samples = writer->samples;
    const int channels = tones->channels();
    ASSERT_EQ(samples.size(), static_cast<std::size_t>(channels * frames));
    // Skips the start and the end, because no encoder preserves an abrupt start.
    for (std::size_t i = 4000; i + 4000 < samples.size(); ++i) {
      ASSERT_NEAR(samples[i],
                  tones->At(static_cast<__int64>(i) / channels, static_cast<int>(i) % channels),
                  0.01)
          << i;
    }
  }

  EncoderSettings settings;
  std::optional<RegisteredEncoder> encoder = std::make_optional<RegisteredEncoder>();
  TemporaryFolder folder;
  std::wstring mp3 = folder.File(L"out.mp3");
  ComPtr<IExportFilter> filter = Create<IExportFilter>(CLSID_CDShowExport);
  ComPtr<ICoreTask> task;
  ComPtr<Tones> tones = MakeObject<Tones>(SHORT{2}, 9);
};

TEST_F(DShowExport, RefusesFilesThatItCannotWriteAndLeavesThemUnchanged) {
  EXPECT_EQ(filter->Initialize(Bstr(folder.File(L"none\\out.mp3")), tones.Get()),
            HRESULT_FROM_WIN32(ERROR_PATH_NOT_FOUND));
  for (const auto& [channels, hr] : {std::pair<SHORT, HRESULT>{6, kNoEncoder}, {0, E_INVALIDARG}}) {
    Initialize(channels, 9);
    EXPECT_EQ(task->Start(), hr);
    EXPECT_FALSE(IsThere());
  }
  WriteFileBytes(mp3, Text("old"));
  encoder.reset();
  Initialize(2, 100);
  EXPECT_EQ(task->Start(), kNoEncoder);
  EXPECT_EQ(Bytes(ReadFileBytes(mp3)), Text("old"));
}

TEST_F(DShowExport, WritesEverySampleBetweenTheTags) {
  settings.Write("MP3Bitrate", 300);  // the encoder offers 256 and 320
  for (const __int64 frames : {1LL, 65536LL, 200'001LL}) {
    Initialize(2, frames);
    EXPECT_EQ(
        As<IMetaDataWriter>(filter)->SetMetaData(Bstr(L"T"), Bstr(), Bstr(), Bstr(L"2009"), Bstr()),
        S_OK);
    Run();
    EXPECT_EQ(Progress(), 1.0F);
    ExpectTones(frames);
    // The tag size has 7 bits in each byte: 27 bytes of ID3 frames and 1024 of padding are {8, 27}.
    // 0xFF, 0xFB, 0xD0 start an MPEG frame of 256 kbit/s.
    const Bytes front = Text("ID3") + Bytes{3, 0, 0, 0, 0, 8, 27} + Text("TIT2") +
                        Bytes{0, 0, 0, 2, 0, 0, 0, 'T'} + Text("TYER") +
                        Bytes{0, 0, 0, 5, 0, 0, 0} + Text("2009") + Bytes(1024) +
                        Bytes{0xFF, 0xFB, 0xD0};
    const Bytes back = Text("TAGT") + Bytes(29 + 60) + Text("2009") + Bytes(30) + Bytes{255};
    const auto file = ReadFileBytes(mp3);
    ASSERT_GT(file.size(), front.size() + back.size());
    EXPECT_EQ(Bytes(file.begin(), file.begin() + std::ssize(front)), front);
    EXPECT_EQ(Bytes(file.end() - std::ssize(back), file.end()), back);
  }
}

TEST_F(DShowExport, LeavesACompleteFileWhenCancelledAndNoneWhenItCannotWrite) {
  Initialize(1, 1'000'000, 32000);
  int blocks = 0;
  tones->on_read = [&](SAFEARRAY*) {
    if (++blocks == 2) task->Cancel();
  };
  Run();
  ExpectTones(2 * 65536);
  Initialize(2, 1'000'000);
  // Closes the file, so that writes fail. Tries all handles, which are multiples of 4.
  tones->on_read = [&](SAFEARRAY*) {
    for (ULONG_PTR handle = 4; handle < 0x10000; handle += 4) {
      wchar_t name[MAX_PATH] = L"";
      GetFinalPathNameByHandleW(reinterpret_cast<HANDLE>(handle), name, MAX_PATH, 0);
      if (std::filesystem::path(name).filename() == L"out.mp3") {
        CloseHandle(reinterpret_cast<HANDLE>(handle));
      }
    }
  };
  Run();
  EXPECT_LT(Progress(), 1.0F);
  EXPECT_FALSE(IsThere());
}

}  // namespace
}  // namespace marlinda::testing
