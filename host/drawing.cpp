#include "host/drawing.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <string_view>
#include <utility>

// Replaces the rasteriser's vertex type, whose short integers would limit the size and precision of
// pictures.
struct RasterVertex {
  float x, y, cx, cy, cx1, cy1;
  unsigned char type, padding;
};
#define stbtt_vertex RasterVertex
#define stbtt_vertex_type float
#define STBTT_STATIC
#define STBTT_assert(condition) static_cast<void>(condition)
#define STB_TRUETYPE_IMPLEMENTATION
#include <stb/stb_truetype.h>

namespace marlinda {
namespace {

// Maximum distance in pixels between a curve and the lines that approximate it.
constexpr float kFlatness = 0.1F;

RasterVertex ToVertex(const Outline::Step& step) {
  constexpr std::array<unsigned char, 3> kTypes = {STBTT_vmove, STBTT_vline, STBTT_vcubic};
  const auto narrow = [](double value) { return static_cast<float>(value); };
  return {narrow(step.to.x),
          narrow(step.to.y),
          narrow(step.control1.x),
          narrow(step.control1.y),
          narrow(step.control2.x),
          narrow(step.control2.y),
          kTypes.at(static_cast<std::size_t>(step.kind)),
          0};
}

// Returns the number with two decimals at most, without trailing zeros.
std::string Coordinate(double value) {
  char text[32];
  std::snprintf(text, sizeof text, "%.7g", std::round(value * 100) / 100);
  return text;
}

std::string Pair(Point point) { return Coordinate(point.x) + " " + Coordinate(point.y); }

std::string HexOf(Colour colour) {
  char text[16];
  std::snprintf(text, sizeof text, "#%02x%02x%02x", colour.red, colour.green, colour.blue);
  return text;
}

}  // namespace

void Outline::AddPolygon(const std::vector<Point>& corners) {
  for (const Point& corner : corners) {
    if (&corner == &corners.front()) {
      MoveTo(corner);
    } else {
      LineTo(corner);
    }
  }
}

void Outline::AddLine(Point from, Point to, double width) {
  const double length = std::max(std::hypot(to.x - from.x, to.y - from.y), 1e-9);
  const double x = (from.y - to.y) / length * width / 2;
  const double y = (to.x - from.x) / length * width / 2;
  AddPolygon({{from.x + x, from.y + y},
              {to.x + x, to.y + y},
              {to.x - x, to.y - y},
              {from.x - x, from.y - y}});
}

Drawing::Drawing(int width, int height, Colour background) : width_(width), height_(height) {
  FillRectangle(0, 0, width, height, background);
}

void Drawing::Fill(Outline outline, Colour colour, double opacity, Point offset) {
  shapes_.push_back({std::move(outline), colour, opacity, offset});
}

void Drawing::FillRectangle(double x, double y, double width, double height, Colour colour,
                            double opacity) {
  Outline outline;
  outline.AddPolygon({{x, y}, {x + width, y}, {x + width, y + height}, {x, y + height}});
  Fill(std::move(outline), colour, opacity);
}

std::vector<std::uint8_t> Drawing::Pixels() const {
  const auto stride = 3 * static_cast<std::size_t>(width_);
  std::vector<std::uint8_t> pixels(stride * static_cast<std::size_t>(height_));
  std::vector<unsigned char> coverage;
  std::vector<RasterVertex> vertices;
  for (const auto& [outline, colour, opacity, offset] : shapes_) {
    // The rectangle of pixels that the shape may touch. It encloses the curves' control points.
    double left = width_;
    double top = height_;
    double right = 0;
    double bottom = 0;
    vertices.clear();
    for (const Outline::Step& step : outline.steps()) {
      const bool curves = step.kind == Outline::Step::Kind::kCurve;
      for (const Point& point :
           {step.to, curves ? step.control1 : step.to, curves ? step.control2 : step.to}) {
        left = std::min(left, point.x + offset.x);
        right = std::max(right, point.x + offset.x);
        top = std::min(top, point.y + offset.y);
        bottom = std::max(bottom, point.y + offset.y);
      }
      vertices.push_back(ToVertex(step));
    }
    const auto x = static_cast<int>(std::floor(std::max(left, 0.0)));
    const auto y = static_cast<int>(std::floor(std::max(top, 0.0)));
    const int width = static_cast<int>(std::ceil(std::min<double>(right, width_))) - x;
    const int height = static_cast<int>(std::ceil(std::min<double>(bottom, height_))) - y;
    if (width <= 0 || height <= 0) continue;
    coverage.assign(static_cast<std::size_t>(width) * static_cast<std::size_t>(height), 0);
    stbtt__bitmap bitmap{width, height, width, coverage.data()};
    stbtt_Rasterize(&bitmap, kFlatness, vertices.data(), static_cast<int>(vertices.size()), 1, 1,
                    static_cast<float>(offset.x), static_cast<float>(offset.y), x, y, 0, nullptr);
    for (int row = 0; row < height; ++row) {
      std::uint8_t* pixel =
          &pixels[static_cast<std::size_t>(y + row) * stride + 3 * static_cast<std::size_t>(x)];
      const unsigned char* covered =
          &coverage[static_cast<std::size_t>(row) * static_cast<std::size_t>(width)];
      for (int column = 0; column < width; ++column, ++covered) {
        const double share = opacity * *covered / 255.0;
        if (share == 0) {
          pixel += 3;
          continue;
        }
        for (const std::uint8_t value : {colour.red, colour.green, colour.blue}) {
          *pixel = static_cast<std::uint8_t>(std::lround(*pixel + (value - *pixel) * share));
          ++pixel;
        }
      }
    }
  }
  return pixels;
}

std::string Drawing::Svg() const {
  const std::string size =
      "width=\"" + std::to_string(width_) + "\" height=\"" + std::to_string(height_) + "\"";
  std::string svg = "<svg xmlns=\"http://www.w3.org/2000/svg\" version=\"1.1\" " + size + ">\n";
  for (const auto& [outline, colour, opacity, offset] : shapes_) {
    svg += "<path fill=\"" + HexOf(colour) + "\"";
    if (opacity < 1) svg += " fill-opacity=\"" + Coordinate(opacity) + "\"";
    if (offset.x != 0 || offset.y != 0) svg += " transform=\"translate(" + Pair(offset) + ")\"";
    svg += " d=\"";
    for (const Outline::Step& step : outline.steps()) {
      constexpr std::string_view kLetters = "MLC";
      svg += kLetters.at(static_cast<std::size_t>(step.kind));
      if (step.kind == Outline::Step::Kind::kCurve)
        svg += Pair(step.control1) + " " + Pair(step.control2) + " ";
      svg += Pair(step.to);
    }
    svg += "\"/>\n";
  }
  return svg + "</svg>\n";
}

}  // namespace marlinda
