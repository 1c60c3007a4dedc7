// Imports an Ogg Vorbis file, deletes its second half, prints an overview of the rest and writes
// the rest as WAV:
//   first_steps IN.ogg OUT.wav
#include "client.h"
// shellapi.h needs windows.h first.
#include <shellapi.h>

// An import or export runs on its own thread, so this function polls the task until it ends.
static void RunTask(IUnknown* filter) {
  const auto task = Query<ICoreTask>(filter);
  Check(task->Start(), "Start");
  VARIANT_BOOL running = VARIANT_TRUE;
  while (running != VARIANT_FALSE) {
    Sleep(10);
    Check(task->QueryIsTaskRunning(&running), "QueryIsTaskRunning");
  }
}

static void CutInHalf(const wchar_t* in, const wchar_t* out) {
  const auto pool = Create<IAudioPool>(CLSID_CAudioPool);
  const auto import = Create<IImportFilter>(CLSID_COggImport);
  Check(import->Initialize(Text(in), Query<IAudioWriter>(pool.Get()).Get()), "opening", in);
  RunTask(import.Get());
  ComPtr<IAudioReader> take;
  Check(pool->CreateLastReader(take.GetAddressOf()), "CreateLastReader");
  if (!take) Check(E_FAIL, "decoding the input");
  LONG rate = 0;
  SHORT channels = 0;
  __int64 frames = 0;
  Check(take->GetFormat(&rate, &channels), "GetFormat");
  Check(take->GetSampleCount(&frames), "GetSampleCount");

  const auto document = Create<IEditedAudio>(CLSID_CEditedAudio);
  Check(document->SetFormat(rate, channels, 16), "SetFormat");
  Check(document->AppendSegment(take.Get(), 0, frames), "AppendSegment");
  Check(document->Delete(frames / 2, frames), "Delete");

  // Minimum and maximum of each column and channel, as floats, although declared as short.
  constexpr ULONG kColumns = 64;
  const Floats peaks(kColumns * 2 * static_cast<ULONG>(channels));
  Check(document->ReadWaveplot(0, frames / 2, peaks), "ReadWaveplot");
  std::string overview;
  for (ULONG column = 0; column < kColumns; ++column) {
    const float height = peaks[column * 2 * static_cast<ULONG>(channels) + 1];
    overview += " .:-=+*#%@"[static_cast<int>(9.0F * (height < 0.0F   ? 0.0F
                                                      : height > 1.0F ? 1.0F
                                                                      : height))];
  }
  std::printf("[%s]\n", overview.c_str());

  const auto wav = Create<IExportFilter>(CLSID_CWavExportFilter);
  Check(wav->Initialize(Text(out), Query<IAudioReader>(document.Get()).Get()), "creating", out);
  RunTask(wav.Get());
  std::printf("%lld of %lld frames written\n", static_cast<long long>(frames / 2),
              static_cast<long long>(frames));
}

int main() {
  int count = 0;
  wchar_t** words = CommandLineToArgvW(GetCommandLineW(), &count);
  if (count != 3) {
    std::fprintf(stderr, "usage: first_steps IN.ogg OUT.wav\n");
    return 2;
  }
  Check(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED), "CoInitializeEx");
  CutInHalf(words[1], words[2]);  // releases every object before CoUninitialize
  CoUninitialize();
  LocalFree(words);
  return 0;
}
