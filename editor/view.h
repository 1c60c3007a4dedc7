// The part of a document that is visible: zoom, scrolling, and positions between frames and pixels.
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

// The zoom: `frames` frames in `pixels` pixels. One of the two is 1, so that columns of several
// frames and points of several pixels lie on a grid which scrolling does not change.
struct Zoom {
  std::int64_t frames = 1;
  std::int64_t pixels = 1;

  friend bool operator==(const Zoom&, const Zoom&) = default;
};

class View {
 public:
  static constexpr std::int64_t kMaxPixelsPerFrame = 32;

  // Document length in frames and width in pixels. The view keeps its begin where it can.
  void SetLength(std::int64_t frames);
  void SetWidth(int pixels);

  const Zoom& zoom() const { return zoom_; }
  std::int64_t length() const { return length_; }
  int width() const { return width_; }
  // The pixel at the left edge, counted from the begin of the document.
  std::int64_t origin() const { return origin_; }
  // All pixels of the document at this zoom.
  std::int64_t extent() const;

  // The frame under a pixel of the window, inside the document or at its end.
  std::int64_t FrameAt(int x) const;
  // The pixel at which a frame begins; outside the window it is negative or beyond the width. Far
  // outside it is limited to what an int of Windows' drawing functions holds.
  int PixelOf(std::int64_t frame) const;
  Range visible() const;
  bool ShowsAll() const { return origin_ == 0 && extent() <= width_; }

  // Zooms by `factor` (2 shows half as much) and keeps the frame under `x` there.
  void ZoomAt(int x, double factor);
  // The same for a frame that is to be at `x` afterwards.
  void ZoomAround(std::int64_t frame, int x, double factor);
  void SetZoom(Zoom zoom);
  void ShowAll();
  // Zooms so that the range fills the window.
  void ShowRange(Range range);
  void ScrollTo(std::int64_t origin);
  void ScrollBy(std::int64_t pixels) { ScrollTo(origin_ + pixels); }
  // Scrolls only if the frame is outside: then it lies a quarter from the left edge.
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
