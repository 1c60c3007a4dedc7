#include "import/ogg_import.h"

#include <array>
#include <cstdint>
#include <utility>

#include "core/sample_array.h"
#include "core/samples/sample_converter.h"

namespace marlinda {
namespace {

// All decoding goes through 16-bit samples.
constexpr SHORT kBitsPerSample = 16;

// Longer comments are no titles but pictures.
constexpr std::size_t kMaxCommentBytes = std::size_t{1} << 20;

// Null when the file cannot be opened.
FilePointer OpenForReading(const std::string& name) noexcept {
  std::FILE* file = nullptr;
  return FilePointer(fopen_s(&file, name.c_str(), "rb") == 0 ? file : nullptr);
}

Tags ReadTags(const VorbisStream& stream) {
  Tags tags;
  for (const std::string_view comment : stream.Comments()) {
    if (comment.size() <= kMaxCommentBytes) ApplyVorbisComment(Utf8ToAnsi(comment), tags);
  }
  return tags;
}

}  // namespace

void COggImport::WriteBlocks(OggImportJob& job, VorbisStream& source, IAudioWriter* target) {
  std::array<std::int16_t, kImportBlockSamples> codes;
  SampleArray block(kImportBlockSamples);
  do {
    const std::size_t samples = source.Read(codes);
    if (samples == 0) return;
    block.Resize(samples);
    ConvertPcmToFloat(std::as_bytes(std::span(codes)), block.samples(), kBitsPerSample);
    target->WriteAudio(block.get());
    job.position += static_cast<__int64>(samples) / job.format.channels;
  } while (!job.cancelled && job.position < job.total);
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
    job_ = std::make_shared<OggImportJob>();
    job_->writer = pWriter;
    file_name_ = ToAnsi(bstrFileName);
    std::shared_ptr<VorbisStream> stream = VorbisStream::Open(OpenForReading(file_name_));
    if (stream == nullptr) return E_FAIL;
    Tags tags = ReadTags(*stream);
    // Takes the decoder's memory now.
    stream->Prepare();
    tags_ = std::move(tags);
    job_->format = {stream->samples_per_sec(), stream->channels(), kBitsPerSample, false};
    job_->average_bytes_per_sec = stream->average_bytes_per_sec();
    job_->total = stream->total_frames();
    job_->readable = stream->readable_frames();
    job_->source = std::move(stream);
    return S_OK;
  });
}

STDMETHODIMP COggImport::SetFilename(BSTR bstrFileName) {
  return ComCall([&] {
    const auto stream = VorbisStream::Open(OpenForReading(ToAnsi(bstrFileName)));
    if (stream == nullptr) return E_FAIL;
    tags_ = ReadTags(*stream);
    return S_OK;
  });
}

MARLINDA_DEFINE_CLASS(COggImport)

}  // namespace marlinda
