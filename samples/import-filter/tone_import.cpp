// An import filter of one's own, in its own module: descriptions of tones become audio.
//   tone 44100        the first line: this word and the frames per second
//   440 0.5           then one line a tone: frequency in hertz (0 is a pause) and seconds
// docs/adding-a-filter.md goes through it. "regsvr32 tone_import.dll" registers and lists it.
#include <windows.h>
// After windows.h.
#include <marlinda.h>
#include <olectl.h>

#include <atomic>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <new>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

constexpr CLSID kToneImport = {
    0x6F4D0B52, 0x93B7, 0x4E0D, {0x8A, 0x5C, 0x0D, 0x6E, 0x52, 0xB1, 0xF7, 0x39}};
constexpr wchar_t kClassKey[] = L"Software\\Classes\\CLSID\\{6F4D0B52-93B7-4E0D-8A5C-0D6E52B1F739}";
constexpr wchar_t kClassText[] = L"{6F4D0B52-93B7-4E0D-8A5C-0D6E52B1F739}";
// Where the filter manager looks. The name of the value is free, its text is the class.
constexpr wchar_t kFilterList[] = L"Software\\Brevant\\Cutloom\\Import Filters";
constexpr wchar_t kListedAs[] = L"CToneImport";
constexpr GUID kTypeLibrary = {
    0xF70A5B7A, 0x7291, 0x4204, {0x93, 0xE6, 0xE7, 0x5F, 0xDA, 0xEF, 0x39, 0xFC}};

// The higher merit wins where several filters accept a file. The engine's own have 100 and 200.
constexpr SHORT kMerit = 150;
constexpr ULONG kFramesInBlock = 16384;

HINSTANCE g_module = nullptr;
// Objects and running workers: while there are any, the module must stay in memory.
std::atomic<long> g_in_use = 0;

struct Tone {
  double frequency;
  __int64 frames;
};

struct Description {
  LONG samples_per_sec = 0;
  __int64 frames = 0;
  std::vector<Tone> tones;
};

// S_OK, S_FALSE when the file cannot be opened, E_FAIL when it describes no tones.
HRESULT Read(const wchar_t* name, Description& description) {
  std::ifstream file{std::filesystem::path(name)};
  if (!file) return S_FALSE;
  std::string word;
  if (!(file >> word >> description.samples_per_sec) || word != "tone") return E_FAIL;
  if (description.samples_per_sec < 1000 || description.samples_per_sec > 768000) return E_FAIL;
  double frequency = 0.0;
  double seconds = 0.0;
  while (file >> frequency >> seconds) {
    if (!(frequency >= 0.0 && frequency <= description.samples_per_sec / 2.0)) return E_FAIL;
    if (!(seconds > 0.0 && seconds <= 86400.0)) return E_FAIL;
    const Tone tone = {frequency, std::llround(seconds * description.samples_per_sec)};
    description.tones.push_back(tone);
    description.frames += tone.frames;
  }
  // What stopped the reading must be the end.
  return file.eof() && description.frames > 0 ? S_OK : E_FAIL;
}

// What the worker needs. It holds this and never the filter: that may go first.
struct Job {
  Job() { ++g_in_use; }
  Job(const Job&) = delete;
  Job& operator=(const Job&) = delete;
  ~Job() {
    if (writer != nullptr) writer->Release();
    --g_in_use;
  }

  Description description;
  IAudioWriter* writer = nullptr;
  std::atomic<__int64> position = 0;
  std::atomic<bool> cancelled = false;
  std::atomic<bool> running = false;

  void Run();
  bool Write(const Tone& tone);
};

// False when the writer takes no more or the task was cancelled.
bool Job::Write(const Tone& tone) {
  constexpr double kTurn = 2.0 * 3.14159265358979323846;
  for (__int64 frame = 0; frame < tone.frames;) {
    const auto count = static_cast<ULONG>(tone.frames - frame < kFramesInBlock ? tone.frames - frame
                                                                               : kFramesInBlock);
    if (cancelled) return false;
    SAFEARRAY* block = SafeArrayCreateVector(VT_R4, 0, count);
    if (block == nullptr) return false;
    auto* samples = static_cast<float*>(block->pvData);
    for (ULONG index = 0; index < count; ++index) {
      const auto time = static_cast<double>(frame + index) / description.samples_per_sec;
      samples[index] = static_cast<float>(0.5 * std::sin(kTurn * tone.frequency * time));
    }
    const HRESULT hr = writer->WriteAudio(block);
    SafeArrayDestroy(block);
    if (FAILED(hr)) return false;
    frame += count;
    position += count;
  }
  return true;
}

void Job::Run() {
  writer->SetFormat(description.samples_per_sec, 1);
  if (SUCCEEDED(writer->OpenDevice())) {
    try {
      for (const Tone& tone : description.tones) {
        if (!Write(tone)) break;
      }
    } catch (...) {  // a foreign writer's; the device is closed nevertheless
    }
    writer->CloseDevice();
  }
  // Released before the task counts as ended.
  std::exchange(writer, nullptr)->Release();
  running = false;
}

// IDispatch of a dual interface, from the engine's type library: scripts come this way.
template <class I>
class Dual : public I {
 public:
  STDMETHODIMP GetTypeInfoCount(UINT* count) override {
    if (count == nullptr) return E_POINTER;
    *count = 1;
    return S_OK;
  }
  STDMETHODIMP GetTypeInfo(UINT index, LCID locale, ITypeInfo** info) override {
    if (info == nullptr) return E_POINTER;
    *info = nullptr;
    if (index != 0) return DISP_E_BADINDEX;
    ITypeLib* library = nullptr;
    HRESULT hr = LoadRegTypeLib(kTypeLibrary, 1, 0, locale, &library);
    if (FAILED(hr)) return hr;
    hr = library->GetTypeInfoOfGuid(__uuidof(I), info);
    library->Release();
    return hr;
  }
  STDMETHODIMP GetIDsOfNames(REFIID, LPOLESTR* names, UINT count, LCID locale,
                             DISPID* ids) override {
    ITypeInfo* info = nullptr;
    HRESULT hr = GetTypeInfo(0, locale, &info);
    if (FAILED(hr)) return hr;
    hr = DispGetIDsOfNames(info, names, count, ids);
    info->Release();
    return hr;
  }
  STDMETHODIMP Invoke(DISPID member, REFIID, LCID locale, WORD flags, DISPPARAMS* params,
                      VARIANT* result, EXCEPINFO* exception, UINT* argument) override {
    ITypeInfo* info = nullptr;
    HRESULT hr = GetTypeInfo(0, locale, &info);
    if (FAILED(hr)) return hr;
    hr =
        DispInvoke(static_cast<I*>(this), info, member, flags, params, result, exception, argument);
    info->Release();
    return hr;
  }
};

// One object serves one import. IImportFilter comes first: it is what scripts are handed.
class ToneImport final : public Dual<IImportFilter>,
                         public Dual<IExFormatInfo>,
                         public Dual<ICoreTask> {
 public:
  ToneImport() : job_(std::make_shared<Job>()) { ++g_in_use; }
  ToneImport(const ToneImport&) = delete;
  ToneImport& operator=(const ToneImport&) = delete;
  ~ToneImport() {
    Stop();
    --g_in_use;
  }

  // IUnknown
  STDMETHODIMP QueryInterface(REFIID iid, void** object) override {
    if (object == nullptr) return E_POINTER;
    *object = nullptr;
    if (iid == IID_IUnknown || iid == IID_IDispatch || iid == IID_IImportFilter) {
      *object = static_cast<IImportFilter*>(this);
    } else if (iid == IID_IExFormatInfo) {
      *object = static_cast<IExFormatInfo*>(this);
    } else if (iid == IID_ICoreTask) {
      *object = static_cast<ICoreTask*>(this);
    } else {
      return E_NOINTERFACE;
    }
    AddRef();
    return S_OK;
  }
  STDMETHODIMP_(ULONG) AddRef() override { return static_cast<ULONG>(++references_); }
  STDMETHODIMP_(ULONG) Release() override {
    const long left = --references_;
    if (left == 0) delete this;
    return static_cast<ULONG>(left);
  }

  // IImportFilter
  STDMETHODIMP QueryCanLoad(BSTR bstrFileName) override {
    try {
      Description description;
      return bstrFileName == nullptr ? S_FALSE : Read(bstrFileName, description);
    } catch (const std::exception&) {
      return E_FAIL;
    }
  }
  STDMETHODIMP Initialize(BSTR bstrFileName, IAudioWriter* pWriter) override {
    if (bstrFileName == nullptr || pWriter == nullptr || thread_.joinable()) return E_FAIL;
    try {
      auto job = std::make_shared<Job>();
      if (Read(bstrFileName, job->description) != S_OK) return E_FAIL;
      pWriter->AddRef();
      job->writer = pWriter;
      name_ = bstrFileName;
      job_ = std::move(job);
      return S_OK;
    } catch (const std::exception&) {
      return E_FAIL;
    }
  }
  STDMETHODIMP GetFilterStrings(BSTR* pbstrFilterString, BSTR* pbstrExtensions) override {
    if (pbstrFilterString == nullptr || pbstrExtensions == nullptr) return E_POINTER;
    *pbstrFilterString = SysAllocString(L"Tone Descriptions (*.tone)|*.tone|");
    *pbstrExtensions = SysAllocString(L"*.tone");
    return S_OK;
  }
  STDMETHODIMP GetSourceSampleCount(__int64* pnSampleCount) override {
    return Give(pnSampleCount, job_->description.frames);
  }
  STDMETHODIMP GetMerit(SHORT* pnMerit) override { return Give(pnMerit, kMerit); }

  // IExFormatInfo
  STDMETHODIMP GetFormat(LONG* pnSamplesPerSec, SHORT* pnChannels) override {
    if (pnSamplesPerSec == nullptr || pnChannels == nullptr) return E_POINTER;
    *pnSamplesPerSec = job_->description.samples_per_sec;
    *pnChannels = 1;
    return S_OK;
  }
  STDMETHODIMP GetBitsPerSample(SHORT* pnBitsPerSample) override {
    return Give(pnBitsPerSample, static_cast<SHORT>(32));
  }
  STDMETHODIMP GetAvgBytesPerSec(LONG* pnAvgBytesPerSec) override {
    return Give(pnAvgBytesPerSec, job_->description.samples_per_sec * 4);
  }

  // ICoreTask
  STDMETHODIMP Start() override {
    if (job_->writer == nullptr || thread_.joinable()) return E_FAIL;
    job_->running = true;
    try {
      thread_ = std::thread([job = job_] { job->Run(); });
      return S_OK;
    } catch (const std::exception&) {
      job_->running = false;
      return E_FAIL;
    }
  }
  STDMETHODIMP Cancel() override {
    Stop();
    return S_OK;
  }
  STDMETHODIMP QueryIsTaskRunning(VARIANT_BOOL* pbRunning) override {
    return Give(pbRunning, job_->running ? VARIANT_TRUE : VARIANT_FALSE);
  }
  STDMETHODIMP GetProgress(float* pfProgress) override {
    if (pfProgress == nullptr) return E_POINTER;
    if (job_->description.frames == 0) return E_FAIL;
    *pfProgress = static_cast<float>(static_cast<double>(job_->position) /
                                     static_cast<double>(job_->description.frames));
    return S_OK;
  }
  STDMETHODIMP GetName(BSTR* pbstrName) override {
    if (pbstrName == nullptr) return E_POINTER;
    *pbstrName = SysAllocString((L"Loading " + name_).c_str());
    return S_OK;
  }

 private:
  template <class T>
  static HRESULT Give(T* to, T value) {
    if (to == nullptr) return E_POINTER;
    *to = value;
    return S_OK;
  }

  // A writer that the worker releases may hold the filter: then this runs on the worker itself,
  // which must not wait for its own end.
  void Stop() {
    job_->cancelled = true;
    if (!thread_.joinable()) return;
    if (thread_.get_id() == std::this_thread::get_id()) {
      thread_.detach();
    } else {
      thread_.join();
    }
  }

  std::atomic<long> references_ = 0;
  std::shared_ptr<Job> job_;
  std::thread thread_;
  std::wstring name_;
};

// Never deleted; it needs no count of its own.
class Factory final : public IClassFactory {
 public:
  STDMETHODIMP QueryInterface(REFIID iid, void** object) override {
    if (object == nullptr) return E_POINTER;
    *object = iid == IID_IUnknown || iid == IID_IClassFactory ? this : nullptr;
    return *object != nullptr ? S_OK : E_NOINTERFACE;
  }
  STDMETHODIMP_(ULONG) AddRef() override { return 2; }
  STDMETHODIMP_(ULONG) Release() override { return 1; }
  STDMETHODIMP CreateInstance(IUnknown* outer, REFIID iid, void** object) override {
    if (object == nullptr) return E_POINTER;
    *object = nullptr;
    if (outer != nullptr) return CLASS_E_NOAGGREGATION;
    try {
      auto* filter = new ToneImport;
      filter->AddRef();
      const HRESULT hr = filter->QueryInterface(iid, object);
      filter->Release();
      return hr;
    } catch (const std::bad_alloc&) {
      return E_OUTOFMEMORY;
    }
  }
  STDMETHODIMP LockServer(BOOL lock) override {
    g_in_use += lock != FALSE ? 1 : -1;
    return S_OK;
  }
};

bool SetText(const wchar_t* key, const wchar_t* name, const wchar_t* text) {
  return RegSetKeyValueW(HKEY_LOCAL_MACHINE, key, name, REG_SZ, text,
                         static_cast<DWORD>((std::wcslen(text) + 1) * sizeof(wchar_t))) ==
         ERROR_SUCCESS;
}

}  // namespace

BOOL WINAPI DllMain(HINSTANCE module, DWORD reason, void*) {
  if (reason == DLL_PROCESS_ATTACH) g_module = module;
  return TRUE;
}

STDAPI DllGetClassObject(REFCLSID clsid, REFIID iid, void** factory) {
  static Factory the_factory;
  if (clsid != kToneImport) return CLASS_E_CLASSNOTAVAILABLE;
  return the_factory.QueryInterface(iid, factory);
}

STDAPI DllCanUnloadNow() { return g_in_use == 0 ? S_OK : S_FALSE; }

STDAPI DllRegisterServer() {
  wchar_t path[MAX_PATH] = {};
  const DWORD length = GetModuleFileNameW(g_module, path, MAX_PATH);
  if (length == 0 || length == MAX_PATH) return E_FAIL;
  const std::wstring server = std::wstring(kClassKey) + L"\\InprocServer32";
  const bool done = SetText(kClassKey, nullptr, L"CToneImport Object") &&
                    SetText(server.c_str(), nullptr, path) &&
                    // The engine calls it from the thread that created it.
                    SetText(server.c_str(), L"ThreadingModel", L"Both") &&
                    SetText(kFilterList, kListedAs, kClassText);
  return done ? S_OK : SELFREG_E_CLASS;
}

STDAPI DllUnregisterServer() {
  // What is not there need not be removed.
  RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, kFilterList, kListedAs);
  const LSTATUS status = RegDeleteTreeW(HKEY_LOCAL_MACHINE, kClassKey);
  return status == ERROR_SUCCESS || status == ERROR_FILE_NOT_FOUND ? S_OK : SELFREG_E_CLASS;
}
