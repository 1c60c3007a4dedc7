// Writes WAV files through the export filter, and through the wave writer, into the current folder,
// for foreign programs to judge, and beside each the bare samples that they must find in it.
#include <cstdio>
#include <exception>
#include <filesystem>
#include <string>

#include "tests/export/code_reader.h"
#include "tests/support/com_client.h"

namespace marlinda::testing {
namespace {

struct Sample {
  const wchar_t* name;
  LONG rate;
  SHORT channels;
  SHORT bits;
  __int64 frames;
};

constexpr Sample kSamples[] = {
    {L"mono8", 22050, 1, 8, 1000},      {L"mono8_odd", 8000, 1, 8, 1001},
    {L"stereo16", 44100, 2, 16, 70000}, {L"three16", 48000, 3, 16, 500},
    {L"six24", 48000, 6, 24, 333},      {L"eight32", 96000, 8, 32, 100},
    {L"empty16", 44100, 2, 16, 0},
};

void Annotate(const ComPtr<IExportFilter>& filter) {
  Check(As<ILabelSupport>(filter)->AddLabel(100, Bstr(L"Verse")));
  Check(As<ILabelSupport>(filter)->AddLabel(200, Bstr(L"Chorus")));
  Check(As<ISectionMarkerSupport>(filter)->AddSectionMarker(300, 400, Bstr(L"Solo")));
  Check(As<IMetaDataWriter>(filter)->SetMetaData(
      Bstr(L"A Title"), Bstr(L"An Artist"), Bstr(L"An Album"), Bstr(L"2009"), Bstr(L"A Genre")));
  Check(As<IAcidWriter>(filter)->SetAcidData(60, 4, 4, 8, 120.0F));
}

void Write(const Sample& sample, bool is_annotated) {
  const std::filesystem::path folder = std::filesystem::current_path();
  const std::wstring name = sample.name + std::wstring(is_annotated ? L"_annotated" : L"");
  const auto reader = CodeReader::Create({.samples_per_sec = sample.rate,
                                          .channels = sample.channels,
                                          .frames = sample.frames,
                                          .bits = sample.bits});
  auto filter = Create<IExportFilter>(CLSID_CWavExportFilter);
  Check(filter->Initialize(Bstr(folder / (name + L".wav")), reader.Get()));
  Check(filter->SetBitsPerSample(sample.bits));
  if (is_annotated) Annotate(filter);
  auto task = As<ICoreTask>(filter);
  Check(task->Start());
  if (!WaitForTask(task.Get())) throw std::runtime_error("an export does not end");
  WriteFileBytes(folder / (name + L".raw"),
                 CodesAsPcm(0, sample.frames * sample.channels, sample.bits));
}

// The same by a wave writer, in two blocks.
void Stream(const Sample& sample) {
  const std::filesystem::path folder = std::filesystem::current_path();
  const std::wstring name = sample.name + std::wstring(L"_streamed");
  const auto reader = CodeReader::Create({.samples_per_sec = sample.rate,
                                          .channels = sample.channels,
                                          .frames = sample.frames,
                                          .bits = sample.bits});
  auto writer = Create<IWaveWriter>(CLSID_CWaveWriter);
  Check(writer->SetTargetFile(Bstr(folder / (name + L".wav"))));
  Check(writer->SetResolution(sample.bits));
  auto audio = As<IAudioWriter>(writer);
  Check(audio->SetFormat(sample.rate, sample.channels));
  Check(audio->OpenDevice());
  const __int64 half = sample.frames / 2;
  for (const long long at : {0LL, half}) {
    const __int64 frames = at == half ? sample.frames - half : half;
    Floats block(static_cast<std::size_t>(frames * sample.channels));
    Check(reader->ReadAudio(at, block));
    Check(audio->WriteAudio(block));
  }
  Check(audio->CloseDevice());
  WriteFileBytes(folder / (name + L".raw"),
                 CodesAsPcm(0, sample.frames * sample.channels, sample.bits));
}

}  // namespace
}  // namespace marlinda::testing

int main() {
  using namespace marlinda::testing;
  if (FAILED(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED))) return 1;
  int result = 1;
  try {
    ModuleUnderTest::Load();
    for (const Sample& sample : kSamples) {
      Write(sample, false);
      Write(sample, true);
      // 32 bits are floats there, of which the bare samples here are none.
      if (sample.bits != 32) Stream(sample);
    }
    result = 0;
  } catch (const marlinda::HResultError& error) {
    std::fprintf(stderr, "HRESULT 0x%08lX\n", static_cast<unsigned long>(error.code()));
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());
  }
  if (!ModuleUnderTest::RevokeAndSeeUnused()) result = 1;
  CoUninitialize();
  return result;
}
