// RAII owners of GDI objects, and a back buffer.
#pragma once

#include <windows.h>

#include <utility>

#include "core/handle.h"

namespace marlinda::editor {

template <class Object>
struct GdiTraits {
  using Raw = Object;
  static Raw Invalid() noexcept { return nullptr; }
  static void Close(Raw raw) noexcept { DeleteObject(raw); }
};

using Brush = Handle<GdiTraits<HBRUSH>>;
using Pen = Handle<GdiTraits<HPEN>>;
using Font = Handle<GdiTraits<HFONT>>;
using Bitmap = Handle<GdiTraits<HBITMAP>>;

// A memory device context with a bitmap, the back buffer of a window.
class BackBuffer {
 public:
  BackBuffer() = default;
  BackBuffer(const BackBuffer&) = delete;
  BackBuffer& operator=(const BackBuffer&) = delete;
  ~BackBuffer() { Release(); }

  // Returns a context with a bitmap of `size`, or null if out of memory. May reuse the last bitmap.
  HDC Prepare(HDC like, SIZE size) {
    if (dc_ != nullptr && size.cx == size_.cx && size.cy == size_.cy) return dc_;
    Release();
    Bitmap bitmap(CreateCompatibleBitmap(like, size.cx, size.cy));
    if (!bitmap) return nullptr;
    dc_ = CreateCompatibleDC(like);
    if (dc_ == nullptr) return nullptr;
    bitmap_ = std::move(bitmap);
    old_ = SelectObject(dc_, bitmap_.get());
    size_ = size;
    return dc_;
  }

 private:
  void Release() {
    if (dc_ == nullptr) return;
    SelectObject(dc_, old_);
    DeleteDC(dc_);
    dc_ = nullptr;
    bitmap_.Reset();
  }

  HDC dc_ = nullptr;
  HGDIOBJ old_ = nullptr;
  Bitmap bitmap_;
  SIZE size_ = {};
};

}  // namespace marlinda::editor
