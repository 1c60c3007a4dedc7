// A picture in memory: rectangles and short texts on RGB pixels. Whatever lies outside is clipped.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

namespace marlinda {

struct Colour {
  std::uint8_t red = 0;
  std::uint8_t green = 0;
  std::uint8_t blue = 0;
  friend bool operator==(const Colour&, const Colour&) = default;
};

class Picture {
 public:
  Picture(int width, int height, Colour background);

  int width() const noexcept { return width_; }
  int height() const noexcept { return height_; }

  // Rows from the top, three bytes a pixel, nothing between them.
  const std::vector<std::uint8_t>& bytes() const noexcept { return bytes_; }
  // The pixel must lie inside.
  Colour At(int x, int y) const;

  void Fill(int x, int y, int width, int height, Colour colour);

  // One line of text with its upper left corner at (x, y). The font has ASCII alone: any other byte
  // sequence is drawn as one question mark.
  void DrawText(int x, int y, std::string_view text, Colour colour);

 private:
  int width_;
  int height_;
  std::vector<std::uint8_t> bytes_;
};

constexpr int kTextHeight = 10;

// Pixels that DrawText takes from left to right.
int TextWidth(std::string_view text);

}  // namespace marlinda
