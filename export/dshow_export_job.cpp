#include "export/dshow_export_job.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "core/apartment.h"
#include "core/sample_array.h"
#include "core/samples/sample_converter.h"

namespace marlinda {
namespace {

constexpr std::int64_t kFramesPerBlock = 65536;
constexpr int kBits = 16;
// The formats of files and encoders count the bytes of a frame in 16 bits.
constexpr int kMaxChannels = 0xFFFF / (kBits / 8);

}  // namespace

DShowExportJob::DShowExportJob(EncodedKind kind, std::string path, IAudioReader* reader)
    : kind_(kind), path_(std::move(path)), reader_(reader) {
  __int64 count = 0;
  reader->GetSampleCount(&count);
  total = count;
}

HRESULT DShowExportJob::AskFormat(int& samples_per_sec, int& channels) const {
  LONG rate = 0;
  SHORT count = 0;
  const HRESULT hr = reader_->GetFormat(&rate, &count);
  if (FAILED(hr)) return hr;
  if (rate <= 0 || count <= 0 || count > kMaxChannels) return E_INVALIDARG;
  samples_per_sec = rate;
  channels = count;
  return S_OK;
}

void DShowExportJob::Run(EncoderSettings settings, std::promise<HRESULT>& opened) noexcept {
  const Apartment apartment(COINIT_MULTITHREADED);
  settings.path = path_;
  const int channels = settings.channels;
  std::unique_ptr<EncodedFile> file;
  const HRESULT opening = ComCall([&] {
    file = kind_ == EncodedKind::kMp3 ? CreateMp3File(settings) : CreateWmaFile(settings);
  });
  // The filter may start again from then on, so the job is not touched after a failure.
  opened.set_value(opening);
  if (FAILED(opening)) return;

  const HRESULT writing = ComCall([&] {
    WriteSamples(*file, channels);
    file->Finish();
  });
  file.reset();
  // A task cannot report its failure; a missing file shows it.
  if (FAILED(writing)) DeleteFileA(path_.c_str());
  reader_.Reset();
}

void DShowExportJob::WriteSamples(EncodedFile& file, int channels) {
  const bool is_open = SUCCEEDED(reader_->OpenDevice());
  const HRESULT hr = ComCall([&] {
    std::vector<std::byte> pcm;
    while (!cancelled && position < total) {
      const std::int64_t frames = std::min<std::int64_t>(total - position, kFramesPerBlock);
      // Silence where a failing reader delivers nothing, so that the rest keeps its place.
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

}  // namespace marlinda
