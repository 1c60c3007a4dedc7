#include "host/document_picture.h"

#include <cstdlib>

// The library never requests 0 bytes, but clang-tidy cannot see that. `| 1` avoids a warning about
// malloc(0), whose result depends on the system.
#define STBIW_MALLOC(size) std::malloc(static_cast<std::size_t>(size) | 1)
#define STBIW_REALLOC(block, size) std::realloc(block, size)
#define STBIW_FREE(block) std::free(block)
#define STB_IMAGE_WRITE_IMPLEMENTATION
#define STB_IMAGE_WRITE_STATIC
#define STBI_WRITE_NO_STDIO
#include <stb/stb_image_write.h>

#include <algorithm>
#include <memory>
#include <new>

#include "host/file_name.h"
#include "host/system_fonts.h"
#include "host/waveform_picture.h"

namespace marlinda {
namespace {

constexpr int kHeight = 320;
constexpr int kRoom = 32;  // added to the minimum height of each lane

std::string Png(const Drawing& drawing) {
  std::string content;
  const auto append = [](void* file, void* data, int size) {
    static_cast<std::string*>(file)->append(static_cast<const char*>(data),
                                            static_cast<std::size_t>(size));
  };
  const bool encoded = stbi_write_png_to_func(append, &content, drawing.width(), drawing.height(),
                                              3, drawing.Pixels().data(), 3 * drawing.width()) != 0;
  if (!encoded) throw std::bad_alloc();
  return content;
}

}  // namespace

void CheckPicture(const PictureRequest& request, const std::vector<std::string>& inputs) {
  const std::string extension = ExtensionOf(request.file);
  if (extension != "png" && extension != "svg") {
    throw UsageError("plot", "a picture is written as .png or .svg", request.file);
  }
  RequireWritablePlace(request.file, inputs);
}

RangePicture::RangePicture(const PictureRequest& request, const FrameRange& range,
                           const AudioFormat& format)
    : request_(request),
      range_(range),
      format_(format),
      levels_(range.end - range.begin, static_cast<std::size_t>(request.width),
              static_cast<std::size_t>(format.channels), request.rms) {}

void RangePicture::Add(std::span<const float> samples) {
  if (range_.end - range_.begin > request_.width) return levels_.Add(samples);
  samples_.insert(samples_.end(), samples.begin(), samples.end());
}

int RangePicture::Draw(const Annotations& annotations) const {
  const int channels = format_.channels;
  const int height =
      request_.height.value_or(std::max(kHeight, LeastHeight(channels) + kRoom * channels));
  if (height < LeastHeight(channels)) {
    throw UsageError("plot",
                     ChannelCount(channels) + " need a height of " +
                         std::to_string(LeastHeight(channels)) + " pixels",
                     request_.file);
  }
  const Console::Finishing finishing;
  const std::vector<float> rms = levels_.RootMeanSquares();
  const Drawing drawing = DrawWaveform({levels_.pairs(), rms, samples_, channels, range_.begin,
                                        range_.end, format_.rate, annotations},
                                       request_.style, request_.width, height, SystemFonts());
  WriteWholeFile(request_.file, ExtensionOf(request_.file) == "svg" ? drawing.Svg() : Png(drawing));
  return height;
}

int DrawAudio(IAudioReader* reader, const Annotations& annotations, const PictureRequest& request) {
  AudioFormat format;
  __int64 frames = 0;
  Check(reader->GetFormat(&format.rate, &format.channels));
  Check(reader->GetSampleCount(&frames));
  const FrameRange range = ResolveRange(request.range, frames, format.rate);
  RangePicture picture(request, range, format);
  const OpenReader open(reader);
  constexpr __int64 kBlockFrames = 65536;
  const auto block_of = [&](__int64 at) {
    return static_cast<std::size_t>(std::min(kBlockFrames, range.end - at) * format.channels);
  };
  std::unique_ptr<const FloatArray> block;
  for (__int64 at = range.begin; at < range.end; at += kBlockFrames) {
    if (!block || block->samples().size() != block_of(at)) {
      block = std::make_unique<const FloatArray>(block_of(at));
    }
    Check(reader->ReadAudio(at, block->get()));
    MakeFinite(block->samples());
    picture.Add(block->samples());
  }
  return picture.Draw(annotations);
}

}  // namespace marlinda
