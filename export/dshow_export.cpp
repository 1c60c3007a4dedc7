// CDShowExport: writes the audio of a reader into a WMA or MP3 file, as a task. Uses the system's
// encoders or the engine's MP3 encoder.
#include <algorithm>
#include <chrono>
#include <future>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "core/apartment.h"
#include "core/com_ptr.h"
#include "core/filter_task.h"
#include "core/handle.h"
#include "core/registry.h"
#include "core/resource.h"
#include "core/sample_array.h"
#include "core/samples/sample_converter.h"
#include "export/encoded_file.h"
#include "export/mp3_encoder.h"
#include "export/settings_dialog.h"

namespace marlinda {

enum class EncodedKind { kWma, kMp3 };

namespace {

constexpr char kWmaBitRate[] = "WMABitrate";
constexpr char kMp3BitRate[] = "MP3Bitrate";
constexpr int kDefaultBitRateKbit = 128;
constexpr DWORD kServeMilliseconds = 10;
constexpr std::int64_t kFramesPerBlock = 65536;
constexpr int kBits = 16;
// WAVEFORMATEX stores the size of a frame in 16 bits.
constexpr int kMaxChannels = 0xFFFF / (kBits / 8);

std::optional<EncodedKind> KindOf(const std::string& extension) {
  if (lstrcmpiA(extension.c_str(), "wma") == 0) return EncodedKind::kWma;
  if (lstrcmpiA(extension.c_str(), "mp3") == 0) return EncodedKind::kMp3;
  return std::nullopt;
}

// Returns the part after the last dot of the file name, or an empty text if there is no dot.
std::string ExtensionOf(const std::string& path) {
  const std::size_t dot = path.find_last_of("./\\:");
  return dot != std::string::npos && path[dot] == '.' ? path.substr(dot + 1) : std::string();
}

// Tests whether the file can be written, without changing it.
HRESULT TryTarget(const std::string& path) {
  FileHandle file(CreateFileA(path.c_str(), GENERIC_WRITE, 0, nullptr, OPEN_ALWAYS,
                              FILE_ATTRIBUTE_NORMAL, nullptr));
  if (!file) return LastErrorResult();
  const bool is_new = GetLastError() != ERROR_ALREADY_EXISTS;
  file.Reset();
  if (is_new) DeleteFileA(path.c_str());
  return S_OK;
}

std::wstring Text(const OLECHAR* text) { return {text != nullptr ? text : L""}; }

}  // namespace

// One export from reader to compressed file, run by the worker of CDShowExport. During a run, only
// the worker uses the reader.
class DShowExportJob : public TaskJob {
 public:
  DShowExportJob(EncodedKind kind, std::string path, IAudioReader* reader)
      : kind_(kind), path_(std::move(path)), reader_(reader) {
    __int64 count = 0;
    reader->GetSampleCount(&count);
    total = count;
  }

  EncodedKind kind() const noexcept { return kind_; }
  // False once Run has released the reader.
  bool HasReader() const noexcept { return reader_ != nullptr; }
  // Asks the reader for rate and channels. Fails with E_INVALIDARG if no file can have them.
  HRESULT AskFormat(int& samples_per_sec, int& channels) const {
    LONG rate = 0;
    SHORT count = 0;
    const HRESULT hr = reader_->GetFormat(&rate, &count);
    if (FAILED(hr)) return hr;
    if (rate <= 0 || count <= 0 || count > kMaxChannels) return E_INVALIDARG;
    samples_per_sec = rate;
    channels = count;
    return S_OK;
  }

  // Opens the encoder and the file, and reports the result through `opened`. On failure, keeps the
  // reader for another Start. On success, writes the whole file and releases the reader. After a
  // cancel, the file is valid and ends early. If writing fails, Run deletes the file.
  void Run(EncoderSettings settings, std::promise<HRESULT>& opened) noexcept {
    const Apartment apartment(COINIT_MULTITHREADED);
    settings.path = path_;
    const int channels = settings.channels;
    std::unique_ptr<EncodedFile> file;
    const HRESULT opening = ComCall([&] {
      file = kind_ == EncodedKind::kMp3 ? CreateMp3File(settings) : CreateWmaFile(settings);
    });
    // Start waits for this result and returns it.
    opened.set_value(opening);
    if (FAILED(opening)) return;

    const HRESULT writing = ComCall([&] {
      WriteSamples(*file, channels);
      file->Finish();
    });
    file.reset();
    // A task cannot report a failure. The missing file shows a client that the export has failed.
    if (FAILED(writing)) DeleteFileA(path_.c_str());
    reader_.Reset();
  }

 private:
  void WriteSamples(EncodedFile& file, int channels) {
    const bool is_open = SUCCEEDED(reader_->OpenDevice());
    const HRESULT hr = ComCall([&] {
      std::vector<std::byte> pcm;
      while (!cancelled && position < total) {
        const std::int64_t frames = std::min<std::int64_t>(total - position, kFramesPerBlock);
        // If the reader fails, the block is silent, so that later samples stay in place.
        const SampleArray block(static_cast<std::size_t>(frames) *
                                static_cast<std::size_t>(channels));
        reader_->ReadAudio(position, block.get());
        const auto samples = block.samples();
        pcm.resize(samples.size() * kBits / 8);
        ConvertFloatToPcm(samples, pcm, kBits);
        file.Write(pcm);
        position += frames;
      }
    });
    if (is_open) reader_->CloseDevice();
    Check(hr);
  }

  const EncodedKind kind_;
  const std::string path_;
  ComPtr<IAudioReader> reader_;
};

// One object serves one export. Call Initialize, SetMetaData and Start, then poll until the task
// has ended, or call Cancel. The file's extension selects the format. The bit rates are the user's
// settings in the registry.
//
// Start waits until encoder and file are open, and fails if either cannot be opened. If there is no
// suitable encoder, Start creates no file, but shows a message if an earlier ShowSettingsDlg
// received an owner window. A task that fails later deletes its file. Its progress stays below 1
// unless all samples were written before the failure.
class CDShowExport final
    : public FilterTask<CDShowExport, DShowExportJob, ICoreTask, IExportFilter, IMetaDataWriter> {
 public:
  static constexpr const CLSID& kClassId = CLSID_CDShowExport;
  // Lower than the merit of the WAV export, which is lossless.
  static constexpr SHORT kMerit = 100;
  static constexpr UINT kNameText = IDS_SAVING;
  static constexpr UINT kFilterTexts[] = {IDS_WMA_FILTER, IDS_MP3_FILTER};
  static constexpr char kPatterns[] = "*.wma;*.mp3";

  CDShowExport() {
    // If the key cannot be opened, all settings have their defaults.
    settings_.Open(HKEY_CURRENT_USER, std::string(kSettingsKey) + "\\EncoderSettings", false);
  }

  // ICoreTask. Start fails with E_FAIL while the task runs, before Initialize and after a completed
  // task.
  STDMETHODIMP Start() override {
    // The message box about a missing encoder dispatches messages. A message handler may release
    // the last reference, so Start keeps this object alive.
    const ComPtr<IUnknown> alive(OuterUnknown());
    const HRESULT hr = ComCall([&] {
      if (worker_.IsRunning() || !job_ || !job_->HasReader()) return E_FAIL;
      EncoderSettings settings;
      Check(job_->AskFormat(settings.samples_per_sec, settings.channels));
      settings.bit_rate_kbit =
          BitRate(job_->kind() == EncodedKind::kMp3 ? kMp3BitRate : kWmaBitRate);
      settings.tags = tags_;
      const auto opened = std::make_shared<std::promise<HRESULT>>();
      auto outcome = opened->get_future();
      Check(worker_.Start([job = job_, opened, settings] { job->Run(settings, *opened); }));
      // COM creates an encoder class without a ThreadingModel in the process's main STA. If this is
      // the thread of the main STA, it must serve calls while it waits.
      while (outcome.wait_for(std::chrono::seconds(0)) == std::future_status::timeout) {
        worker_.AwaitServingCalls(kServeMilliseconds);
      }
      const HRESULT opening = outcome.get();
      // Waits for the worker to end, so that no task runs after a failed Start.
      if (FAILED(opening)) worker_.PollUntilEnded(1);
      return opening;
    });
    if (hr == CodecError().code()) ShowCodecError();
    return hr;
  }

  // IExportFilter. Initialize fails with the system's error if the file cannot be written, and with
  // E_INVALIDARG if the extension is not supported. Initialize does not change the file.
  // SetBitsPerSample has no effect, because the encoders receive 16-bit PCM.
  STDMETHODIMP QuerySupportsExtension(BSTR bstrExtension, VARIANT_BOOL* pbSupported) override {
    return ComCall([&] { return HandOut(pbSupported, KindOf(ToAnsi(bstrExtension)).has_value()); });
  }
  STDMETHODIMP Initialize(BSTR bstrFileName, IAudioReader* pReader) override {
    if (pReader == nullptr) return E_POINTER;
    return ComCall([&] {
      if (worker_.IsRunning()) return E_FAIL;
      std::string path = ToAnsi(bstrFileName);
      const auto kind = KindOf(ExtensionOf(path));
      if (!kind) return E_INVALIDARG;
      Check(TryTarget(path));
      job_ = std::make_shared<DShowExportJob>(*kind, path, pReader);
      file_name_ = std::move(path);
      return S_OK;
    });
  }
  STDMETHODIMP SetBitsPerSample(SHORT) override { return S_OK; }
  STDMETHODIMP QueryHasSettingsDlg(BSTR bstrExtension, VARIANT_BOOL* pbHasSettings) override {
    return QuerySupportsExtension(bstrExtension, pbHasSettings);
  }
  STDMETHODIMP ShowSettingsDlg(BSTR bstrExtension, ULONG nHwndParent) override {
    const ComPtr<IUnknown> alive(OuterUnknown());
    ComCall([&] {
      message_owner_ = WindowOfNumber(nHwndParent);
      const auto kind = KindOf(ToAnsi(bstrExtension));
      if (kind == EncodedKind::kWma) ShowWmaSettings();
      if (kind == EncodedKind::kMp3) ShowMpegSettings();
    });
    return S_OK;  // also if no dialog was shown
  }
  STDMETHODIMP QueryIsLossy(VARIANT_BOOL* pbLossy) override { return HandOut(pbLossy, true); }

  // IMetaDataWriter. Start copies the texts, so later calls have no effect on the task.
  STDMETHODIMP SetMetaData(BSTR bstrTitle, BSTR bstrArtist, BSTR bstrAlbum, BSTR bstrYear,
                           BSTR bstrGenre) override {
    return ComCall([&] {
      tags_ = {Text(bstrTitle), Text(bstrArtist), Text(bstrAlbum), Text(bstrYear), Text(bstrGenre)};
    });
  }

 private:
  int BitRate(const char* name) const noexcept {
    return static_cast<int>(settings_.ReadDword(name, kDefaultBitRateKbit));
  }
  void ShowWmaSettings() {
    CWmaSettings dialog(BitRate(kWmaBitRate));
    if (dialog.ShowModal(message_owner_) != IDOK) return;
    settings_.WriteDword(kWmaBitRate, static_cast<DWORD>(dialog.bit_rate_kbit()));
  }
  void ShowMpegSettings() {
    // Without an encoder, the list of bit rates in the dialog is empty.
    CMpegSettings dialog(BitRate(kMp3BitRate));
    if (dialog.ShowModal(message_owner_) != IDOK) return;
    settings_.WriteDword(kMp3BitRate, static_cast<DWORD>(dialog.bit_rate_kbit()));
  }
  // Shows a message about the missing encoder if ShowSettingsDlg has received an owner window.
  void ShowCodecError() const {
    if (message_owner_ == nullptr) return;
    const auto& module = TheModule();
    MessageBoxA(message_owner_, module.LoadText(IDS_NO_ENCODER).c_str(),
                module.LoadText(IDS_CODEC_ERROR).c_str(), MB_OK | MB_ICONERROR);
  }

  CRegistry settings_;  // open during the filter's lifetime
  WideTags tags_;
  HWND message_owner_ = nullptr;
};

MARLINDA_DEFINE_CLASS(CDShowExport)

}  // namespace marlinda
