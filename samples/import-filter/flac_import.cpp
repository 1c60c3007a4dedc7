// A separate module with an import filter that decodes FLAC files with libFLAC. "regsvr32
// FlacImport.dll" registers the class and adds it to the list of import filters.
// docs/adding-a-filter.md explains the steps.
#include <windows.h>
// The headers below need windows.h first.
#include <FLAC/stream_decoder.h>
#include <marlinda.h>
#include <olectl.h>
#include <share.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <thread>
#include <utility>

namespace {

constexpr CLSID kFlacImport = {
    0x6F4D0B52, 0x93B7, 0x4E0D, {0x8A, 0x5C, 0x0D, 0x6E, 0x52, 0xB1, 0xF7, 0x39}};
constexpr wchar_t kClassKey[] = L"Software\\Classes\\CLSID\\{6F4D0B52-93B7-4E0D-8A5C-0D6E52B1F739}";
constexpr wchar_t kClassText[] = L"{6F4D0B52-93B7-4E0D-8A5C-0D6E52B1F739}";
// The registry key that lists import filters. Each value holds a class identifier, under any name.
constexpr wchar_t kFilterList[] = L"Software\\Brevant\\Cutloom\\Import Filters";
constexpr wchar_t kListedAs[] = L"CFlacImport";
constexpr GUID kTypeLibrary = {
    0xF70A5B7A, 0x7291, 0x4204, {0x93, 0xE6, 0xE7, 0x5F, 0xDA, 0xEF, 0x39, 0xFC}};

// If several filters accept a file, the highest merit wins. Built-in filters have the merits 100
// and 200.
constexpr SHORT kMerit = 150;
constexpr ULONG kFramesInBlock = 16384;
// The minimum bytes (header and two checksums) and maximum samples per channel of a FLAC frame.
constexpr __int64 kLeastBytesOfFrame = 8;
constexpr __int64 kMaxBlock = 65535;

HINSTANCE g_module = nullptr;
// The number of filters, jobs and factory locks. The module must stay loaded until the number is 0.
std::atomic<long> g_in_use = 0;

struct Description {
  LONG samples_per_sec = 0;
  SHORT channels = 0;
  SHORT bits = 0;
  __int64 frames = 0;  // 0 if the file does not hold its length
  __int64 bytes = 0;   // the size of the file
  std::wstring title, artist, album, year, genre;
};

// An integer sample divided by this is the float sample. An export with 8, 16 or 24 bits restores
// the integers.
float Scale(SHORT bits) {
  if (bits <= 8) return 127.0F / static_cast<float>(1 << (8 - bits));
  if (bits <= 16) return 32767.0F / static_cast<float>(1 << (16 - bits));
  return static_cast<float>(1LL << (bits - 1));
}

std::wstring Widen(const char* utf8, int size) {
  std::wstring text(
      static_cast<std::size_t>(MultiByteToWideChar(CP_UTF8, 0, utf8, size, nullptr, 0)), L'\0');
  MultiByteToWideChar(CP_UTF8, 0, utf8, size, text.data(), static_cast<int>(text.size()));
  return text;
}

// Stores the text of a comment "NAME=text". If a name occurs twice, only the first text counts.
void TakeComment(const FLAC__StreamMetadata_VorbisComment_Entry& entry, Description& description) {
  const std::pair<const char*, std::wstring Description::*> fields[] = {
      {"TITLE=", &Description::title}, {"ARTIST=", &Description::artist},
      {"ALBUM=", &Description::album}, {"DATE=", &Description::year},
      {"GENRE=", &Description::genre},
  };
  const auto* const text = reinterpret_cast<const char*>(entry.entry);
  for (const auto& [name, field] : fields) {
    const std::size_t length = std::strlen(name);
    if (entry.length <= length || _strnicmp(text, name, length) != 0) continue;
    std::wstring& value = description.*field;
    if (value.empty()) value = Widen(text + length, static_cast<int>(entry.length - length));
  }
  if (description.year.size() > 4) description.year.resize(4);  // keep the year of a date
}

// An open file and its decoder. libFLAC is C code, so no exception may leave the methods that it
// calls.
class Decoder {
 public:
  Decoder() : decoder_(FLAC__stream_decoder_new()) {}
  Decoder(const Decoder&) = delete;
  Decoder& operator=(const Decoder&) = delete;
  virtual ~Decoder() {
    if (decoder_ != nullptr) FLAC__stream_decoder_delete(decoder_);  // closes the file
  }

  // Reads the description. Returns S_FALSE if the file cannot be opened, and E_FAIL if it is not a
  // supported FLAC file.
  HRESULT Open(const wchar_t* name) {
    if (decoder_ == nullptr) return E_OUTOFMEMORY;
    std::FILE* file = _wfsopen(name, L"rb", _SH_DENYNO);
    if (file == nullptr) return S_FALSE;
    _fseeki64(file, 0, SEEK_END);
    description_.bytes = _ftelli64(file);
    std::rewind(file);
    FLAC__stream_decoder_set_metadata_respond(decoder_, FLAC__METADATA_TYPE_VORBIS_COMMENT);
    if (FLAC__stream_decoder_init_FILE(decoder_, file, OnFrame, OnMetadata, OnError, this) !=
        FLAC__STREAM_DECODER_INIT_STATUS_OK) {
      std::fclose(file);
      return E_FAIL;
    }
    const bool is_flac = FLAC__stream_decoder_process_until_end_of_metadata(decoder_) &&
                         description_.samples_per_sec > 0 && description_.bits <= 32;
    return is_flac ? S_OK : E_FAIL;
  }
  const Description& description() const { return description_; }

 protected:
  // Decodes the next frame. Returns false at the end, or if Take has returned false.
  bool Next() {
    return FLAC__stream_decoder_process_single(decoder_) &&
           FLAC__stream_decoder_get_state(decoder_) < FLAC__STREAM_DECODER_END_OF_STREAM;
  }
  // Receives the samples of a frame through one pointer for each channel. Returns false to stop.
  virtual bool Take(const FLAC__Frame&, const FLAC__int32* const[]) noexcept { return true; }

 private:
  static Decoder& Self(void* client) { return *static_cast<Decoder*>(client); }
  static FLAC__StreamDecoderWriteStatus OnFrame(const FLAC__StreamDecoder*,
                                                const FLAC__Frame* frame,
                                                const FLAC__int32* const channels[], void* client) {
    return Self(client).Take(*frame, channels) ? FLAC__STREAM_DECODER_WRITE_STATUS_CONTINUE
                                               : FLAC__STREAM_DECODER_WRITE_STATUS_ABORT;
  }
  static void OnMetadata(const FLAC__StreamDecoder*, const FLAC__StreamMetadata* metadata,
                         void* client) {
    Description& description = Self(client).description_;
    if (metadata->type == FLAC__METADATA_TYPE_STREAMINFO) {
      const auto& info = metadata->data.stream_info;
      description.samples_per_sec = static_cast<LONG>(info.sample_rate);
      description.channels = static_cast<SHORT>(info.channels);
      description.bits = static_cast<SHORT>(info.bits_per_sample);
      description.frames = static_cast<__int64>(info.total_samples);
    } else if (metadata->type == FLAC__METADATA_TYPE_VORBIS_COMMENT) {
      const auto& comments = metadata->data.vorbis_comment;
      try {
        for (FLAC__uint32 index = 0; index < comments.num_comments; ++index) {
          TakeComment(comments.comments[index], description);
        }
      } catch (const std::exception&) {  // out of memory: the text stays empty
      }
    }
  }
  // Does nothing, because the decoder itself skips to the next complete frame.
  static void OnError(const FLAC__StreamDecoder*, FLAC__StreamDecoderErrorStatus, void*) {}

  FLAC__StreamDecoder* decoder_;
  Description description_;
};

// Counts the samples per channel of a file that does not hold its length.
class Counter final : public Decoder {
 public:
  __int64 Count() {
    while (Next()) {
    }
    return frames_;
  }

 private:
  bool Take(const FLAC__Frame& frame, const FLAC__int32* const[]) noexcept override {
    frames_ = static_cast<__int64>(frame.header.number.sample_number) + frame.header.blocksize;
    return true;
  }

  __int64 frames_ = 0;
};

// Reads the description of a file. Returns the results of Decoder::Open.
HRESULT Read(const wchar_t* name, Description& description) {
  Decoder decoder;
  const HRESULT hr = decoder.Open(name);
  description = decoder.description();
  return hr;
}

// The state shared with the worker. The worker never holds the filter, which may be released first.
class Job final : public Decoder {
 public:
  Job() { ++g_in_use; }
  ~Job() override {
    if (writer != nullptr) writer->Release();
    --g_in_use;
  }

  void Run();

  IAudioWriter* writer = nullptr;
  __int64 frames = 0;
  std::atomic<__int64> position = 0;
  std::atomic<bool> cancelled = false;
  std::atomic<bool> running = false;

 private:
  bool Take(const FLAC__Frame& frame, const FLAC__int32* const channels[]) noexcept override;
  // Calls `fill` to compute a block of `count` frames and passes the block to the writer. Returns
  // false if the import must end.
  template <class Fill>
  bool Write(ULONG count, Fill fill);
  bool WriteSilence(__int64 end);
};

template <class Fill>
bool Job::Write(ULONG count, Fill fill) {
  if (cancelled) return false;
  const auto channels = static_cast<ULONG>(description().channels);
  SAFEARRAY* block = SafeArrayCreateVector(VT_R4, 0, count * channels);
  if (block == nullptr) return false;
  fill(static_cast<float*>(block->pvData));
  HRESULT hr = E_FAIL;
  try {
    hr = writer->WriteAudio(block);
  } catch (...) {  // an exception of the host's writer
  }
  SafeArrayDestroy(block);
  position += count;
  return SUCCEEDED(hr);
}

// Replaces missing audio of a damaged file by silence, so that later frames keep their positions.
bool Job::WriteSilence(__int64 end) {
  while (position < end) {
    const auto count = static_cast<ULONG>((std::min<__int64>)(end - position, kFramesInBlock));
    if (!Write(count, [](float*) {})) return false;  // a new array holds zeros
  }
  return true;
}

bool Job::Take(const FLAC__Frame& frame, const FLAC__int32* const channels[]) noexcept {
  const auto& header = frame.header;
  const auto begin = static_cast<__int64>(header.number.sample_number);
  // Ignores frames with another format or outside the remaining range.
  if (header.channels != static_cast<unsigned>(description().channels) ||
      header.bits_per_sample != static_cast<unsigned>(description().bits) || begin < position ||
      begin >= frames) {
    return !cancelled;
  }
  if (!WriteSilence(begin)) return false;
  const auto count = static_cast<ULONG>((std::min<__int64>)(header.blocksize, frames - begin));
  return Write(count, [&](float* to) {
    const float scale = Scale(description().bits);
    for (ULONG index = 0; index < count; ++index) {
      for (unsigned channel = 0; channel < header.channels; ++channel) {
        *to++ = static_cast<float>(channels[channel][index]) / scale;
      }
    }
  });
}

void Job::Run() {
  writer->SetFormat(description().samples_per_sec, description().channels);
  if (SUCCEEDED(writer->OpenDevice())) {
    bool open = true;
    while (open && position < frames) open = Next();
    writer->CloseDevice();
  }
  // After the task has reported its end, the worker must not use objects of the host.
  std::exchange(writer, nullptr)->Release();
  running = false;
}

// Implements IDispatch for scripts. Uses the engine's type library.
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

// One object serves one import. QueryInterface returns IImportFilter as IDispatch, because scripts
// get only the default interface.
class FlacImport final : public Dual<IImportFilter>,
                         public Dual<IExFormatInfo>,
                         public Dual<IMetaDataReader>,
                         public Dual<ICoreTask> {
 public:
  FlacImport() : job_(std::make_shared<Job>()) { ++g_in_use; }
  FlacImport(const FlacImport&) = delete;
  FlacImport& operator=(const FlacImport&) = delete;
  ~FlacImport() {
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
    } else if (iid == IID_IMetaDataReader) {
      *object = static_cast<IMetaDataReader*>(this);
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
    if (bstrFileName == nullptr || thread_.joinable()) return E_FAIL;
    try {
      auto job = std::make_shared<Job>();
      if (job->Open(bstrFileName) != S_OK) return E_FAIL;
      job->frames = job->description().frames;
      if (job->frames == 0) {
        Counter counter;
        if (counter.Open(bstrFileName) == S_OK) job->frames = counter.Count();
      }
      // Limit a false length to the frames that a file of this size can hold.
      job->frames =
          (std::min)(job->frames, job->description().bytes / kLeastBytesOfFrame * kMaxBlock);
      if (job->frames == 0) return E_FAIL;
      if (pWriter != nullptr) pWriter->AddRef();
      job->writer = pWriter;
      texts_ = job->description();
      name_ = bstrFileName;
      job_ = std::move(job);
      return S_OK;
    } catch (const std::exception&) {
      return E_FAIL;
    }
  }
  STDMETHODIMP GetFilterStrings(BSTR* pbstrFilterString, BSTR* pbstrExtensions) override {
    if (pbstrFilterString == nullptr || pbstrExtensions == nullptr) return E_POINTER;
    *pbstrFilterString = SysAllocString(L"FLAC Files (*.flac)|*.flac|");
    *pbstrExtensions = SysAllocString(L"*.flac");
    return S_OK;
  }
  STDMETHODIMP GetSourceSampleCount(__int64* pnSampleCount) override {
    return Give(pnSampleCount, job_->frames);
  }
  STDMETHODIMP GetMerit(SHORT* pnMerit) override { return Give(pnMerit, kMerit); }

  // IExFormatInfo
  STDMETHODIMP GetFormat(LONG* pnSamplesPerSec, SHORT* pnChannels) override {
    if (pnSamplesPerSec == nullptr || pnChannels == nullptr) return E_POINTER;
    *pnSamplesPerSec = job_->description().samples_per_sec;
    *pnChannels = job_->description().channels;
    return S_OK;
  }
  STDMETHODIMP GetBitsPerSample(SHORT* pnBitsPerSample) override {
    return Give(pnBitsPerSample, job_->description().bits);
  }
  STDMETHODIMP GetAvgBytesPerSec(LONG* pnAvgBytesPerSec) override {
    if (job_->frames == 0) return E_FAIL;
    const double seconds = static_cast<double>(job_->frames) / job_->description().samples_per_sec;
    return Give(pnAvgBytesPerSec,
                static_cast<LONG>(static_cast<double>(job_->description().bytes) / seconds));
  }

  // IMetaDataReader
  STDMETHODIMP GetMetaData(BSTR* pbstrTitle, BSTR* pbstrArtist, BSTR* pbstrAlbum, BSTR* pbstrYear,
                           BSTR* pbstrGenre) override {
    const std::pair<BSTR*, const std::wstring*> texts[] = {{pbstrTitle, &texts_.title},
                                                           {pbstrArtist, &texts_.artist},
                                                           {pbstrAlbum, &texts_.album},
                                                           {pbstrYear, &texts_.year},
                                                           {pbstrGenre, &texts_.genre}};
    for (const auto& [to, text] : texts) {
      if (to == nullptr) return E_POINTER;
    }
    for (const auto& [to, text] : texts) *to = SysAllocString(text->c_str());
    return S_OK;
  }
  STDMETHODIMP SetFilename(BSTR bstrFileName) override {
    try {
      return bstrFileName != nullptr && Read(bstrFileName, texts_) == S_OK ? S_OK : E_FAIL;
    } catch (const std::exception&) {
      return E_FAIL;
    }
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
    if (job_->frames == 0) return E_FAIL;
    *pfProgress =
        static_cast<float>(static_cast<double>(job_->position) / static_cast<double>(job_->frames));
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

  // The worker releases the writer, which may hold the last reference to the filter. Stop then runs
  // on the worker, which must not wait for itself.
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
  Description texts_;
  std::thread thread_;
  std::wstring name_;
};

// The module's only factory. It is never deleted, so it needs no reference count.
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
      auto* filter = new FlacImport;
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

// True if TESSALY_REGISTRATION is "user". The module then registers for the current user instead of
// the machine, like the engine's modules.
bool IsPerUser() {
  wchar_t value[8] = L"";
  GetEnvironmentVariableW(L"TESSALY_REGISTRATION", value, 8);
  return std::wcscmp(value, L"user") == 0;
}

bool SetText(HKEY root, const wchar_t* key, const wchar_t* name, const wchar_t* text) {
  return RegSetKeyValueW(root, key, name, REG_SZ, text,
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
  if (clsid != kFlacImport) return CLASS_E_CLASSNOTAVAILABLE;
  return the_factory.QueryInterface(iid, factory);
}

STDAPI DllCanUnloadNow() { return g_in_use == 0 ? S_OK : S_FALSE; }

STDAPI DllRegisterServer() {
  wchar_t path[MAX_PATH] = {};
  const DWORD length = GetModuleFileNameW(g_module, path, MAX_PATH);
  if (length == 0 || length == MAX_PATH) return E_FAIL;
  const HKEY root = IsPerUser() ? HKEY_CURRENT_USER : HKEY_LOCAL_MACHINE;
  const std::wstring server = std::wstring(kClassKey) + L"\\InprocServer32";
  const bool done = SetText(root, kClassKey, nullptr, L"CFlacImport Object") &&
                    SetText(root, server.c_str(), nullptr, path) &&
                    // "Both" creates the object in the apartment of its caller, without a proxy.
                    SetText(root, server.c_str(), L"ThreadingModel", L"Both");
  // The filter list belongs to the machine, so a class registered for one user is not listed.
  const bool listed =
      IsPerUser() || SetText(HKEY_LOCAL_MACHINE, kFilterList, kListedAs, kClassText);
  return done && listed ? S_OK : SELFREG_E_CLASS;
}

STDAPI DllUnregisterServer() {
  // Ignore the result, because the value may be missing.
  if (!IsPerUser()) RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, kFilterList, kListedAs);
  const LSTATUS status =
      RegDeleteTreeW(IsPerUser() ? HKEY_CURRENT_USER : HKEY_LOCAL_MACHINE, kClassKey);
  return status == ERROR_SUCCESS || status == ERROR_FILE_NOT_FOUND ? S_OK : SELFREG_E_CLASS;
}
