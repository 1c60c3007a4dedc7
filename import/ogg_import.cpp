#include "import/ogg_import.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <utility>

#include "core/com_ptr.h"
#include "core/resource.h"
#include "core/sample_array.h"
#include "core/samples/sample_converter.h"
#include "core/text.h"
#include "import/hand_out.h"
#include "import/vorbis_stream.h"

namespace marlinda {

// What one run needs and tells. The worker holds it too, and outlives the COM object when the last
// reference to that is released on the worker.
struct COggImport::Run {
  // Set by the apartment's thread before the worker starts and untouched by it until the end.
  LONG samples_per_sec = 0;
  SHORT channels = 0;
  LONG average_bytes_per_sec = 0;
  __int64 total = 0;
  bool started = false;

  // The worker's own from its start on.
  std::unique_ptr<VorbisStream> stream;
  ComPtr<IAudioWriter> writer;

  std::atomic<bool> cancelled = false;
  std::atomic<__int64> position = 0;

  void Import();
  void WriteBlocks(VorbisStream& source, IAudioWriter* target);
};

namespace {

constexpr int kBitsPerSample = 16;
// What the decoder is asked for at once, over all channels.
constexpr std::size_t kBlockSamples = 16384;
// Above the DirectShow import, which may read the same files.
constexpr SHORT kMerit = 200;
constexpr DWORD kPollMilliseconds = 100;

// Null when the file cannot be opened.
FilePointer OpenForReading(const std::string& name) noexcept {
  std::FILE* file = nullptr;
  return FilePointer(fopen_s(&file, name.c_str(), "rb") == 0 ? file : nullptr);
}

MetaData ReadMetaData(const VorbisStream& stream) {
  MetaData data;
  for (const std::string_view comment : stream.Comments()) {
    ApplyVorbisComment(Utf8ToAnsi(comment), data);
  }
  return data;
}

}  // namespace

// The results of the writer's methods are not checked: a failing writer misses samples, and its
// owner knows why.
void COggImport::Run::Import() {
  // Closes the file with the run, so that it can be moved or deleted as soon as the task has ended.
  const std::unique_ptr<VorbisStream> source = std::move(stream);
  // A writer that holds this filter in turn, as an audio connector does, is let go with it.
  const ComPtr<IAudioWriter> target = std::move(writer);
  target->SetFormat(samples_per_sec, channels);
  target->OpenDevice();
  // The device that was opened is closed, whatever happens in between.
  ComCall([&] {
    WriteBlocks(*source, target.Get());
    return S_OK;
  });
  target->CloseDevice();
}

void COggImport::Run::WriteBlocks(VorbisStream& source, IAudioWriter* target) {
  std::array<std::int16_t, kBlockSamples> codes;
  SampleArray block(kBlockSamples);
  do {
    const std::size_t samples = source.Read(codes);
    if (samples == 0) return;
    block.Resize(samples);
    ConvertPcmToFloat(std::as_bytes(std::span(codes)), block.samples(), kBitsPerSample);
    target->WriteAudio(block.get());
    position += static_cast<__int64>(samples) / channels;
  } while (!cancelled && position < total);
}

COggImport::~COggImport() {
  if (run_ != nullptr) run_->cancelled = true;
}

STDMETHODIMP COggImport::QueryCanLoad(BSTR bstrFileName) {
  return ComCall([&] {
    FilePointer file = OpenForReading(ToAnsi(bstrFileName));
    if (file == nullptr) return S_FALSE;
    return VorbisStream::Open(std::move(file)) != nullptr ? S_OK : E_FAIL;
  });
}

STDMETHODIMP COggImport::Initialize(BSTR bstrFileName, IAudioWriter* pWriter) {
  if (worker_.IsRunning()) return E_FAIL;
  return ComCall([&] {
    // Writer and name are taken in any case; without a file there is nothing to start.
    auto run = std::make_shared<Run>();
    run->writer = pWriter;
    run_ = run;
    file_name_ = ToAnsi(bstrFileName);
    auto stream = VorbisStream::Open(OpenForReading(file_name_));
    if (stream == nullptr) return E_FAIL;
    metadata_ = ReadMetaData(*stream);
    run->samples_per_sec = stream->samples_per_sec();
    run->channels = stream->channels();
    run->average_bytes_per_sec = stream->average_bytes_per_sec();
    run->total = stream->total_frames();
    run->stream = std::move(stream);
    return S_OK;
  });
}

STDMETHODIMP COggImport::GetFilterStrings(BSTR* pbstrFilterString, BSTR* pbstrExtensions) {
  return ComCall([&] {
    return HandOut(
        {{pbstrFilterString, TheModule().LoadText(IDS_OGG_FILTER)}, {pbstrExtensions, "*.ogg"}});
  });
}

STDMETHODIMP COggImport::GetSourceSampleCount(__int64* pnSampleCount) {
  if (pnSampleCount == nullptr) return E_POINTER;
  *pnSampleCount = run_ != nullptr ? run_->total : 0;
  return S_OK;
}

STDMETHODIMP COggImport::GetMerit(SHORT* pnMerit) {
  if (pnMerit == nullptr) return E_POINTER;
  *pnMerit = kMerit;
  return S_OK;
}

STDMETHODIMP COggImport::GetFormat(LONG* pnSamplesPerSec, SHORT* pnChannels) {
  if (pnSamplesPerSec == nullptr || pnChannels == nullptr) return E_POINTER;
  *pnSamplesPerSec = run_ != nullptr ? run_->samples_per_sec : 0;
  *pnChannels = run_ != nullptr ? run_->channels : SHORT{0};
  return S_OK;
}

STDMETHODIMP COggImport::GetBitsPerSample(SHORT* pnBitsPerSample) {
  if (pnBitsPerSample == nullptr) return E_POINTER;
  *pnBitsPerSample = run_ != nullptr ? SHORT{kBitsPerSample} : SHORT{0};
  return S_OK;
}

STDMETHODIMP COggImport::GetAvgBytesPerSec(LONG* pnAvgBytesPerSec) {
  if (pnAvgBytesPerSec == nullptr) return E_POINTER;
  *pnAvgBytesPerSec = run_ != nullptr ? run_->average_bytes_per_sec : 0;
  return S_OK;
}

STDMETHODIMP COggImport::Start() {
  if (run_ == nullptr || run_->started || run_->stream == nullptr || run_->writer == nullptr) {
    return E_FAIL;
  }
  const HRESULT hr = worker_.Start([run = run_] { run->Import(); });
  run_->started = SUCCEEDED(hr);
  return hr;
}

STDMETHODIMP COggImport::Cancel() {
  if (run_ != nullptr) run_->cancelled = true;
  worker_.PollUntilEnded(kPollMilliseconds);
  return S_OK;
}

STDMETHODIMP COggImport::QueryIsTaskRunning(VARIANT_BOOL* pbRunning) {
  if (pbRunning == nullptr) return E_POINTER;
  *pbRunning = worker_.IsRunning() ? VARIANT_TRUE : VARIANT_FALSE;
  return S_OK;
}

STDMETHODIMP COggImport::GetProgress(float* pfProgress) {
  if (pfProgress == nullptr) return E_POINTER;
  if (run_ == nullptr || run_->total <= 0) return E_FAIL;
  // A damaged file may hold more than it announced.
  const __int64 position = std::min<__int64>(run_->position, run_->total);
  *pfProgress =
      static_cast<float>(static_cast<double>(position) / static_cast<double>(run_->total));
  return S_OK;
}

STDMETHODIMP COggImport::GetName(BSTR* pbstrName) {
  return ComCall([&] {
    return HandOut({{pbstrName, Format(TheModule().LoadText(IDS_LOADING), file_name_)}});
  });
}

STDMETHODIMP COggImport::GetMetaData(BSTR* pbstrTitle, BSTR* pbstrArtist, BSTR* pbstrAlbum,
                                     BSTR* pbstrYear, BSTR* pbstrGenre) {
  return HandOut({{pbstrTitle, metadata_.title},
                  {pbstrArtist, metadata_.artist},
                  {pbstrAlbum, metadata_.album},
                  {pbstrYear, metadata_.year},
                  {pbstrGenre, metadata_.genre}});
}

STDMETHODIMP COggImport::SetFilename(BSTR bstrFileName) {
  return ComCall([&] {
    const auto stream = VorbisStream::Open(OpenForReading(ToAnsi(bstrFileName)));
    if (stream == nullptr) return E_FAIL;
    metadata_ = ReadMetaData(*stream);
    return S_OK;
  });
}

MARLINDA_DEFINE_CLASS(COggImport)

}  // namespace marlinda
