#include "host/png_file.h"

#define STB_IMAGE_WRITE_IMPLEMENTATION
#define STB_IMAGE_WRITE_STATIC
#define STBI_WRITE_NO_STDIO
#include <stb/stb_image_write.h>

#include <filesystem>
#include <fstream>

#include "host/messages.h"
#include "host/wide_text.h"

namespace marlinda {
namespace {

void Collect(void* file, void* data, int size) {
  static_cast<std::string*>(file)->append(static_cast<const char*>(data),
                                          static_cast<std::size_t>(size));
}

}  // namespace

void WritePng(const std::string& file, const Picture& picture) {
  std::string content;
  const bool encoded = stbi_write_png_to_func(Collect, &content, picture.width(), picture.height(),
                                              3, picture.bytes().data(), 3 * picture.width()) != 0;
  std::ofstream output(std::filesystem::path(Widen(file)), std::ios::binary | std::ios::trunc);
  output.write(content.data(), static_cast<std::streamsize>(content.size()));
  output.close();
  if (!encoded || !output) {
    throw HostError(ExitStatus::kOutput, file, "it could not be written",
                    "Check that the folder may be written to and the disk is not full.");
  }
}

}  // namespace marlinda
