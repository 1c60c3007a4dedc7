// A drawing of filled shapes, output as pixels or SVG. Lengths are pixels; y points down.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace marlinda {

struct Colour {
  std::uint8_t red = 0;
  std::uint8_t green = 0;
  std::uint8_t blue = 0;
  friend bool operator==(const Colour&, const Colour&) = default;
};

struct Point {
  double x = 0;
  double y = 0;
};

// One or more closed outlines, filled by the non-zero rule: an area inside two outlines is filled
// if they have the same direction, and empty if they have opposite directions.
class Outline {
 public:
  // A move, straight line or cubic Bézier curve to `to`.
  struct Step {
    enum class Kind : std::uint8_t { kMove, kLine, kCurve };
    Kind kind = Kind::kMove;
    Point to;
    Point control1 = {};
    Point control2 = {};
  };

  void MoveTo(Point to) { steps_.push_back({Step::Kind::kMove, to}); }
  void LineTo(Point to) { steps_.push_back({Step::Kind::kLine, to}); }
  void CurveTo(Point control1, Point control2, Point to) {
    steps_.push_back({Step::Kind::kCurve, to, control1, control2});
  }
  void AddPolygon(const std::vector<Point>& corners);
  // Adds a straight line of the given width.
  void AddLine(Point from, Point to, double width);

  const std::vector<Step>& steps() const noexcept { return steps_; }

 private:
  std::vector<Step> steps_;
};

class Drawing {
 public:
  Drawing(int width, int height, Colour background);

  int width() const noexcept { return width_; }
  int height() const noexcept { return height_; }

  // Adds a shape, which covers earlier shapes. Opacity is 0 to 1.
  void Fill(Outline outline, Colour colour, double opacity = 1, Point offset = {});
  void FillRectangle(double x, double y, double width, double height, Colour colour,
                     double opacity = 1);

  // Returns packed RGB rows from the top, three bytes a pixel. Edges are smooth.
  std::vector<std::uint8_t> Pixels() const;
  // Returns SVG 1.1 in UTF-8.
  std::string Svg() const;

 private:
  struct Shape {
    Outline outline;
    Colour colour;
    double opacity;
    Point offset;
  };

  int width_;
  int height_;
  std::vector<Shape> shapes_;
};

}  // namespace marlinda
