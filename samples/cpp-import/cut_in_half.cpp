// Uses the engine through Visual C++'s #import, which makes wrapper classes from the type library:
//   cl /EHsc /std:c++17 /I FOLDER\include cut_in_half.cpp
//   cut_in_half IN.ogg OUT.wav
// Needs the registered engine. The tests do not compile this file, because they have no Visual C++.
#import "marlinda.tlb" no_namespace named_guids

#include <cstdio>

static void RunTask(IUnknown* filter) {
  const ICoreTaskPtr task = filter;
  task->Start();
  while (task->QueryIsTaskRunning() != VARIANT_FALSE) Sleep(10);
}

// A method that fails throws _com_error.
static void CutInHalf(const wchar_t* in, const wchar_t* out) {
  const IAudioPoolPtr pool(CLSID_CAudioPool);
  const IImportFilterPtr filter(CLSID_COggImport);
  filter->Initialize(in, IAudioWriterPtr(pool));
  RunTask(filter);
  const IAudioReaderPtr take = pool->CreateLastReader();
  if (take == nullptr) _com_raise_error(E_FAIL);  // S_FALSE: nothing was decoded
  long rate = 0;
  short channels = 0;
  take->GetFormat(&rate, &channels);
  const __int64 frames = take->GetSampleCount();

  const IEditedAudioPtr document(CLSID_CEditedAudio);
  document->AppendSegment(take, 0, frames);
  document->Delete(frames / 2, frames);

  // Minimum and maximum of each column and channel. They are floats, although the type library
  // declares an array of 16-bit integers.
  const ULONG columns = 64;
  SAFEARRAY* plot = SafeArrayCreateVector(VT_R4, 0, columns * 2 * channels);
  if (plot == nullptr) _com_raise_error(E_OUTOFMEMORY);
  document->ReadWaveplot(0, frames / 2, plot);
  const float* peaks = static_cast<const float*>(plot->pvData);
  for (ULONG column = 0; column < columns; ++column) {
    std::putchar(peaks[column * 2 * channels + 1] > 0.5F ? '#' : '.');
  }
  std::putchar('\n');
  SafeArrayDestroy(plot);

  const IExportFilterPtr wav(CLSID_CWavExportFilter);
  wav->Initialize(out, IAudioReaderPtr(document));
  RunTask(wav);
  std::printf("%lld of %lld frames written\n", frames / 2, frames);
}

int wmain(int count, wchar_t** words) {
  if (count != 3) return 2;
  if (FAILED(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED))) return 1;
  int status = 0;
  try {
    CutInHalf(words[1], words[2]);
  } catch (const _com_error& error) {
    std::fprintf(stderr, "failed with 0x%08lX\n", static_cast<unsigned long>(error.Error()));
    status = 1;
  }
  CoUninitialize();
  return status;
}
