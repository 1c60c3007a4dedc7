#include "editor/painter.h"

#include <algorithm>
#include <array>
#include <cmath>

#include "host/wide_text.h"

namespace marlinda::editor {
namespace {

constexpr float kFloorDecibels = -60;
constexpr int kNamePad = 4;  // pixels at 96 DPI

RECT Inset(RECT area, int x, int y) {
  InflateRect(&area, -x, -y);
  return area;
}

int Center(const RECT& lane) { return (lane.top + lane.bottom) / 2; }

}  // namespace

float DecibelHeight(float level) {
  if (!(level > 0)) return 0;
  return std::clamp(1 - 20 * std::log10(level) / kFloorDecibels, 0.0F, 1.0F);
}

bool SystemIsDark() {
  DWORD light = 1;
  DWORD size = sizeof light;
  RegGetValueW(HKEY_CURRENT_USER,
               L"Software\\Microsoft\\Windows\\CurrentVersion\\Themes\\Personalize",
               L"AppsUseLightTheme", RRF_RT_REG_DWORD, nullptr, &light, &size);
  return light == 0;
}

Theme::Theme(bool dark)
    : window(dark ? RGB(0x1c, 0x1f, 0x24) : RGB(0xf1, 0xf3, 0xf5)),
      lane(dark ? RGB(0x24, 0x28, 0x2f) : RGB(0xff, 0xff, 0xff)),
      grid(dark ? RGB(0x34, 0x3a, 0x43) : RGB(0xe2, 0xe6, 0xea)),
      axis(dark ? RGB(0x5a, 0x63, 0x70) : RGB(0xb8, 0xc0, 0xc8)),
      text(dark ? RGB(0xc4, 0xcb, 0xd4) : RGB(0x3d, 0x46, 0x50)),
      wave(dark ? RGB(0x4f, 0xb8, 0xa8) : RGB(0x1f, 0x84, 0x78)),
      selection(dark ? RGB(0x2f, 0x47, 0x5c) : RGB(0xcf, 0xe3, 0xf5)),
      selected_wave(dark ? RGB(0x9a, 0xe2, 0xd6) : RGB(0x0e, 0x5c, 0x66)),
      cursor(dark ? RGB(0xe8, 0xea, 0xed) : RGB(0x22, 0x28, 0x30)),
      playhead(dark ? RGB(0xff, 0x7b, 0x54) : RGB(0xd9, 0x48, 0x1c)),
      label(dark ? RGB(0xf0, 0xc2, 0x4b) : RGB(0xa8, 0x74, 0x00)),
      section(dark ? RGB(0x3f, 0x51, 0x7a) : RGB(0xc9, 0xd4, 0xee)),
      section_text(dark ? RGB(0xd5, 0xde, 0xf2) : RGB(0x2a, 0x3d, 0x6b)),
      low(dark ? RGB(0x4c, 0xb0, 0x6a) : RGB(0x3a, 0xa3, 0x5b)),
      middle(RGB(0xe3, 0xb3, 0x41)),
      high(RGB(0xe0, 0x4f, 0x44)),
      strip(dark ? RGB(0x2b, 0x30, 0x38) : RGB(0xe2, 0xe6, 0xea)),
      thumb(dark ? RGB(0x56, 0x60, 0x6e) : RGB(0xb3, 0xbc, 0xc6)),
      recording(dark ? RGB(0xf0, 0x6a, 0x6a) : RGB(0xc2, 0x35, 0x35)) {}

Layout::Layout(SIZE size, int dots) : dpi(dots), client(size) {
  const int left = Scale(48);
  const LONG right = std::max<LONG>(left + 1, size.cx - Scale(40));
  LONG y = 0;
  const auto row = [&](int height) {
    const RECT area = {left, y, right, y + Scale(height)};
    y = area.bottom;
    return area;
  };
  ruler = row(26);
  labels = row(20);
  sections = row(20);
  lanes = {left, y + Scale(2), right, std::max<LONG>(y + Scale(3), size.cy - Scale(20))};
  gutter = {0, lanes.top, left, lanes.bottom};
  meters = {right, lanes.top, size.cx, lanes.bottom};
  strip = {left, lanes.bottom + Scale(6), right, lanes.bottom + Scale(14)};
}

RECT Layout::Lane(int channel, int channels) const {
  const LONG height = lanes.bottom - lanes.top;
  const int gap = channel + 1 < channels ? Scale(6) : 0;
  return {lanes.left, lanes.top + height * channel / channels, lanes.right,
          lanes.top + height * (channel + 1) / channels - gap};
}

RECT Layout::Thumb(const View& view) const {
  const std::int64_t width = strip.right - strip.left;
  const std::int64_t extent = std::max<std::int64_t>(view.extent(), view.width());
  // Uses doubles, because at a close zoom the product of origin and width can exceed 2^63.
  const double scale = static_cast<double>(width) / static_cast<double>(extent);
  const auto thumb =
      std::max<LONG>(Scale(16), static_cast<LONG>(static_cast<double>(view.width()) * scale));
  const auto left = static_cast<LONG>(static_cast<double>(view.origin()) * scale);
  const LONG begin = std::clamp<LONG>(left, 0, std::max<LONG>(0, static_cast<LONG>(width) - thumb));
  return {strip.left + begin, strip.top, strip.left + begin + thumb, strip.bottom};
}

void Painter::SetLook(bool dark, int dpi) {
  theme_ = Theme(dark);
  font_.Reset(CreateFontW(-MulDiv(9, dpi, 72), 0, 0, 0, FW_NORMAL, FALSE, FALSE, FALSE,
                          DEFAULT_CHARSET, OUT_DEFAULT_PRECIS, CLIP_DEFAULT_PRECIS,
                          CLEARTYPE_QUALITY, DEFAULT_PITCH | FF_SWISS, L"Segoe UI"));
}

int Painter::FlagWidth(const std::string& name, const Layout& layout) const {
  const std::wstring text = Widen(name);
  const HDC screen = GetDC(nullptr);
  const HGDIOBJ old = SelectObject(screen, font_.get());
  SIZE size = {};
  GetTextExtentPoint32W(screen, text.c_str(), static_cast<int>(text.size()), &size);
  SelectObject(screen, old);
  ReleaseDC(nullptr, screen);
  return size.cx + 2 * layout.Scale(kNamePad);
}

void Painter::Fill(const RECT& area, COLORREF color) {
  SetDCBrushColor(dc_, color);
  FillRect(dc_, &area, static_cast<HBRUSH>(GetStockObject(DC_BRUSH)));
}

void Painter::Line(int x0, int y0, int x1, int y1, COLORREF color) {
  Fill({std::min(x0, x1), std::min(y0, y1), std::max(x0, x1) + (x0 == x1 ? 1 : 0),
        std::max(y0, y1) + (y0 == y1 ? 1 : 0)},
       color);
}

void Painter::Text(const std::string& text, RECT area, COLORREF color, UINT format) {
  SetTextColor(dc_, color);
  DrawTextW(dc_, Widen(text).c_str(), -1, &area, format | DT_SINGLELINE | DT_NOPREFIX | DT_VCENTER);
}

bool Painter::Touches(const RECT& area) const {
  RECT ignored;
  return IntersectRect(&ignored, &area, &update_) != FALSE;
}

void Painter::Paint(HDC target, const RECT& update, const Layout& layout, const Scene& scene) {
  dc_ = buffer_.Prepare(target, layout.client);
  if (dc_ == nullptr) return;
  update_ = update;
  layout_ = &layout;
  scene_ = &scene;
  const int saved = SaveDC(dc_);
  IntersectClipRect(dc_, update.left, update.top, update.right, update.bottom);
  SelectObject(dc_, font_.get());
  SelectObject(dc_, GetStockObject(DC_BRUSH));
  SelectObject(dc_, GetStockObject(DC_PEN));
  SetBkMode(dc_, TRANSPARENT);
  Fill(update, theme_.window);
  if (scene.rate > 0) {
    PaintRuler();
    for (int channel = 0; channel < scene.waveform->channels(); ++channel) {
      const RECT lane = layout.Lane(channel, scene.waveform->channels());
      PaintLane(channel, lane);
      PaintScale(lane);
      PaintMeter(channel, lane);
    }
    PaintNames();
    PaintPositions();
  } else {
    Fill(layout.lanes, theme_.lane);
    PaintHint();
  }
  PaintStrip();
  RestoreDC(dc_, saved);
  BitBlt(target, update.left, update.top, update.right - update.left, update.bottom - update.top,
         dc_, update.left, update.top, SRCCOPY);
}

void Painter::PaintHint() {
  RECT area = layout_->lanes;
  const int line = layout_->Scale(24);
  area.top = Center(area) - line;
  area.bottom = area.top + line;
  Text("Open a file with Ctrl+O, drop files here, or press R to record", area, theme_.text,
       DT_CENTER);
}

void Painter::PaintRuler() {
  const RECT& ruler = layout_->ruler;
  if (!Touches(ruler) && !Touches(layout_->lanes)) return;
  const int spacing = layout_->Scale(scene_->unit == RulerUnit::kTime ? 90 : 110);
  const int saved = SaveDC(dc_);
  IntersectClipRect(dc_, ruler.left, ruler.top, layout_->client.cx, ruler.bottom);
  for (const Tick& tick : RulerTicks(*scene_->view, scene_->rate, scene_->unit, spacing)) {
    const int x = ruler.left + tick.x;
    if (x >= ruler.right) break;
    const bool minor = tick.text.empty();
    Line(x, ruler.bottom - layout_->Scale(minor ? 4 : 10), x, ruler.bottom,
         minor ? theme_.axis : theme_.text);
    if (minor) continue;
    Text(tick.text,
         {x + layout_->Scale(4), ruler.top, x + spacing, ruler.bottom - layout_->Scale(2)},
         theme_.text, DT_LEFT);
  }
  RestoreDC(dc_, saved);
}

int Painter::YOf(float value, const RECT& lane) const {
  float height = std::clamp(value, -1.0F, 1.0F);
  if (scene_->decibels) height = std::copysign(DecibelHeight(std::abs(height)), height);
  const auto half = static_cast<float>((lane.bottom - lane.top) / 2 - 1);
  return Center(lane) - static_cast<int>(std::lround(height * half));
}

void Painter::PaintLane(int channel, const RECT& lane) {
  if (!Touches(lane)) return;
  const View& view = *scene_->view;
  const int saved = SaveDC(dc_);
  IntersectClipRect(dc_, lane.left, lane.top, lane.right, lane.bottom);
  const LONG end = lane.left + std::max(0, view.PixelOf(view.length()));
  Fill({lane.left, lane.top, std::min(end, lane.right), lane.bottom}, theme_.lane);
  if (!scene_->selection.empty()) {
    Fill({lane.left + view.PixelOf(scene_->selection.begin), lane.top,
          lane.left + view.PixelOf(scene_->selection.end), lane.bottom},
         theme_.selection);
  }
  for (const float level : scene_->decibels ? std::array{0.1F, 0.01F} : std::array{0.5F, 0.25F}) {
    for (const float value : {level, -level}) {
      Line(lane.left, YOf(value, lane), lane.right, YOf(value, lane), theme_.grid);
    }
  }
  Line(lane.left, Center(lane), lane.right, Center(lane), theme_.axis);
  if (view.zoom().pixels > 1) {
    PaintPoints(channel, lane);
  } else {
    PaintColumns(channel, lane);
  }
  RestoreDC(dc_, saved);
}

void Painter::PaintColumns(int channel, const RECT& lane) {
  const View& view = *scene_->view;
  const Waveform& wave = *scene_->waveform;
  const int first = std::max(update_.left, lane.left) - lane.left;
  const int last = std::min(update_.right, lane.right) - lane.left;
  const int chosen_begin = view.PixelOf(scene_->selection.begin);
  const int chosen_end =
      scene_->selection.empty() ? chosen_begin : view.PixelOf(scene_->selection.end);
  COLORREF color = scene_->recording ? theme_.recording : theme_.wave;
  SetDCBrushColor(dc_, color);
  for (int x = first; x < last; ++x) {
    const std::int64_t column = view.origin() + x;
    if (column < wave.begin() || column >= wave.end()) continue;
    const Extremes& now = wave.At(column, channel);
    int top = YOf(std::max(now.lowest, now.highest), lane);
    int bottom = YOf(std::min(now.lowest, now.highest), lane) + 1;
    if (column > wave.begin()) {
      // Closes the gap to the previous column.
      const Extremes& before = wave.At(column - 1, channel);
      top = std::min(top, YOf(std::min(before.lowest, before.highest), lane));
      bottom = std::max(bottom, YOf(std::max(before.lowest, before.highest), lane) + 1);
    }
    const COLORREF wanted = x >= chosen_begin && x < chosen_end ? theme_.selected_wave
                            : scene_->recording                 ? theme_.recording
                                                                : theme_.wave;
    if (wanted != color) SetDCBrushColor(dc_, color = wanted);
    PatBlt(dc_, lane.left + x, top, 1, bottom - top, PATCOPY);
  }
}

void Painter::PaintPoints(int channel, const RECT& lane) {
  const View& view = *scene_->view;
  const Waveform& wave = *scene_->waveform;
  const auto pixels = static_cast<LONG>(view.zoom().pixels);
  // Includes points just outside the area, because the lines to these points cross the area.
  const std::int64_t first = std::max<std::int64_t>(
      wave.begin(), view.FrameAt(std::max(update_.left, lane.left) - lane.left) - 2);
  const std::int64_t last = std::min<std::int64_t>(
      wave.end(), view.FrameAt(std::min(update_.right, lane.right) - lane.left) + 3);
  std::vector<POINT> points;
  for (std::int64_t frame = first; frame < last; ++frame) {
    points.push_back({lane.left + view.PixelOf(frame), YOf(wave.At(frame, channel).highest, lane)});
  }
  if (points.empty()) return;
  SetDCPenColor(dc_, theme_.wave);
  Polyline(dc_, points.data(), static_cast<int>(points.size()));
  if (pixels < layout_->Scale(6)) return;
  const int radius = layout_->Scale(2);
  for (const POINT& point : points) {
    Fill({point.x - radius, point.y - radius, point.x + radius + 1, point.y + radius + 1},
         theme_.wave);
  }
}

void Painter::PaintScale(const RECT& lane) {
  const RECT area = {layout_->gutter.left, lane.top, layout_->gutter.right, lane.bottom};
  if (!Touches(area)) return;
  const auto mark = [&](float value, const char* text) {
    const int y = YOf(value, lane);
    const int half = layout_->Scale(8);
    RECT place = {area.left, y - half, area.right - layout_->Scale(6), y + half};
    if (place.top < lane.top) OffsetRect(&place, 0, lane.top - place.top);
    if (place.bottom > lane.bottom) OffsetRect(&place, 0, lane.bottom - place.bottom);
    Text(text, place, theme_.text, DT_RIGHT);
  };
  const bool tall = lane.bottom - lane.top > layout_->Scale(110);
  mark(0, scene_->decibels ? "-\u221e" : "0");
  if (scene_->decibels) {
    mark(1, "0 dB");
    mark(-1, "0 dB");
    if (tall) mark(0.1F, "-20"), mark(-0.1F, "-20"), mark(0.01F, "-40"), mark(-0.01F, "-40");
  } else {
    mark(1, "1.0");
    mark(-1, "-1.0");
    if (tall) mark(0.5F, "0.5"), mark(-0.5F, "-0.5");
  }
}

void Painter::PaintMeter(int channel, const RECT& lane) {
  const RECT area = {layout_->meters.left, lane.top, layout_->meters.right, lane.bottom};
  if (!Touches(area)) return;
  RECT bar = Inset(area, layout_->Scale(12), layout_->Scale(1));
  Fill(bar, theme_.strip);
  const auto index = static_cast<std::size_t>(channel);
  if (index >= scene_->levels.size()) return;
  const auto height = static_cast<float>(bar.bottom - bar.top);
  const auto y_of = [&](float part) {
    return bar.bottom - static_cast<LONG>(std::lround(part * height));
  };
  const float level = DecibelHeight(scene_->levels[index]);
  const struct {
    float from;
    COLORREF color;
  } zones[] = {
      {0, theme_.low}, {DecibelHeight(0.25F), theme_.middle}, {DecibelHeight(0.9F), theme_.high}};
  for (const auto& [from, color] : zones) {
    if (level > from) Fill({bar.left, y_of(level), bar.right, y_of(from)}, color);
  }
  if (index < scene_->peaks.size() && scene_->peaks[index] > 0) {
    const LONG y = y_of(DecibelHeight(scene_->peaks[index]));
    Fill({bar.left, y, bar.right, y + layout_->Scale(2)}, theme_.text);
  }
}

void Painter::PaintNames() {
  const View& view = *scene_->view;
  if (scene_->annotations == nullptr) return;
  const int least = layout_->Scale(14);
  const int pad = layout_->Scale(kNamePad);
  struct Name {
    int x;
    int end;  // the right end of a section
    LONG index;
    const std::string* text;
  };
  const auto paint = [&](const RECT& row, MarkKind kind, std::vector<Name> names) {
    std::ranges::stable_sort(names, {}, &Name::x);
    std::vector<int> xs;
    for (const Name& name : names) xs.push_back(std::max(0, name.x));
    const std::vector<int> room = RoomForNames(xs, row.right - row.left, least);
    for (std::size_t i = 0; i < names.size(); ++i) {
      const Name& name = names[i];
      const bool chosen = scene_->mark == Mark{kind, name.index};
      const int x = row.left + xs[i];
      if (kind == MarkKind::kLabel) {
        Line(row.left + name.x, row.top, row.left + name.x, layout_->lanes.bottom, theme_.label);
        if (room[i] == 0) continue;
        RECT flag = {x, row.top + layout_->Scale(2), x + room[i] - layout_->Scale(2),
                     row.bottom - layout_->Scale(2)};
        flag.right = std::min<LONG>(flag.right, flag.left + FlagWidth(*name.text, *layout_));
        if (chosen) Fill(flag, theme_.label);
        Text(*name.text, Inset(flag, pad, 0), chosen ? theme_.window : theme_.label,
             DT_LEFT | DT_END_ELLIPSIS);
        continue;
      }
      const int right = row.left + std::min<int>(name.end, row.right - row.left);
      RECT band = {row.left + std::max(0, name.x), row.top + layout_->Scale(2),
                   std::max(x + 1, right), row.bottom - layout_->Scale(2)};
      Fill(band, chosen ? theme_.section_text : theme_.section);
      for (const int edge : {name.x, name.end}) {
        Line(row.left + edge, row.top, row.left + edge, layout_->lanes.bottom, theme_.section);
      }
      band.right = std::min<LONG>(band.right, x + room[i]);
      if (room[i] == 0 || band.right - band.left < least) continue;
      Text(*name.text, Inset(band, pad, 0), chosen ? theme_.window : theme_.section_text,
           DT_LEFT | DT_END_ELLIPSIS);
    }
  };
  const RECT all = {layout_->labels.left, layout_->labels.top, layout_->labels.right,
                    layout_->lanes.bottom};
  if (!Touches(all)) return;
  const int saved = SaveDC(dc_);
  IntersectClipRect(dc_, all.left, all.top, all.right, all.bottom);
  const int width = view.width();
  std::vector<Name> names;
  for (LONG index = 0; const SectionMarker& marker : scene_->annotations->markers) {
    const Name name = {view.PixelOf(marker.section.begin), view.PixelOf(marker.section.end),
                       index++, &marker.name};
    if (name.x < width && name.end >= 0) names.push_back(name);
  }
  paint(layout_->sections, MarkKind::kSection, std::move(names));
  names.clear();
  for (LONG index = 0; const Label& label : scene_->annotations->labels) {
    const Name name = {view.PixelOf(label.position), 0, index++, &label.name};
    if (name.x >= 0 && name.x < width) names.push_back(name);
  }
  paint(layout_->labels, MarkKind::kLabel, std::move(names));
  RestoreDC(dc_, saved);
}

void Painter::PaintPositions() {
  const View& view = *scene_->view;
  const RECT& lanes = layout_->lanes;
  const int saved = SaveDC(dc_);
  IntersectClipRect(dc_, lanes.left, layout_->ruler.top, lanes.right, lanes.bottom);
  if (scene_->selection.empty() && !scene_->recording) {
    const int x = lanes.left + view.PixelOf(scene_->cursor);
    Line(x, layout_->ruler.bottom - layout_->Scale(6), x, lanes.bottom, theme_.cursor);
  }
  if (scene_->playhead) {
    const int x = lanes.left + view.PixelOf(*scene_->playhead);
    Fill({x, layout_->ruler.bottom - layout_->Scale(12), x + layout_->Scale(2), lanes.bottom},
         theme_.playhead);
  }
  RestoreDC(dc_, saved);
}

void Painter::PaintStrip() {
  if (!Touches(layout_->strip)) return;
  Fill(layout_->strip, theme_.strip);
  if (scene_->progress) {
    RECT done = layout_->strip;
    done.right = done.left +
                 static_cast<LONG>(*scene_->progress * static_cast<float>(done.right - done.left));
    return Fill(done, theme_.wave);
  }
  if (scene_->rate > 0) Fill(layout_->Thumb(*scene_->view), theme_.thumb);
}

}  // namespace marlinda::editor
