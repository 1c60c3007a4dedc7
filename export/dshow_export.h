// CDShowExport: writes the audio of a reader into a WMA or MP3 file, as a task, with the encoders
// that the system has.
#pragma once

#include <future>
#include <string>

#include "core/com_ptr.h"
#include "core/filter_task.h"
#include "core/registry.h"
#include "core/resource.h"
#include "export/encoded_file.h"

namespace marlinda {

enum class EncodedKind { kWma, kMp3 };

// One export from reader to compressed file, run by the filter's worker thread. The reader belongs
// to the filter until Run begins, and to the worker from then on.
class DShowExportJob : public TaskJob {
 public:
  DShowExportJob(EncodedKind kind, std::string path, IAudioReader* reader);

  EncodedKind kind() const noexcept { return kind_; }
  // False once a Run has taken the reader.
  bool HasReader() const noexcept { return reader_ != nullptr; }
  // The rate and channels of the reader; E_INVALIDARG where it has none that a file could have.
  HRESULT AskFormat(int& samples_per_sec, int& channels) const;

  // Reports through `opened` whether encoder and file are there, then writes the whole file and
  // releases the reader. When they are not, the reader stays for another try. Cancelled, it
  // leaves a valid file with what came before; a file that fails on the way is deleted.
  void Run(EncoderSettings settings, std::promise<HRESULT>& opened) noexcept;

 private:
  void WriteSamples(EncodedFile& file, int channels);

  const EncodedKind kind_;
  const std::string path_;
  ComPtr<IAudioReader> reader_;
};

// One object serves one export: Initialize, metadata, Start, then poll until the task has ended, or
// Cancel. The extension of the file decides what is written. Bit rates are the user's settings in
// the registry.
//
// Start waits until encoder and file are open, and fails when they are not; nothing is left behind
// then. Without an encoder a message says so, provided that ShowSettingsDlg has named a window to
// own it. A task that fails later deletes its file, and its progress stays below 1.
class CDShowExport final
    : public FilterTask<CDShowExport, DShowExportJob, ICoreTask, IExportFilter, IMetaDataWriter> {
 public:
  static constexpr const CLSID& kClassId = CLSID_CDShowExport;
  // Behind the WAV export, which loses nothing.
  static constexpr SHORT kMerit = 100;
  static constexpr UINT kNameText = IDS_SAVING;
  static constexpr UINT kFilterTexts[] = {IDS_WMA_FILTER, IDS_MP3_FILTER};
  static constexpr char kPatterns[] = "*.wma;*.mp3";

  CDShowExport();

  // ICoreTask. Start is E_FAIL while the task runs, without Initialize and after a task that ran.
  STDMETHODIMP Start() override;

  // IExportFilter. Initialize is E_INVALIDARG for a name with another extension, and fails when the
  // file cannot be written; it does not change the file. The encoders choose their own sample
  // width.
  STDMETHODIMP QuerySupportsExtension(BSTR bstrExtension, VARIANT_BOOL* pbSupported) override;
  STDMETHODIMP Initialize(BSTR bstrFileName, IAudioReader* pReader) override;
  STDMETHODIMP SetBitsPerSample(SHORT) override { return S_OK; }
  STDMETHODIMP QueryHasSettingsDlg(BSTR bstrExtension, VARIANT_BOOL* pbHasSettings) override {
    return QuerySupportsExtension(bstrExtension, pbHasSettings);
  }
  STDMETHODIMP ShowSettingsDlg(BSTR bstrExtension, ULONG nHwndParent) override;
  STDMETHODIMP QueryIsLossy(VARIANT_BOOL* pbLossy) override { return HandOut(pbLossy, true); }

  // IMetaDataWriter. The texts are taken at Start.
  STDMETHODIMP SetMetaData(BSTR bstrTitle, BSTR bstrArtist, BSTR bstrAlbum, BSTR bstrYear,
                           BSTR bstrGenre) override;

 private:
  int BitRate(const char* name) const noexcept;
  void ShowWmaSettings();
  void ShowMpegSettings();
  // The message that no encoder can do the job; nothing without a window to own it.
  void ShowCodecError() const;

  CRegistry settings_;  // open for as long as the filter lives
  WideTags tags_;
  HWND message_owner_ = nullptr;
};

}  // namespace marlinda
