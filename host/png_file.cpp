#include "host/png_file.h"

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

#include <filesystem>
#include <fstream>
#include <new>
#include <system_error>

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

}  // namespace marlinda
