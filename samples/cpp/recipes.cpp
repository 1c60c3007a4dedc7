// The code of docs/recipes.md as one program. Each recipe must be identical to the page's code.
//   recipes IN OUT_FOLDER
#include "client.h"
// The headers below need windows.h first.
#include <ocidl.h>
#include <shellapi.h>

#include <atomic>
#include <functional>
#include <memory>
#include <utility>
#include <vector>

// Recipe: wait for a task
// Imports and exports run on their own threads. Polls `task` until it has ended.
template <class Show>
void WaitFor(ICoreTask* task, Show show) {
  VARIANT_BOOL running = VARIANT_TRUE;
  while (running != VARIANT_FALSE) {
    Sleep(20);  // in a program with windows, use a timer
    float done = 0.0F;
    if (task->GetProgress(&done) == S_OK) show(done);  // fails while the length is 0 or unknown
    Check(task->QueryIsTaskRunning(&running), "QueryIsTaskRunning");
  }
}
// End

static void ShowPercent(float done) { std::printf("\r%3.0f %%", 100.0 * done); }

// Recipe: import
// Returns the file's take, or null if no filter reads the file or nothing could be decoded.
ComPtr<IAudioReader> Import(const Text& file) {
  // For a missing file, the manager returns no filter and no reason, so check for the file first.
  if (GetFileAttributesW(file) == INVALID_FILE_ATTRIBUTES) {
    Check(HRESULT_FROM_WIN32(GetLastError()), "finding the file", file);
  }
  const auto manager = Create<IFileFilterMgr>(CLSID_CFileFilterMgr);
  ComPtr<IImportFilter> filter;
  // The manager returns S_OK even if no filter reads the file, so test the pointer.
  Check(manager->CreateImportFilter(file, filter.GetAddressOf()), "CreateImportFilter");
  if (!filter) {  // the manager tries only listed filters; the built-in ones may be unlisted
    for (const CLSID* each : {&CLSID_COggImport, &CLSID_CDShowImport}) {
      const auto built_in = Create<IImportFilter>(*each);
      if (!filter && built_in->QueryCanLoad(file) == S_OK) filter = built_in;
    }
  }
  if (!filter) return nullptr;

  const auto pool = Create<IAudioPool>(CLSID_CAudioPool);
  Check(filter->Initialize(file, Query<IAudioWriter>(pool.Get()).Get()), "opening the file", file);
  const auto task = Query<ICoreTask>(filter.Get());
  Check(task->Start(), "Start");
  WaitFor(task.Get(), ShowPercent);  // task->Cancel() ends the import early; decoded audio stays

  ComPtr<IAudioReader> take;  // holds the pool and its files
  Check(pool->CreateLastReader(take.GetAddressOf()), "CreateLastReader");
  return take;
}
// End

// Recipe: make a document
ComPtr<IEditedAudio> DocumentOf(IAudioReader* take) {
  const auto document = Create<IEditedAudio>(CLSID_CEditedAudio);
  __int64 frames = 0;
  Check(take->GetSampleCount(&frames), "GetSampleCount");
  Check(document->AppendSegment(take, 0, frames), "AppendSegment");  // copies no samples
  return document;
}
// End

// Recipe: insert a pause
void InsertPause(IEditedAudio* document, __int64 position, double seconds) {
  LONG rate = 0;
  SHORT channels = 0;
  Check(Query<IAudioReader>(document)->GetFormat(&rate, &channels), "GetFormat");
  const auto frames = static_cast<__int64>(seconds * rate + 0.5);
  // A null reader means silence. Labels at and after `position` move.
  Check(document->InsertSegment(position, nullptr, 0, frames), "InsertSegment");
}
// End

// Recipe: label a take
void Label(IUnknown* document, __int64 position, const Text& name) {
  Check(Query<ILabelSupport>(document)->AddLabel(position, name), "AddLabel");
}

void Mark(IUnknown* document, __int64 begin, __int64 end, const Text& name) {
  Check(Query<ISectionMarkerSupport>(document)->AddSectionMarker(begin, end, name),
        "AddSectionMarker");
}
// End

// Recipe: draw a waveform
struct Column {
  float lowest;
  float highest;
};

// Divides the frames from `begin` to `end` into columns. Returns the extremes of one channel.
std::vector<Column> Waveform(IEditedAudio* document, __int64 begin, __int64 end, ULONG columns,
                             ULONG channel) {
  LONG rate = 0;
  SHORT channels = 0;
  Check(Query<IAudioReader>(document)->GetFormat(&rate, &channels), "GetFormat");
  const ULONG step = 2 * static_cast<ULONG>(channels);
  // The array holds floats, although it is declared as short. Columns that cannot be read stay 0.
  const Floats peaks(columns * step);
  Check(document->ReadWaveplot(begin, end, peaks), "ReadWaveplot");
  std::vector<Column> result;
  for (ULONG column = 0; column < columns; ++column) {
    const ULONG at = column * step + 2 * channel;
    result.push_back({peaks[at], peaks[at + 1]});
  }
  return result;
}
// End

// Recipe: play a loop
// Repeats the section until `ends` returns true. Returns false if the device cannot be used.
template <class Ends>
bool PlayLoop(IEditedAudio* document, __int64 begin, __int64 end, Ends ends) {
  constexpr ULONG kAllChannels = 0xFFFFFFFF;
  Check(document->SetPlaybackDevice(-1), "SetPlaybackDevice");  // the system's default
  Check(document->Play(begin, end, kAllChannels, VARIANT_TRUE), "Play");
  for (;;) {
    VARIANT_BOOL playing = VARIANT_FALSE;
    __int64 position = 0;
    Check(document->GetPlayStatus(&playing, &position), "GetPlayStatus");
    // Play succeeds even without a device, but playback then ends at once.
    if (playing == VARIANT_FALSE) return false;
    if (ends(position)) break;
    Sleep(20);
  }
  Check(document->StopPlay(), "StopPlay");
  return true;
}
// End

// Recipe: record
// Records into a pool. Returns null if there is no microphone.
ComPtr<IAudioReader> Record(double seconds) {
  constexpr LONG kRate = 44100;
  constexpr SHORT kChannels = 1;
  const auto grabber = Create<IAudioGrabber>(CLSID_CAudioGrabber);
  Check(grabber->SetDevice(-1), "SetDevice");  // the system's default
  Check(grabber->SetFormat(kRate, kChannels, 16), "SetFormat");
  const auto microphone = Query<IAudioReader>(grabber.Get());
  const auto pool = Create<IAudioPool>(CLSID_CAudioPool);
  const auto writer = Query<IAudioWriter>(pool.Get());
  Check(writer->SetFormat(kRate, kChannels), "SetFormat of the pool");
  if (FAILED(microphone->OpenDevice())) return nullptr;
  Check(writer->OpenDevice(), "OpenDevice of the pool");

  const Floats block(kRate / 10 * kChannels);
  for (auto left = static_cast<long>(10.0 * seconds); left > 0; --left) {
    // ReadAudio waits until a tenth of a second is recorded. A recorder ignores the position.
    if (FAILED(microphone->ReadAudio(0, block))) break;  // the device failed
    Check(writer->WriteAudio(block), "WriteAudio");
  }
  Check(microphone->CloseDevice(), "CloseDevice");
  Check(writer->CloseDevice(), "CloseDevice of the pool");  // S_FALSE: nothing was recorded
  ComPtr<IAudioReader> take;
  Check(pool->CreateLastReader(take.GetAddressOf()), "CreateLastReader");
  return take;
}
// End

// Recipe: export with markers
void Export(IEditedAudio* document, const Text& file) {
  const auto filter = Create<IExportFilter>(CLSID_CWavExportFilter);
  Check(filter->Initialize(file, Query<IAudioReader>(document).Get()), "creating the file", file);
  Check(filter->SetBitsPerSample(24), "SetBitsPerSample");

  // The export reads only samples from the document. Pass labels and markers to the export.
  const auto labels = Query<ILabelSupport>(document);
  LONG count = 0;
  Check(labels->GetLabelCount(&count), "GetLabelCount");
  for (LONG index = 0; index < count; ++index) {
    __int64 position = 0;
    BSTR name = nullptr;
    Check(labels->GetLabel(index, &position, &name), "GetLabel");
    Check(Query<ILabelSupport>(filter.Get())->AddLabel(position, name), "AddLabel");
    SysFreeString(name);
  }
  const auto markers = Query<ISectionMarkerSupport>(document);
  Check(markers->GetMarkerCount(&count), "GetMarkerCount");
  for (LONG index = 0; index < count; ++index) {
    __int64 begin = 0;
    __int64 end = 0;
    BSTR name = nullptr;
    Check(markers->GetSectionMarker(index, &begin, &end, &name), "GetSectionMarker");
    Check(Query<ISectionMarkerSupport>(filter.Get())->AddSectionMarker(begin, end, name),
          "AddSectionMarker");
    SysFreeString(name);
  }
  Check(Query<IMetaDataWriter>(filter.Get())
            ->SetMetaData(Text(L"Title"), Text(L"Artist"), Text(L"Album"), Text(L"2024"),
                          Text(L"Genre")),
        "SetMetaData");

  const auto task = Query<ICoreTask>(filter.Get());
  Check(task->Start(), "Start");
  WaitFor(task.Get(), ShowPercent);
  // The export does not report a full disk. Check that the file has the expected length.
}
// End

// Recipe: convert the rate
// Writes `source` as WAV with another rate and channel count, without a temporary copy.
void Convert(IAudioReader* source, const Text& file, LONG rate, SHORT channels) {
  const auto connector = Create<IAudioConnector>(CLSID_CAudioConnector);
  const auto filter = Create<IExportFilter>(CLSID_CWavExportFilter);
  Check(connector->SetupReaderToExport(source, filter.Get(), rate, channels),
        "SetupReaderToExport");
  // The export reads from the connector. The connector reads the source and converts its audio.
  Check(filter->Initialize(file, Query<IAudioReader>(connector.Get()).Get()), "creating the file",
        file);
  const auto task = Query<ICoreTask>(connector.Get());
  const HRESULT started = task->Start();
  if (started != E_NOTIMPL) Check(started, "Start");  // the connector returns E_NOTIMPL on success
  WaitFor(task.Get(), ShowPercent);
  // Not needed here. A host that stops polling before the end must cancel, because connector and
  // filter hold references to each other.
  task->Cancel();
}
// End

// Recipe: undo
// Passes the events of one event interface of a document to a function.
class Sink final : public IDispatch {
 public:
  using Handler = std::function<void(DISPID event, const DISPPARAMS& params)>;
  Sink(REFIID events, Handler handler) : events_(events), handler_(std::move(handler)) {}
  STDMETHODIMP QueryInterface(REFIID iid, void** object) override {
    const bool known = iid == IID_IUnknown || iid == IID_IDispatch || iid == events_;
    *object = known ? this : nullptr;
    if (known) AddRef();
    return known ? S_OK : E_NOINTERFACE;
  }
  STDMETHODIMP_(ULONG) AddRef() override { return ++references_; }
  STDMETHODIMP_(ULONG) Release() override {
    const ULONG left = --references_;
    if (left == 0) delete this;
    return left;
  }
  STDMETHODIMP GetTypeInfoCount(UINT* count) override {
    *count = 0;
    return S_OK;
  }
  STDMETHODIMP GetTypeInfo(UINT, LCID, ITypeInfo**) override { return E_NOTIMPL; }
  STDMETHODIMP GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*) override { return E_NOTIMPL; }
  STDMETHODIMP Invoke(DISPID event, REFIID, LCID, WORD, DISPPARAMS* params, VARIANT*, EXCEPINFO*,
                      UINT*) override {
    handler_(event, *params);
    return S_OK;
  }

 private:
  const IID events_;
  const Handler handler_;
  std::atomic<ULONG> references_ = 0;
};

// Receives events while it exists. Meanwhile, it holds a reference to the document, and the
// document holds a reference to the sink.
class Listener {
 public:
  Listener(IEditedAudio* document, REFIID events, Sink::Handler handler) {
    const ComPtr<Sink> sink(new Sink(events, std::move(handler)));
    Check(Query<IConnectionPointContainer>(document)->FindConnectionPoint(events,
                                                                          point_.GetAddressOf()),
          "FindConnectionPoint");
    Check(point_->Advise(sink.Get(), &cookie_), "Advise");
  }
  ~Listener() { point_->Unadvise(cookie_); }
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

 private:
  ComPtr<IConnectionPoint> point_;
  DWORD cookie_ = 0;
};

// Stores a copy of the document before each change. The copies share the samples.
class UndoSteps {
 public:
  explicit UndoSteps(IEditedAudio* document)
      : listener_(document, DIID__IEAUndoEvents, [this](DISPID event, const DISPPARAMS& params) {
          if (event == 1 && params.cArgs == 2) Store(params);  // FireStoreUndo
        }) {}

  // Undoes the last change and returns its name. CopyAll sends no event, but CommitChange sends
  // FireContentChanged. With argument 0, InitChange causes no further undo step.
  std::wstring Undo(IEditedAudio* document) {
    if (steps_.empty()) return L"";
    const Step last = std::move(steps_.back());
    steps_.pop_back();
    Check(document->InitChange(0, Text(last.name)), "InitChange");
    Check(last.before->CopyAll(document), "CopyAll");
    Check(document->CommitChange(), "CommitChange");
    return last.name;
  }

 private:
  struct Step {
    std::wstring name;
    ComPtr<IEditedAudio> before;
  };

  void Store(const DISPPARAMS& params) {
    // Arguments are in reverse order: the document, then the operation's name.
    const auto document = Query<IEditedAudio>(V_UNKNOWN(&params.rgvarg[0]));
    const auto copy = Create<IEditedAudio>(CLSID_CEditedAudio);
    Check(document->CopyAll(copy.Get()), "CopyAll");
    steps_.push_back({V_BSTR(&params.rgvarg[1]), copy});
  }

  std::vector<Step> steps_;
  Listener listener_;
};

void Shorten(IEditedAudio* document, __int64 begin, __int64 end) {
  Check(document->InitChange(1, Text(L"Shorten")), "InitChange");  // UndoSteps stores a copy
  Check(document->Delete(begin, end), "Delete");
  Check(document->CommitChange(), "CommitChange");
}

// Calls `draw` after each change and each undo.
template <class Draw>
auto DrawAgain(IEditedAudio* document, Draw draw) {
  return std::make_unique<Listener>(document, DIID__IEAUpdateEvents,
                                    [draw](DISPID event, const DISPPARAMS&) {
                                      if (event == 3) draw();  // FireContentChanged
                                    });
}
// End

static long long FramesOf(IUnknown* document) {
  __int64 frames = 0;
  Check(Query<IAudioReader>(document)->GetSampleCount(&frames), "GetSampleCount");
  return frames;
}

static void CookAll(const std::wstring& in, const std::wstring& folder) {
  if (Import(Text(folder))) std::printf("a folder was imported\n");
  const auto take = Import(Text(in));
  if (!take) Check(E_FAIL, "decoding the input");
  const auto document = DocumentOf(take.Get());
  std::printf("\nimported: %lld frames\n", FramesOf(document.Get()));

  Label(document.Get(), 100, Text(L"Before"));
  Label(document.Get(), 30000, Text(L"After"));
  Mark(document.Get(), 22000, 23000, Text(L"Around"));
  InsertPause(document.Get(), 22050, 0.5);
  std::printf("with a pause: %lld frames\n", FramesOf(document.Get()));

  std::string overview;
  for (const Column& column : Waveform(document.Get(), 0, FramesOf(document.Get()), 24, 0)) {
    overview += column.highest - column.lowest > 0.25F ? '#' : '.';
  }
  std::printf("waveform: %s\n", overview.c_str());

  Export(document.Get(), Text(folder + L"\\marked.wav"));
  Convert(Query<IAudioReader>(document.Get()).Get(), Text(folder + L"\\converted.wav"), 48000, 2);

  int drawn = 0;
  const auto view = DrawAgain(document.Get(), [&] { ++drawn; });
  UndoSteps steps(document.Get());
  Shorten(document.Get(), 0, 1000);
  std::printf("\nshortened: %lld frames\n", FramesOf(document.Get()));
  const std::wstring name = steps.Undo(document.Get());
  std::printf("taken back: %ls, %lld frames\n", name.c_str(), FramesOf(document.Get()));
  const bool more = !steps.Undo(document.Get()).empty();
  std::printf("drawn again: %d times%s\n", drawn, more ? ", and a step is left" : "");

  int asked = 0;
  const bool played = PlayLoop(document.Get(), 0, 22050, [&](__int64) { return ++asked == 10; });
  std::printf("loop: %s\n", played ? "played" : "no device");
  const auto recording = Record(0.2);
  std::printf("recording: %s\n", recording ? "made" : "no device");
}

int main() {
  int count = 0;
  wchar_t** words = CommandLineToArgvW(GetCommandLineW(), &count);
  if (count != 3) {
    std::fprintf(stderr, "usage: recipes IN OUT_FOLDER\n");
    return 2;
  }
  Check(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED), "CoInitializeEx");
  CookAll(words[1], words[2]);
  CoUninitialize();
  LocalFree(words);
  return 0;
}
