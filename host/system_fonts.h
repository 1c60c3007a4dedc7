// Outlines of text in the system's fonts.
#pragma once

#include <windows.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "core/handle.h"
#include "host/waveform_picture.h"
#include "host/wide_text.h"

namespace marlinda {

struct FontTraits {
  using Raw = HFONT;
  static Raw Invalid() noexcept { return nullptr; }
  static void Close(Raw raw) noexcept { DeleteObject(raw); }
};
struct DeviceContextTraits {
  using Raw = HDC;
  static Raw Invalid() noexcept { return nullptr; }
  static void Close(Raw raw) noexcept { DeleteDC(raw); }
};

inline int CALLBACK CollectFace(const LOGFONTW* font, const TEXTMETRICW*, DWORD type,
                                LPARAM faces) {
  // Names that begin with @ are fonts rotated for vertical writing.
  if ((type & TRUETYPE_FONTTYPE) != 0 && font->lfFaceName[0] != L'@') {
    reinterpret_cast<std::vector<std::wstring>*>(faces)->emplace_back(font->lfFaceName);
  }
  return 1;
}

class Fonts {
 public:
  Fonts() {
    LOGFONTW any{};
    any.lfCharSet = DEFAULT_CHARSET;
    EnumFontFamiliesExW(device_.get(), &any, CollectFace, reinterpret_cast<LPARAM>(&faces_), 0);
    std::ranges::sort(faces_);
    constexpr std::array kUsual = {L"Tahoma", L"Arial", L"DejaVu Sans", L"Segoe UI"};
    for (const wchar_t* face : kUsual) {
      const auto found = std::ranges::find(faces_, face);
      if (found != faces_.end()) std::rotate(faces_.begin(), found, found + 1);
    }
    SetBkMode(device_.get(), TRANSPARENT);
    SetTextAlign(device_.get(), TA_BASELINE);
  }
  Fonts(const Fonts&) = delete;
  Fonts& operator=(const Fonts&) = delete;
  ~Fonts() { SelectObject(device_.get(), GetStockObject(SYSTEM_FONT)); }

  ShapedText Shape(const std::string& text) {
    std::wstring wide = Widen(text);
    std::ranges::replace_if(
        wide, [](wchar_t c) { return c < L' '; }, L' ');
    ShapedText shaped;
    for (std::size_t begin = 0; begin < wide.size();) {
      const std::size_t face = FaceOf(wide[begin]);
      std::size_t end = begin + 1;
      while (end < wide.size() && FaceOf(wide[end]) == face) ++end;
      Select(face);
      Append(std::wstring_view(wide).substr(begin, end - begin), shaped);
      begin = end;
    }
    return shaped;
  }

 private:
  // Outlines have integer coordinates, so they are read at a large size and scaled down.
  static constexpr int kEm = 2000;
  static constexpr double kScale = 11.0 / kEm;  // to pixels

  void Select(std::size_t face) {
    if (faces_.empty() || face == selected_) return;
    Handle<FontTraits> font(CreateFontW(-kEm, 0, 0, 0, FW_NORMAL, FALSE, FALSE, FALSE,
                                        DEFAULT_CHARSET, OUT_TT_PRECIS, CLIP_DEFAULT_PRECIS,
                                        DEFAULT_QUALITY, DEFAULT_PITCH, faces_[face].c_str()));
    SelectObject(device_.get(), font.get());
    font_ = std::move(font);
    selected_ = face;
  }

  // Returns the first font that has the character, otherwise the first font.
  std::size_t FaceOf(wchar_t character) {
    const auto [known, is_new] = face_of_.try_emplace(character, 0);
    for (std::size_t face = 0; is_new && face < faces_.size(); ++face) {
      Select(face);
      WORD glyph = 0xFFFF;
      GetGlyphIndicesW(device_.get(), &character, 1, &glyph, GGI_MARK_NONEXISTING_GLYPHS);
      if (glyph == 0xFFFF) continue;
      known->second = face;
      break;
    }
    return known->second;
  }

  void Append(std::wstring_view run, ShapedText& shaped) {
    const auto length = static_cast<int>(run.size());
    BeginPath(device_.get());
    TextOutW(device_.get(), 0, 0, run.data(), length);
    EndPath(device_.get());
    const int count = std::max(GetPath(device_.get(), nullptr, nullptr, 0), 0);
    std::vector<POINT> points(static_cast<std::size_t>(count));
    std::vector<BYTE> kinds(points.size());
    if (count > 0) GetPath(device_.get(), points.data(), kinds.data(), count);
    const auto at = [&](std::size_t i) {
      return Point{shaped.width + points[i].x * kScale, points[i].y * kScale};
    };
    for (std::size_t i = 0; i < points.size(); ++i) {
      const BYTE kind = kinds[i] & ~PT_CLOSEFIGURE;
      if (kind == PT_MOVETO) {
        shaped.outline.MoveTo(at(i));
      } else if (kind == PT_LINETO) {
        shaped.outline.LineTo(at(i));
      } else if (i + 2 < points.size()) {
        shaped.outline.CurveTo(at(i), at(i + 1), at(i + 2));
        i += 2;
      }
    }
    SIZE size{};
    GetTextExtentPoint32W(device_.get(), run.data(), length, &size);
    shaped.width += size.cx * kScale;
  }

  const Handle<DeviceContextTraits> device_{CreateCompatibleDC(nullptr)};
  Handle<FontTraits> font_;
  std::vector<std::wstring> faces_;
  std::size_t selected_ = SIZE_MAX;
  std::map<wchar_t, std::size_t> face_of_;
};

// Returns a function that shapes one line of UTF-8 text. Control characters become spaces. A
// character that the system's usual font lacks comes from the first other font that has it.
inline ShapeText SystemFonts() {
  return
      [fonts = std::make_shared<Fonts>()](const std::string& text) { return fonts->Shape(text); };
}

}  // namespace marlinda
