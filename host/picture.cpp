#include "host/picture.h"

#include <stb/stb_easy_font.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <span>
#include <string>

namespace marlinda {
namespace {

// Longer texts are cut: the font library fills a buffer that the caller sizes.
constexpr std::size_t kLongestText = 256;

// A corner as the font library writes it; four make a rectangle.
struct Corner {
  float x, y, z;
  std::array<unsigned char, 4> colour;
};
using Quad = std::array<Corner, 4>;
// The library's own figure is 270 bytes a character; 300 leaves room.
constexpr std::size_t kQuadsOfLongestText = kLongestText * 300 / sizeof(Quad);

std::string Drawable(std::string_view text) {
  std::string drawable;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    const bool continues_character = (byte & 0xC0U) == 0x80U;
    if (continues_character) continue;
    drawable += byte >= 32 && byte < 127 ? c : '?';
  }
  return drawable.substr(0, kLongestText);
}

}  // namespace

Picture::Picture(int width, int height, Colour background)
    : width_(width),
      height_(height),
      bytes_(3 * static_cast<std::size_t>(width) * static_cast<std::size_t>(height)) {
  Fill(0, 0, width, height, background);
}

Colour Picture::At(int x, int y) const {
  const std::size_t place = 3 * (static_cast<std::size_t>(y) * static_cast<std::size_t>(width_) +
                                 static_cast<std::size_t>(x));
  return {bytes_.at(place), bytes_.at(place + 1), bytes_.at(place + 2)};
}

void Picture::Fill(int x, int y, int width, int height, Colour colour) {
  const int right = std::min(x + width, width_);
  const int bottom = std::min(y + height, height_);
  for (int row = std::max(y, 0); row < bottom; ++row) {
    for (int column = std::max(x, 0); column < right; ++column) {
      std::uint8_t* const pixel =
          &bytes_[3 * (static_cast<std::size_t>(row) * static_cast<std::size_t>(width_) +
                       static_cast<std::size_t>(column))];
      pixel[0] = colour.red;
      pixel[1] = colour.green;
      pixel[2] = colour.blue;
    }
  }
}

void Picture::DrawText(int x, int y, std::string_view text, Colour colour) {
  std::string drawable = Drawable(text);
  std::vector<Quad> quads(kQuadsOfLongestText);
  const int count =
      stb_easy_font_print(static_cast<float>(x), static_cast<float>(y), drawable.data(), nullptr,
                          quads.data(), static_cast<int>(quads.size() * sizeof(Quad)));
  for (const Quad& quad : std::span(quads).first(static_cast<std::size_t>(count))) {
    const auto left = static_cast<int>(std::lround(quad[0].x));
    const auto top = static_cast<int>(std::lround(quad[0].y));
    Fill(left, top, static_cast<int>(std::lround(quad[2].x)) - left,
         static_cast<int>(std::lround(quad[2].y)) - top, colour);
  }
}

int TextWidth(std::string_view text) {
  std::string drawable = Drawable(text);
  return stb_easy_font_width(drawable.data());
}

}  // namespace marlinda
