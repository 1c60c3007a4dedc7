#include "host/document_picture.h"

#include <cstdlib>

// Requests at least 1 byte, because malloc(0) depends on the system. The library never requests 0
// bytes, but clang-tidy cannot see that.
#define STBIW_MALLOC(size) std::malloc(static_cast<std::size_t>(size) | 1)
#define STBIW_REALLOC(block, size) std::realloc(block, size)
#define STBIW_FREE(block) std::free(block)
#define STB_IMAGE_WRITE_IMPLEMENTATION
#define STB_IMAGE_WRITE_STATIC
#define STBI_WRITE_NO_STDIO
#include <stb/stb_image_write.h>

#include <algorithm>
#include <new>

#include "host/channel_list.h"
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

int Draw(const Waveform& waveform, const PictureRequest& request) {
  const int channels = waveform.channels;
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
  return height;
}

}  // namespace

void CheckPicture(const PictureRequest& request, const std::vector<std::string>& inputs) {
  const std::string extension = ExtensionOf(request.file);
  if (extension != "png" && extension != "svg") {
    throw UsageError("plot", "a picture is written as .png or .svg", request.file);
  }
  RequireWritablePlace(request.file, inputs);
}

int DrawDocument(IEditedAudio* document, const Annotations& annotations,
                 const PictureRequest& request) {
  const auto reader = Query<IAudioReader>(document);
  LONG rate = 0;
  SHORT channels = 0;
  Check(reader->GetFormat(&rate, &channels));
  __int64 frames = 0;
  Check(reader->GetSampleCount(&frames));

  const FrameRange range = ResolveRange(request.range, frames, rate);
  // ReadWaveplot expects floats, although the type library declares another type. It leaves columns
  // without samples at 0, which is silence.
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
    ColumnLevels levels(length, static_cast<std::size_t>(request.width), lanes, true);
    ForEachBlock(reader.Get(), range, lanes,
                 [&](__int64, std::span<const float> block) { levels.Add(block); });
    rms = levels.RootMeanSquares();
    waveform.rms = rms;
  }
  return Draw(waveform, request);
}

int DrawLevels(const ColumnLevels& levels, const FrameRange& range, const AudioFormat& format,
               const Annotations& annotations, const PictureRequest& request) {
  const std::vector<float> rms = levels.RootMeanSquares();
  return Draw(
      {levels.pairs(), rms, {}, format.channels, range.begin, range.end, format.rate, annotations},
      request);
}

}  // namespace marlinda
