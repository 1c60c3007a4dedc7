// A client of the engine in one file: imports an Ogg Vorbis file, leaves its second half away,
// prints an overview of the rest and writes it as WAV.
//   first_steps IN.ogg OUT.wav
#include <windows.h>
// After windows.h.
#include <marlinda.h>
#include <shellapi.h>
#include <wrl/client.h>

#include <cstdio>
#include <string>

using Microsoft::WRL::ComPtr;

// Errors end the sample; a real host would tell its user.
static void Check(HRESULT hr, const char* what) {
  if (SUCCEEDED(hr)) return;
  std::fprintf(stderr, "%s failed with 0x%08lX\n", what, static_cast<unsigned long>(hr));
  ExitProcess(1);
}

template <class I>
static ComPtr<I> Create(REFCLSID class_id, const char* name) {
  ComPtr<I> object;
  Check(CoCreateInstance(class_id, nullptr, CLSCTX_INPROC_SERVER, __uuidof(I),
                         reinterpret_cast<void**>(object.GetAddressOf())),
        name);
  return object;
}

template <class I>
static ComPtr<I> Query(IUnknown* object) {
  ComPtr<I> result;
  Check(object->QueryInterface(__uuidof(I), reinterpret_cast<void**>(result.GetAddressOf())),
        "asking for an interface");
  return result;
}

// Imports and exports are tasks on threads of their own.
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
  BSTR from = SysAllocString(in);
  BSTR to = SysAllocString(out);

  const auto pool = Create<IAudioPool>(CLSID_CAudioPool, "CAudioPool");
  const auto import = Create<IImportFilter>(CLSID_COggImport, "COggImport");
  Check(import->Initialize(from, Query<IAudioWriter>(pool.Get()).Get()), "opening the input");
  RunTask(import.Get());
  ComPtr<IAudioReader> take;
  Check(pool->CreateLastReader(take.GetAddressOf()), "CreateLastReader");
  if (!take) Check(E_FAIL, "decoding the input");
  LONG rate = 0;
  SHORT channels = 0;
  __int64 frames = 0;
  Check(take->GetFormat(&rate, &channels), "GetFormat");
  Check(take->GetSampleCount(&frames), "GetSampleCount");

  const auto document = Create<IEditedAudio>(CLSID_CEditedAudio, "CEditedAudio");
  Check(document->SetFormat(rate, channels, 16), "SetFormat");
  Check(document->AppendSegment(take.Get(), 0, frames), "AppendSegment");
  Check(document->Delete(frames / 2, frames), "Delete");

  // A minimum and a maximum for every column and channel, as floats, whatever the declaration says.
  constexpr ULONG kColumns = 64;
  SAFEARRAY* plot = SafeArrayCreateVector(VT_R4, 0, kColumns * 2 * static_cast<ULONG>(channels));
  Check(document->ReadWaveplot(0, frames / 2, plot), "ReadWaveplot");
  const auto* peaks = static_cast<const float*>(plot->pvData);
  std::string overview;
  for (ULONG column = 0; column < kColumns; ++column) {
    const float height = peaks[column * 2 * static_cast<ULONG>(channels) + 1];
    overview += " .:-=+*#%@"[static_cast<int>(9.0F * (height < 0.0F   ? 0.0F
                                                      : height > 1.0F ? 1.0F
                                                                      : height))];
  }
  SafeArrayDestroy(plot);
  std::printf("[%s]\n", overview.c_str());

  const auto wav = Create<IExportFilter>(CLSID_CWavExportFilter, "CWavExportFilter");
  Check(wav->Initialize(to, Query<IAudioReader>(document.Get()).Get()), "creating the output");
  RunTask(wav.Get());
  std::printf("%lld of %lld frames written\n", static_cast<long long>(frames / 2),
              static_cast<long long>(frames));
  SysFreeString(from);
  SysFreeString(to);
}

int main() {
  int count = 0;
  wchar_t** words = CommandLineToArgvW(GetCommandLineW(), &count);
  if (count != 3) {
    std::fprintf(stderr, "usage: first_steps IN.ogg OUT.wav\n");
    return 2;
  }
  Check(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED), "CoInitializeEx");
  CutInHalf(words[1], words[2]);  // every object is released before the apartment goes
  CoUninitialize();
  LocalFree(words);
  return 0;
}
