#include "editor/view.h"

#include <algorithm>
#include <cmath>

namespace marlinda::editor {
namespace {

std::int64_t DivideUp(std::int64_t value, std::int64_t divisor) {
  return value / divisor + (value % divisor > 0 ? 1 : 0);
}

// Returns the nearest zoom with a whole number of frames per pixel or of pixels per frame.
Zoom NearestZoom(double frames_per_pixel) {
  if (frames_per_pixel >= 1) return {std::llround(frames_per_pixel), 1};
  return {
      1, std::clamp<std::int64_t>(std::llround(1 / frames_per_pixel), 1, View::kMaxPixelsPerFrame)};
}

}  // namespace

void View::SetLength(std::int64_t frames) {
  const bool all = ShowsAll();
  length_ = frames;
  // A document that was wholly visible stays wholly visible while it grows.
  if (all || zoom_.frames > WidestFrames()) ShowAll();
  ScrollTo(origin_);
}

void View::SetWidth(int pixels) {
  const bool all = ShowsAll();
  width_ = std::max(1, pixels);
  if (all || zoom_.frames > WidestFrames()) ShowAll();
  ScrollTo(origin_);
}

std::int64_t View::extent() const { return PixelFromBegin(length_); }

std::int64_t View::PixelFromBegin(std::int64_t frame) const {
  return zoom_.pixels > 1 ? frame * zoom_.pixels : DivideUp(frame, zoom_.frames);
}

std::int64_t View::FrameAt(int x) const {
  const std::int64_t pixel = std::max<std::int64_t>(0, origin_ + x);
  // A pixel between two frames belongs to the nearer frame.
  const std::int64_t frame =
      zoom_.pixels > 1 ? (pixel + zoom_.pixels / 2) / zoom_.pixels : pixel * zoom_.frames;
  return std::min(frame, length_);
}

int View::PixelOf(std::int64_t frame) const {
  constexpr std::int64_t kFar = 1 << 24;
  const std::int64_t pixel =
      (zoom_.pixels > 1 ? frame * zoom_.pixels : frame / zoom_.frames) - origin_;
  return static_cast<int>(std::clamp(pixel, -kFar, kFar));
}

Range View::visible() const {
  const std::int64_t end = origin_ + width_;
  return {origin_ * zoom_.frames / zoom_.pixels,
          std::min(length_, zoom_.pixels > 1 ? DivideUp(end, zoom_.pixels) : end * zoom_.frames)};
}

std::int64_t View::WidestFrames() const {
  return std::max<std::int64_t>(1, DivideUp(length_, width_));
}

void View::ZoomAt(int x, double factor) {
  // Uses the pixel's middle, so that repeated zooming does not drift.
  ZoomAround(std::min(FrameAt(x) + zoom_.frames / 2, length_), x, factor);
}

void View::ZoomAround(std::int64_t frame, int x, double factor) {
  const double now = static_cast<double>(zoom_.frames) / static_cast<double>(zoom_.pixels);
  Zoom next = NearestZoom(now / factor);
  if (next == zoom_) {
    // Changes the zoom by at least one step, because a small factor may round to the same zoom.
    const bool in = factor > 1;
    if (zoom_.frames > 1 || (!in && zoom_.pixels == 1)) {
      next.frames += in ? -1 : 1;
    } else {
      next.pixels += in ? 1 : -1;
    }
  }
  next.frames = std::clamp<std::int64_t>(next.frames, 1, WidestFrames());
  next.pixels = std::clamp<std::int64_t>(next.pixels, 1, kMaxPixelsPerFrame);
  zoom_ = next;
  ScrollTo(frame * zoom_.pixels / zoom_.frames - x);
}

void View::SetZoom(Zoom zoom) {
  zoom_ = zoom;
  ScrollTo(origin_);
}

void View::ShowAll() {
  zoom_ = {WidestFrames(), 1};
  ScrollTo(0);
}

void View::ShowRange(Range range) {
  if (range.empty()) return;
  const double frames_per_pixel = static_cast<double>(range.length()) / width_;
  // Rounds up, so that the range fits even if its first frame begins within a pixel.
  if (frames_per_pixel > 1) {
    const int room = std::max(1, width_ - 1);
    zoom_ = {std::min(DivideUp(range.length(), room), WidestFrames()), 1};
  } else {
    zoom_ = {1, std::clamp<std::int64_t>(width_ / range.length(), 1, kMaxPixelsPerFrame)};
  }
  ScrollTo(range.begin * zoom_.pixels / zoom_.frames);
}

void View::ScrollTo(std::int64_t origin) {
  origin_ = std::clamp<std::int64_t>(origin, 0, std::max<std::int64_t>(0, extent() - width_));
}

void View::MakeVisible(std::int64_t frame) {
  const std::int64_t pixel = frame * zoom_.pixels / zoom_.frames;
  if (pixel < origin_ || pixel >= origin_ + width_) ScrollTo(pixel - width_ / 4);
}

}  // namespace marlinda::editor
