#include "host/document_picture.h"

#include <algorithm>
#include <cctype>
#include <stdexcept>

#include "host/engine.h"
#include "host/file_name.h"
#include "host/png_file.h"
#include "host/waveform_picture.h"

namespace marlinda {
namespace {

constexpr int kMinSide = 32;
constexpr int kMaxSide = 16384;

}  // namespace

void CheckPicture(const PictureRequest& request, const std::vector<std::string>& inputs) {
  std::string extension = ExtensionOf(request.file);
  std::ranges::transform(extension, extension.begin(),
                         [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  if (extension != "png") throw UsageError("plot", "a picture is written as .png", request.file);
  for (const int side : {request.width, request.height}) {
    if (side < kMinSide || side > kMaxSide) {
      throw UsageError("plot",
                       "width and height are " + std::to_string(kMinSide) + " to " +
                           std::to_string(kMaxSide) + " pixels",
                       request.file);
    }
  }
  RequireWritablePlace(request.file, inputs);
}

void DrawDocument(IEditedAudio* document, const Annotations& annotations,
                  const PictureRequest& request) {
  const auto reader = Query<IAudioReader>(document);
  LONG rate = 0;
  SHORT channels = 0;
  Check(reader->GetFormat(&rate, &channels));
  __int64 frames = 0;
  Check(reader->GetSampleCount(&frames));

  FrameRange range;
  try {
    range = ResolveRange(request.range, frames, rate);
  } catch (const std::invalid_argument& error) {
    throw UsageError("plot", error.what(), "the range to draw");
  }

  // Columns that nothing is drawn into keep their value: silence. The method wants floats, whatever
  // the type library declares.
  const FloatArray columns(2 * static_cast<std::size_t>(request.width) *
                           static_cast<std::size_t>(channels));
  Check(document->ReadWaveplot(range.begin, range.end, columns.get()));
  const Waveform waveform{columns.samples(), channels, range.begin, range.end, rate, annotations};
  const Console::Finishing finishing;
  WritePng(request.file, DrawWaveform(waveform, request.width, request.height));
}

}  // namespace marlinda
