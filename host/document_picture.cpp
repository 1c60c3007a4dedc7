#include "host/document_picture.h"

#include <cstdlib>

// Never nothing, whose meaning is the system's own; clang-tidy does not see that nothing is never
// asked for.
#define STBIW_MALLOC(size) std::malloc(static_cast<std::size_t>(size) | 1)
#define STBIW_REALLOC(block, size) std::realloc(block, size)
#define STBIW_FREE(block) std::free(block)
#define STB_IMAGE_WRITE_IMPLEMENTATION
#define STB_IMAGE_WRITE_STATIC
#define STBI_WRITE_NO_STDIO
#include <stb/stb_image_write.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <new>
#include <stdexcept>
#include <system_error>

#include "host/engine.h"
#include "host/file_name.h"
#include "host/waveform_picture.h"
#include "host/wide_text.h"

namespace marlinda {
namespace {

constexpr int kMinSide = 32;
constexpr int kMaxSide = 16384;

void Collect(void* file, void* data, int size) {
  static_cast<std::string*>(file)->append(static_cast<const char*>(data),
                                          static_cast<std::size_t>(size));
}

// An existing file is replaced. Throws a HostError that names the file, and then leaves no half of
// one.
void WritePng(const std::string& file, const Picture& picture) {
  std::string content;
  const bool encoded = stbi_write_png_to_func(Collect, &content, picture.width(), picture.height(),
                                              3, picture.bytes().data(), 3 * picture.width()) != 0;
  if (!encoded) throw std::bad_alloc();
  const std::filesystem::path path(Widen(file));
  std::ofstream output(path, std::ios::binary | std::ios::trunc);
  const bool opened = output.is_open();
  output.write(content.data(), static_cast<std::streamsize>(content.size()));
  output.close();
  if (!output) {
    std::error_code ignored;
    // An incomplete picture is removed; a file that could not be opened stays.
    if (opened) std::filesystem::remove(path, ignored);
    throw HostError(ExitStatus::kOutput, file, "it could not be written",
                    "Check that the folder may be written to and the disk is not full.");
  }
}

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

FrameRange ResolveRange(const PictureRequest& request, std::int64_t frames, std::int32_t rate) {
  try {
    return ResolveRange(request.range, frames, rate);
  } catch (const std::invalid_argument& error) {
    throw UsageError("plot", error.what(), "the range to draw");
  }
}

void DrawDocument(IEditedAudio* document, const Annotations& annotations,
                  const PictureRequest& request) {
  const auto reader = Query<IAudioReader>(document);
  LONG rate = 0;
  SHORT channels = 0;
  Check(reader->GetFormat(&rate, &channels));
  __int64 frames = 0;
  Check(reader->GetSampleCount(&frames));

  const FrameRange range = ResolveRange(request, frames, rate);
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
