// The visible part of a document. Zooms, scrolls, and converts between frames and pixels.
#pragma once

#include <cstdint>

namespace marlinda::editor {

// A range of frames, `end` exclusive.
struct Range {
  std::int64_t begin = 0;
  std::int64_t end = 0;

  std::int64_t length() const { return end - begin; }
  bool empty() const { return end <= begin; }
  bool Holds(std::int64_t frame) const { return begin <= frame && frame < end; }
  friend bool operator==(const Range&, const Range&) = default;
};

// `frames` frames cover `pixels` pixels. At least one of the numbers is 1. Therefore a column shows
// the same frames at every scroll position.
struct Zoom {
  std::int64_t frames = 1;
  std::int64_t pixels = 1;

  friend bool operator==(const Zoom&, const Zoom&) = default;
};

class View {
 public:
  static constexpr std::int64_t kMaxPixelsPerFrame = 32;

  // Set the document's length in frames and the view's width in pixels. If possible, the first
  // visible frame stays the same.
  void SetLength(std::int64_t frames);
  void SetWidth(int pixels);

  const Zoom& zoom() const { return zoom_; }
  std::int64_t length() const { return length_; }
  int width() const { return width_; }
  // The pixel at the left edge, counted from the start of the document.
  std::int64_t origin() const { return origin_; }
  // The document's width in pixels at this zoom.
  std::int64_t extent() const;

  // Returns the frame at a pixel of the window, limited to the document.
  std::int64_t FrameAt(int x) const;
  // Returns the pixel at which a frame begins. The pixel may be outside the window, but is limited
  // to coordinates that Windows can draw.
  int PixelOf(std::int64_t frame) const;
  Range visible() const;
  bool ShowsAll() const { return origin_ == 0 && extent() <= width_; }

  // Zooms by `factor` (2 shows half as much) and keeps the frame at pixel `x` in place.
  void ZoomAt(int x, double factor);
  // Zooms by `factor` and moves `frame` to pixel `x`.
  void ZoomAround(std::int64_t frame, int x, double factor);
  void SetZoom(Zoom zoom);
  void ShowAll();
  // Zooms and scrolls so that the whole range is visible and as wide as the zoom steps allow.
  void ShowRange(Range range);
  void ScrollTo(std::int64_t origin);
  void ScrollBy(std::int64_t pixels) { ScrollTo(origin_ + pixels); }
  // If the frame is outside the window, scrolls the frame to a quarter of the width.
  void MakeVisible(std::int64_t frame);

 private:
  std::int64_t PixelFromBegin(std::int64_t frame) const;
  std::int64_t WidestFrames() const;

  std::int64_t length_ = 0;
  int width_ = 1;
  Zoom zoom_;
  std::int64_t origin_ = 0;
};

}  // namespace marlinda::editor
