// Draws the window's content: ruler, names, waveform lanes, meters and the scroll strip.
#pragma once

#include <windows.h>

#include <optional>
#include <string>
#include <vector>

#include "editor/gdi.h"
#include "editor/ruler.h"
#include "editor/view.h"
#include "editor/waveform.h"
#include "host/annotations.h"

namespace marlinda::editor {

enum class MarkKind { kNone, kLabel, kSection };

// Identifies a label or section of the document by its index.
struct Mark {
  MarkKind kind = MarkKind::kNone;
  LONG index = 0;

  friend bool operator==(const Mark&, const Mark&) = default;
};

// The state to draw.
struct Scene {
  const View* view = nullptr;
  const Waveform* waveform = nullptr;
  const Annotations* annotations = nullptr;
  LONG rate = 0;  // 0: no audio
  Range selection;
  std::int64_t cursor = 0;
  std::optional<std::int64_t> playhead;
  Mark mark;  // the selected label or section
  std::vector<float> levels;
  std::vector<float> peaks;  // the highest recent levels
  bool recording = false;
  bool decibels = false;
  RulerUnit unit = RulerUnit::kTime;
  std::optional<float> progress;  // the progress of a file job
};

// Positions of the window's parts.
struct Layout {
  Layout() = default;
  Layout(SIZE client, int dpi);

  int Scale(int at_96_dpi) const { return MulDiv(at_96_dpi, dpi, 96); }
  RECT Lane(int channel, int channels) const;
  // The part of the scroll strip that represents the visible range.
  RECT Thumb(const View& view) const;

  int dpi = 96;
  SIZE client = {};
  RECT ruler = {};
  RECT labels = {};
  RECT sections = {};
  RECT lanes = {};  // as wide as the view
  RECT gutter = {};
  RECT meters = {};
  RECT strip = {};
};

struct Theme {
  explicit Theme(bool dark);

  COLORREF window, lane, grid, axis, text, wave, selection, selected_wave, cursor, playhead, label,
      section, section_text, low, middle, high, strip, thumb, recording;
};

// True if Windows is set to dark mode for applications.
bool SystemIsDark();

class Painter {
 public:
  Painter(bool dark, int dpi) : theme_(dark) { SetLook(dark, dpi); }

  void SetLook(bool dark, int dpi);
  const Theme& theme() const { return theme_; }
  HFONT font() const { return font_.get(); }
  // Returns the width that a label's flag (the box of its name) needs to show the whole name.
  int FlagWidth(const std::string& name, const Layout& layout) const;

  // Draws the part of the scene inside `update`.
  void Paint(HDC target, const RECT& update, const Layout& layout, const Scene& scene);

 private:
  void Fill(const RECT& area, COLORREF color);
  void Line(int x0, int y0, int x1, int y1, COLORREF color);
  void Text(const std::string& text, RECT area, COLORREF color, UINT format);
  bool Touches(const RECT& area) const;

  void PaintRuler();
  void PaintNames();
  void PaintLane(int channel, const RECT& lane);
  void PaintColumns(int channel, const RECT& lane);
  void PaintPoints(int channel, const RECT& lane);
  void PaintScale(const RECT& lane);
  void PaintMeter(int channel, const RECT& lane);
  void PaintPositions();
  void PaintStrip();
  void PaintHint();
  // Returns the y coordinate of a sample value in a lane.
  int YOf(float value, const RECT& lane) const;

  Theme theme_;
  Font font_;
  BackBuffer buffer_;
  // Set during Paint.
  HDC dc_ = nullptr;
  RECT update_ = {};
  const Layout* layout_ = nullptr;
  const Scene* scene_ = nullptr;
};

// Maps a level to a height from 0 (-60 dB and below) to 1 (full scale).
float DecibelHeight(float level);

}  // namespace marlinda::editor
