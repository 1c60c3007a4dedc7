#include "host/document_picture.h"

#include <cstdlib>

// Never allocate 0 bytes, whose result depends on the system. The library never does, but
// clang-tidy cannot see that.
#define STBIW_MALLOC(size) std::malloc(static_cast<std::size_t>(size) | 1)
#define STBIW_REALLOC(block, size) std::realloc(block, size)
#define STBIW_FREE(block) std::free(block)
#define STB_IMAGE_WRITE_IMPLEMENTATION
#define STB_IMAGE_WRITE_STATIC
#define STBI_WRITE_NO_STDIO
#include <stb/stb_image_write.h>

#include <algorithm>
#include <cmath>
#include <new>
#include <stdexcept>

#include "host/channel_list.h"
#include "host/engine.h"
#include "host/file_name.h"
#include "host/system_fonts.h"
#include "host/waveform_picture.h"

namespace marlinda {
namespace {

constexpr int kHeight = 320;
constexpr int kRoom = 32;  // for each of many lanes, above the minimum

constexpr int kMinSide = 32;
constexpr int kMaxSide = 16384;

void Collect(void* file, void* data, int size) {
  static_cast<std::string*>(file)->append(static_cast<const char*>(data),
                                          static_cast<std::size_t>(size));
}

std::string Png(const Drawing& drawing) {
  std::string content;
  const bool encoded = stbi_write_png_to_func(Collect, &content, drawing.width(), drawing.height(),
                                              3, drawing.Pixels().data(), 3 * drawing.width()) != 0;
  if (!encoded) throw std::bad_alloc();
  return content;
}

// Returns the root mean square of each channel in each column.
std::vector<float> RootMeanSquares(IAudioReader* reader, const FrameRange& range,
                                   std::size_t columns, std::size_t channels) {
  std::vector<double> sums(columns * channels);
  std::vector<double> counts(columns);
  const auto frames = static_cast<double>(range.end - range.begin);
  ForEachBlock(reader, range, channels, [&](__int64 position, std::span<const float> block) {
    for (std::size_t i = 0; i < block.size(); ++i) {
      const auto frame =
          static_cast<double>(position - range.begin) + static_cast<double>(i / channels);
      const auto column = std::min(
          static_cast<std::size_t>(frame / frames * static_cast<double>(columns)), columns - 1);
      sums[column * channels + i % channels] += double{block[i]} * block[i];
      if (i % channels == 0) ++counts[column];
    }
  });
  std::vector<float> rms(sums.size());
  for (std::size_t i = 0; i < rms.size(); ++i) {
    rms[i] = static_cast<float>(std::sqrt(sums[i] / std::max(counts[i / channels], 1.0)));
  }
  return rms;
}

}  // namespace

void CheckPicture(const PictureRequest& request, const std::vector<std::string>& inputs) {
  const std::string extension = ExtensionOf(request.file);
  if (extension != "png" && extension != "svg") {
    throw UsageError("plot", "a picture is written as .png or .svg", request.file);
  }
  for (const int side : {request.width, request.height.value_or(kHeight)}) {
    if (side < kMinSide || side > kMaxSide) {
      throw UsageError("plot",
                       "width and height are " + std::to_string(kMinSide) + " to " +
                           std::to_string(kMaxSide) + " pixels",
                       request.file);
    }
  }
  RequireWritablePlace(request.file, inputs);
}

FrameRange ResolveRange(const PictureRequest& request, std::int64_t frames, std::int32_t rate) {
  try {
    return ResolveRange(request.range, frames, rate);
  } catch (const std::invalid_argument& error) {
    throw UsageError("plot", error.what(), "the range to draw");
  }
}

PictureSize DrawDocument(IEditedAudio* document, const Annotations& annotations,
                         const PictureRequest& request) {
  const auto reader = Query<IAudioReader>(document);
  LONG rate = 0;
  SHORT channels = 0;
  Check(reader->GetFormat(&rate, &channels));
  __int64 frames = 0;
  Check(reader->GetSampleCount(&frames));

  const FrameRange range = ResolveRange(request, frames, rate);
  // Columns without samples keep the initial value, silence. The method expects floats, although
  // the type library declares another type.
  const FloatArray columns(2 * static_cast<std::size_t>(request.width) *
                           static_cast<std::size_t>(channels));
  Check(document->ReadWaveplot(range.begin, range.end, columns.get()));
  Waveform waveform{columns.samples(), {}, {}, channels, range.begin, range.end, rate, annotations};

  const __int64 length = range.end - range.begin;
  const auto lanes = static_cast<std::size_t>(channels);
  std::vector<float> rms;
  std::vector<float> samples;
  const OpenReader open(reader.Get());
  if (length * 2 <= request.width) {
    ForEachBlock(reader.Get(), range, lanes, [&](__int64, std::span<const float> block) {
      samples.insert(samples.end(), block.begin(), block.end());
    });
    waveform.samples = samples;
  } else if (request.rms) {
    rms = RootMeanSquares(reader.Get(), range, static_cast<std::size_t>(request.width), lanes);
    waveform.rms = rms;
  }
  const int height =
      request.height.value_or(std::max(kHeight, LeastHeight(channels) + kRoom * channels));
  if (height < LeastHeight(channels)) {
    throw UsageError("plot",
                     ChannelCount(channels) + " need a height of " +
                         std::to_string(LeastHeight(channels)) + " pixels",
                     request.file);
  }
  const Console::Finishing finishing;
  const Drawing drawing =
      DrawWaveform(waveform, request.style, request.width, height, SystemFonts());
  WriteWholeFile(request.file, ExtensionOf(request.file) == "svg" ? drawing.Svg() : Png(drawing));
  return {request.width, height};
}

}  // namespace marlinda
