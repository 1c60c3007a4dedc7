#include "editor/editor_window.h"

#include <shellapi.h>
#include <windowsx.h>

#include <algorithm>
#include <cmath>
#include <filesystem>

#include "editor/resource.h"
#include "host/wide_text.h"

namespace marlinda::editor {
namespace {

constexpr wchar_t kClassName[] = L"MarlindaEditor";
constexpr UINT_PTR kTimer = 1;
constexpr UINT kTickMilliseconds = 30;

// Returns a function of a system library, or null if an older system lacks the function.
template <class Function>
Function FindFunction(const wchar_t* module, const char* name) {
  const HMODULE handle = LoadLibraryExW(module, nullptr, LOAD_LIBRARY_SEARCH_SYSTEM32);
  if (handle == nullptr) return nullptr;
  return reinterpret_cast<Function>(reinterpret_cast<void*>(GetProcAddress(handle, name)));
}

int DpiOf(HWND window) {
  static const auto get = FindFunction<UINT(WINAPI*)(HWND)>(L"user32.dll", "GetDpiForWindow");
  if (get != nullptr) {
    if (const UINT dpi = get(window); dpi != 0) return static_cast<int>(dpi);
  }
  const HDC screen = GetDC(window);
  const int dpi = GetDeviceCaps(screen, LOGPIXELSX);
  ReleaseDC(window, screen);
  return dpi;
}

void SetTitleBar(HWND window, BOOL dark) {
  constexpr DWORD kDarkMode = 20;
  static const auto set = FindFunction<HRESULT(WINAPI*)(HWND, DWORD, const void*, DWORD)>(
      L"dwmapi.dll", "DwmSetWindowAttribute");
  if (set != nullptr) set(window, kDarkMode, &dark, sizeof dark);
}

void RequireWindow(HWND window) {
  if (window == nullptr) throw Explain(LastErrorResult(), "the window", ExitStatus::kFailure);
}

}  // namespace

EditorWindow::EditorWindow()
    : painter_(SystemIsDark(), 96),
      document_([this](std::int64_t from) { ContentChanged(from); }),
      transport_(document_) {
  const HINSTANCE instance = GetModuleHandleW(nullptr);
  WNDCLASSEXW type = {};
  type.cbSize = sizeof type;
  type.style = CS_DBLCLKS;
  type.lpfnWndProc = Procedure;
  type.hInstance = instance;
  type.hIcon = LoadIconW(nullptr, IDI_APPLICATION);
  type.hCursor = LoadCursorW(nullptr, IDC_ARROW);
  type.lpszMenuName = MAKEINTRESOURCEW(ID_EDITOR);
  type.lpszClassName = kClassName;
  RegisterClassExW(&type);
  CreateWindowExW(WS_EX_ACCEPTFILES, kClassName, L"Marlinda Editor",
                  WS_OVERLAPPEDWINDOW | WS_CLIPCHILDREN, CW_USEDEFAULT, CW_USEDEFAULT, 0, 0,
                  nullptr, nullptr, instance, this);
  RequireWindow(window_);
  status_ =
      CreateWindowExW(0, L"STATIC", L"", WS_CHILD | WS_VISIBLE | SS_CENTERIMAGE | SS_NOPREFIX, 0, 0,
                      0, 0, window_, reinterpret_cast<HMENU>(ID_STATUS), instance, nullptr);
  RequireWindow(status_);
  const int dpi = DpiOf(window_);
  SetWindowPos(window_, nullptr, 0, 0, MulDiv(1120, dpi, 96), MulDiv(560, dpi, 96),
               SWP_NOMOVE | SWP_NOZORDER);
  ApplyLook();
  ShowState();
  ShowWindow(window_, SW_SHOWDEFAULT);
}

EditorWindow::~EditorWindow() {
  if (window_ != nullptr) DestroyWindow(window_);
}

int EditorWindow::Run() {
  const HACCEL keys = LoadAcceleratorsW(GetModuleHandleW(nullptr), MAKEINTRESOURCEW(ID_EDITOR));
  MSG message;
  while (GetMessageW(&message, nullptr, 0, 0) > 0) {
    if (window_ != nullptr && TranslateAcceleratorW(window_, keys, &message) != 0) continue;
    TranslateMessage(&message);
    DispatchMessageW(&message);
  }
  return static_cast<int>(message.wParam);
}

LRESULT CALLBACK EditorWindow::Procedure(HWND window, UINT message, WPARAM wparam, LPARAM lparam) {
  if (message == WM_NCCREATE) {
    const auto* const create = reinterpret_cast<const CREATESTRUCTW*>(lparam);
    auto* const self = static_cast<EditorWindow*>(create->lpCreateParams);
    self->window_ = window;
    SetWindowLongPtrW(window, GWLP_USERDATA, reinterpret_cast<LONG_PTR>(self));
  }
  auto* const self = reinterpret_cast<EditorWindow*>(GetWindowLongPtrW(window, GWLP_USERDATA));
  if (self == nullptr) return DefWindowProcW(window, message, wparam, lparam);
  LRESULT result = 0;
  self->Try("The command failed", [&] { result = self->Handle(message, wparam, lparam); });
  return result;
}

LRESULT EditorWindow::Handle(UINT message, WPARAM wparam, LPARAM lparam) {
  const POINT at = {GET_X_LPARAM(lparam), GET_Y_LPARAM(lparam)};
  // While a dialog is open, the document and the window must not change.
  const bool blocked = IsWindowEnabled(window_) == FALSE;
  if (blocked && (message == WM_COMMAND || message == WM_CLOSE ||
                  (message >= WM_MOUSEFIRST && message <= WM_MOUSELAST))) {
    return 0;
  }
  switch (message) {
    case WM_COMMAND:
      Command(LOWORD(wparam));
      return 0;
    case WM_INITMENUPOPUP:
      PrepareMenu(reinterpret_cast<HMENU>(wparam));
      return 0;
    case WM_PAINT:
      try {
        Paint();
      } catch (const std::bad_alloc&) {
        // Shows no message box, because closing the box would cause another paint that fails.
      }
      return 0;
    case WM_ERASEBKGND:
      return 1;
    case WM_SIZE:
      Arrange();
      return 0;
    case WM_TIMER:
      Tick();
      return 0;
    case WM_LBUTTONDOWN:
    case WM_MBUTTONDOWN:
    case WM_MBUTTONDBLCLK:
      Press(at, message != WM_LBUTTONDOWN || GetKeyState(VK_MENU) < 0);
      return 0;
    case WM_SYSKEYUP:
      if (wparam == VK_MENU && std::exchange(alt_used_, false)) return 0;
      return DefWindowProcW(window_, message, wparam, lparam);
    case WM_LBUTTONDBLCLK:
      DoubleClick(at);
      return 0;
    case WM_MOUSEMOVE:
      DragTo(at);
      return 0;
    case WM_LBUTTONUP:
    case WM_MBUTTONUP:
    case WM_CAPTURECHANGED:
      Release();
      return 0;
    case WM_MOUSEWHEEL: {
      POINT inside = at;
      ScreenToClient(window_, &inside);
      Wheel(inside, GET_WHEEL_DELTA_WPARAM(wparam),
            (GET_KEYSTATE_WPARAM(wparam) & MK_CONTROL) != 0);
      return 0;
    }
    case WM_MOUSEHWHEEL:
      Wheel(at, -GET_WHEEL_DELTA_WPARAM(wparam), false);
      return 0;
    case WM_DROPFILES: {
      const auto drop = reinterpret_cast<HDROP>(wparam);
      std::vector<std::string> files;
      for (UINT i = 0; i < DragQueryFileW(drop, 0xFFFFFFFF, nullptr, 0); ++i) {
        std::wstring name(DragQueryFileW(drop, i, nullptr, 0) + 1, L'\0');
        DragQueryFileW(drop, i, name.data(), static_cast<UINT>(name.size()));
        files.push_back(Narrow(name.c_str()));
      }
      DragFinish(drop);
      if (!blocked) StartFiles(std::move(files), document_.frames() == 0);
      return 0;
    }
    case WM_CTLCOLORSTATIC:
      SetTextColor(reinterpret_cast<HDC>(wparam), painter_.theme().text);
      SetBkColor(reinterpret_cast<HDC>(wparam), painter_.theme().window);
      return reinterpret_cast<LRESULT>(status_brush_.get());
    case WM_SETTINGCHANGE:
      ApplyLook();
      return 0;
    case WM_DPICHANGED: {
      const RECT& place = *reinterpret_cast<const RECT*>(lparam);
      SetWindowPos(window_, nullptr, place.left, place.top, place.right - place.left,
                   place.bottom - place.top, SWP_NOZORDER | SWP_NOACTIVATE);
      ApplyLook();
      return 0;
    }
    case WM_CLOSE:
      AfterSaving([this] { DestroyWindow(window_); });
      return 0;
    case WM_QUERYENDSESSION:
      return document_.IsSaved() && !transport_.IsRecording() ? TRUE : FALSE;
    case WM_DESTROY:
      transport_.Stop();
      job_.reset();
      PostQuitMessage(0);
      return 0;
    case WM_NCDESTROY:
      window_ = nullptr;
      return 0;
    default:
      return DefWindowProcW(window_, message, wparam, lparam);
  }
}

void EditorWindow::ApplyLook() {
  const bool dark = SystemIsDark();
  painter_.SetLook(dark, DpiOf(window_));
  SetTitleBar(window_, dark ? TRUE : FALSE);
  status_brush_.Reset(CreateSolidBrush(painter_.theme().window));
  SendMessageW(status_, WM_SETFONT, reinterpret_cast<WPARAM>(painter_.font()), TRUE);
  Arrange();
}

void EditorWindow::Arrange() {
  RECT client;
  GetClientRect(window_, &client);
  const int dpi = DpiOf(window_);
  const int height = MulDiv(24, dpi, 96);
  const int margin = MulDiv(8, dpi, 96);
  layout_ = Layout({client.right, std::max<LONG>(1, client.bottom - height)}, dpi);
  MoveWindow(status_, margin, client.bottom - height, client.right - 2 * margin, height, TRUE);
  view_.SetWidth(layout_.lanes.right - layout_.lanes.left);
  InvalidateRect(window_, nullptr, FALSE);
}

void EditorWindow::Invalidate(const RECT& area) { InvalidateRect(window_, &area, FALSE); }

void EditorWindow::InvalidatePosition(std::int64_t frame) {
  const int x = layout_.lanes.left + view_.PixelOf(frame);
  const int width = layout_.Scale(2) + 1;
  Invalidate({x - 1, layout_.ruler.top, x + width, layout_.lanes.bottom});
}

Scene EditorWindow::CurrentScene() {
  Scene scene;
  scene.view = &view_;
  scene.waveform = &waveform_;
  scene.annotations = preview_ ? &*preview_ : &document_.annotations();
  scene.rate = document_.format().rate;
  scene.selection = selection();
  scene.cursor = cursor();
  scene.mark = mark_;
  if (transport_.IsPlaying() || transport_.IsScrubbing()) scene.playhead = transport_.position();
  scene.levels = transport_.levels();
  scene.peaks = peaks_;
  scene.decibels = decibels_;
  scene.unit = unit_;
  if (job_) scene.progress = job_->progress();
  if (transport_.IsRecording()) {
    // Shows only the recording, scrolled to its end.
    const std::int64_t frames = transport_.frames_per_column();
    recording_view_.SetWidth(view_.width());
    recording_view_.SetLength(std::max(transport_.recorded(), view_.width() * frames));
    recording_view_.SetZoom({frames, 1});
    recording_view_.ScrollTo(recording_view_.extent());
    // Copies only the visible columns, because a take may last for hours.
    const auto& columns = transport_.recorded_columns();
    const int channels = transport_.recording_format().channels;
    const std::int64_t first = std::min(std::max<std::int64_t>(0, recording_view_.origin() - 1),
                                        static_cast<std::int64_t>(columns.size()) / channels);
    recording_waveform_.Show({columns.begin() + first * channels, columns.end()}, channels, first);
    scene.view = &recording_view_;
    scene.waveform = &recording_waveform_;
    scene.annotations = nullptr;
    scene.rate = transport_.recording_format().rate;
    scene.selection = {};
    scene.recording = true;
  } else {
    waveform_.Read(document_.audio(), document_.format().channels, view_);
  }
  return scene;
}

void EditorWindow::Paint() {
  // Calls EndPaint also after a failure. Otherwise Windows would repeat WM_PAINT endlessly.
  struct Painting {
    explicit Painting(HWND owner) : window(owner) { BeginPaint(window, &paint); }
    ~Painting() { EndPaint(window, &paint); }
    Painting(const Painting&) = delete;
    Painting& operator=(const Painting&) = delete;
    HWND window;
    PAINTSTRUCT paint = {};
  };
  const Painting painting(window_);
  const PAINTSTRUCT& paint = painting.paint;
  const HDC target = paint.hdc;
  const Scene scene = CurrentScene();
  const RECT all = {0, 0, layout_.client.cx, layout_.client.cy};
  RECT update;
  if (IntersectRect(&update, &paint.rcPaint, &all) != FALSE) {
    painter_.Paint(target, update, layout_, scene);
  }
  if (paint.rcPaint.bottom > layout_.client.cy) {
    // Fills the margins of the status line, which lies below the picture.
    RECT rest = paint.rcPaint;
    rest.top = std::max(rest.top, layout_.client.cy);
    FillRect(target, &rest, status_brush_.get());
  }
}

void EditorWindow::WatchTimer() {
  const bool busy = !transport_.IsIdle() || job_ || drag_ == Drag::kSelect;
  if (window_ == nullptr) return;
  if (busy) {
    SetTimer(window_, kTimer, kTickMilliseconds, nullptr);
  } else {
    KillTimer(window_, kTimer);
  }
}

void EditorWindow::Tick() {
  if (drag_ == Drag::kSelect) {
    // Scrolls the view while the mouse is beyond the view's edge.
    if (ViewX(drag_at_) < 0 || ViewX(drag_at_) >= view_.width()) DragTo(drag_at_);
  }
  const bool recorded = transport_.IsRecording();
  const bool active = !transport_.IsIdle();
  std::optional<HostError> lost;
  try {
    transport_.Poll();
  } catch (...) {
    transport_.Stop();
    lost = CurrentFailure();
  }
  if (active) {
    const auto& levels = transport_.levels();
    peaks_.resize(levels.size());
    constexpr float kFall = 0.97F;
    for (std::size_t i = 0; i < levels.size(); ++i)
      peaks_[i] = std::max(levels[i], peaks_[i] * kFall);
    Invalidate(layout_.meters);
    InvalidatePosition(shown_playhead_);
    shown_playhead_ = transport_.position();
    InvalidatePosition(shown_playhead_);
    const int x = view_.PixelOf(shown_playhead_);
    if (transport_.IsPlaying() && drag_ == Drag::kNone && (x < 0 || x >= view_.width())) {
      Scroll([&] { view_.ScrollTo(view_.origin() + x); });
    }
  }
  if (recorded) {
    if (!transport_.IsRecording()) Try("Recording ended", [&] { FinishRecording(); });
    InvalidateAll();
  }
  WatchTimer();
  ShowState();
  if (lost) ShowFailure(window_, recorded ? "Recording ended" : "Playing ended", *lost);
  if (!job_) return;
  Invalidate(layout_.strip);
  bool running = false;
  Try(job_->activity() + (" " + job_->name() + " failed"), [&] {
    try {
      running = job_->Poll();
    } catch (...) {
      job_.reset();
      after_export_ = nullptr;
      throw;
    }
  });
  if (!running) FinishJob();
}

void EditorWindow::ContentChanged(std::int64_t from) {
  const Zoom zoom = view_.zoom();
  const std::int64_t origin = view_.origin();
  view_.SetLength(document_.frames());
  waveform_.Forget(from);
  anchor_ = std::min(anchor_, document_.frames());
  head_ = std::min(head_, document_.frames());
  mark_ = {};
  if (view_.zoom() == zoom && view_.origin() == origin && from != Document::kNoAudio) {
    RECT rest = {0, 0, layout_.client.cx, layout_.client.cy};
    rest.left = std::max(0, static_cast<int>(layout_.lanes.left) + view_.PixelOf(from) - 1);
    Invalidate(rest);
  } else {
    InvalidateAll();
  }
  ShowState();
}

std::string EditorWindow::StateText() const {
  if (job_) {
    return job_->activity() + (" " + job_->name()) + " " +
           std::to_string(std::lround(100 * job_->progress())) + " % (Esc cancels)";
  }
  if (transport_.IsRecording()) return "Recording";
  if (transport_.IsLooping()) return "Looping";
  if (transport_.IsPlaying()) return "Playing";
  if (transport_.IsScrubbing()) return "Scrubbing";
  return message_.empty() ? "Ready" : message_;
}

void EditorWindow::ShowState() {
  if (window_ == nullptr) return;
  const std::string name =
      file_.empty() ? "Untitled" : Narrow(std::filesystem::path(Widen(file_)).filename().wstring());
  std::wstring title = Widen(name + (document_.IsSaved() ? "" : "*") + " - Marlinda Editor");
  if (title != shown_title_) SetWindowTextW(window_, title.c_str());
  shown_title_ = std::move(title);

  const AudioFormat& format = document_.format();
  const char* const gap = "   |   ";
  std::string text = StateText() + gap;
  if (transport_.IsRecording()) {
    text += FormatPosition(transport_.recorded(), transport_.recording_format().rate, unit_);
  } else if (format.rate > 0) {
    const std::int64_t at = transport_.IsIdle() ? selection().begin : transport_.position();
    text += FormatPosition(at, format.rate, unit_);
    if (const Range range = selection(); !range.empty()) {
      text += gap + ("Selected " + FormatPosition(range.begin, format.rate, unit_)) + " to " +
              FormatPosition(range.end, format.rate, unit_) + " (" +
              FormatPosition(range.length(), format.rate, unit_) + ")";
    }
    text += gap + std::to_string(format.rate) + " Hz, " + std::to_string(format.channels) +
            (format.channels == 1 ? " channel, " : " channels, ") +
            FormatPosition(document_.frames(), format.rate, unit_);
  } else {
    text += "No audio";
  }
  std::wstring status = Widen(text);
  if (status != shown_status_) SetWindowTextW(status_, status.c_str());
  shown_status_ = std::move(status);
}

void EditorWindow::Select(std::int64_t anchor, std::int64_t head) {
  const auto invalidate = [&](std::int64_t from, std::int64_t to) {
    if (from == to) return;
    const int begin = view_.PixelOf(std::min(from, to));
    const int end = view_.PixelOf(std::max(from, to));
    Invalidate({layout_.lanes.left + begin - 1, layout_.ruler.top, layout_.lanes.left + end + 2,
                layout_.lanes.bottom});
  };
  anchor = std::clamp<std::int64_t>(anchor, 0, document_.frames());
  head = std::clamp<std::int64_t>(head, 0, document_.frames());
  invalidate(anchor_, anchor);
  invalidate(head_, head);
  // Redraws the cursor even if it has not moved, because a selection hides it.
  InvalidatePosition(head_);
  InvalidatePosition(head);
  anchor_ = anchor;
  head_ = head;
  message_.clear();
  ShowState();
}

void EditorWindow::MoveHead(std::int64_t frame, bool extend) {
  frame = std::clamp<std::int64_t>(frame, 0, document_.frames());
  Select(extend ? anchor_ : frame, frame);
  Scroll([&] { view_.MakeVisible(frame); });
  transport_.Scrub(frame);
  transport_.Loop(selection());
}

void EditorWindow::ChooseMark(const Mark& mark) {
  if (mark == mark_) return;
  mark_ = mark;
  Invalidate({0, layout_.labels.top, layout_.client.cx, layout_.sections.bottom});
}

void EditorWindow::Scroll(const std::function<void()>& change) {
  const Zoom zoom = view_.zoom();
  const std::int64_t origin = view_.origin();
  change();
  if (view_.zoom() != zoom || view_.origin() != origin) InvalidateAll();
}

}  // namespace marlinda::editor
