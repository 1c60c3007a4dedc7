// The editor's window. Turns user input into edits, playback and drawing.
#pragma once

#include <windows.h>

#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "editor/dialogs.h"
#include "editor/document.h"
#include "editor/file_jobs.h"
#include "editor/painter.h"
#include "editor/transport.h"
#include "editor/view.h"
#include "editor/waveform.h"

namespace marlinda::editor {

class EditorWindow {
 public:
  // Shows the window. Throws a HostError if the engine or the window cannot be created.
  EditorWindow();
  ~EditorWindow();
  EditorWindow(const EditorWindow&) = delete;
  EditorWindow& operator=(const EditorWindow&) = delete;

  // Opens the files one after another as one document.
  void Open(const std::vector<std::string>& files);
  // Runs the message loop until the window is closed. Returns the exit status.
  int Run();

 private:
  enum class Drag { kNone, kSelect, kScrub, kScroll, kLabel, kSection, kSectionBegin, kSectionEnd };

  // Defined in editor_window.cpp: messages, drawing, status.
  static LRESULT CALLBACK Procedure(HWND window, UINT message, WPARAM wparam, LPARAM lparam);
  LRESULT Handle(UINT message, WPARAM wparam, LPARAM lparam);
  // Runs `action` and shows its failure to the user.
  template <class Action>
  void Try(const std::string& what, Action action);
  void ApplyLook();
  void Arrange();
  void Paint();
  Scene CurrentScene();
  void Tick();
  void WatchTimer();
  void ContentChanged(std::int64_t from);
  void ShowState();  // title and status line
  std::string StateText() const;
  void Invalidate(const RECT& area);
  void InvalidateAll() { Invalidate({0, 0, layout_.client.cx, layout_.client.cy}); }
  void InvalidatePosition(std::int64_t frame);

  // Defined in commands.cpp.
  void Command(int id);
  bool CanDo(int id) const;
  void PrepareMenu(HMENU menu);
  void ListDevices(HMENU menu, int first, const std::vector<SoundDevice>& devices,
                   const std::optional<int>& chosen);
  void Edit(int id);
  void EditMarks(int id);
  void MakeSound(int id);
  void Navigate(int id);
  void NextMark(int step);
  void FinishRecording();
  void ShowKeys();

  // Defined in files.cpp.
  // Asks to save changes. Calls `then` at once or after saving. If cancelled, never calls `then`.
  void AfterSaving(std::function<void()> then);
  void StartFiles(std::vector<std::string> files, bool replace);
  void StartNextFile();
  void FinishJob();
  // Cancels the running file job and discards the files that would follow.
  void CancelJob();
  void Export(std::function<void()> then);

  // Defined in mouse.cpp.
  void Press(POINT at, bool scrubs);
  void DragTo(POINT at);
  void Release();
  void DoubleClick(POINT at);
  void Wheel(POINT at, int delta, bool zooms);
  Mark MarkAt(POINT at) const;
  Drag HandleAt(const Mark& mark, POINT at) const;
  // Returns the annotations after moving the selected mark, or one of its ends, by `by` frames.
  Annotations Moved(Drag part, std::int64_t by) const;
  // Moves the selected mark to its place in `moved`. This is one undo step.
  void StoreMoved(const Annotations& moved);
  int ViewX(POINT at) const { return at.x - layout_.lanes.left; }

  // Selection and cursor.
  Range selection() const { return {std::min(anchor_, head_), std::max(anchor_, head_)}; }
  std::int64_t cursor() const { return head_; }
  void Select(std::int64_t anchor, std::int64_t head);
  void MoveHead(std::int64_t frame, bool extend);
  void ChooseMark(const Mark& mark);
  Range SectionAround(std::int64_t frame) const;
  void Scroll(const std::function<void()>& change);

  HWND window_ = nullptr;
  HWND status_ = nullptr;
  Painter painter_;
  Brush status_brush_;
  Layout layout_;
  Document document_;
  View view_;
  Waveform waveform_;
  Transport transport_;
  std::vector<float> peaks_;
  std::int64_t anchor_ = 0;
  std::int64_t head_ = 0;
  Mark mark_;
  bool decibels_ = false;
  RulerUnit unit_ = RulerUnit::kTime;
  View recording_view_;
  Waveform recording_waveform_;

  Drag drag_ = Drag::kNone;
  bool alt_used_ = false;  // Alt has started a scrub, so its release must not open the menu
  POINT drag_from_ = {};
  POINT drag_at_ = {};
  std::int64_t drag_origin_ = 0;
  std::optional<Annotations> preview_;  // while a label or section is dragged

  std::string file_ = "";  // shown in the title
  std::string message_;    // the last result, for the status line
  std::unique_ptr<FileJob> job_;
  std::deque<std::string> files_;  // the files still to read
  bool replace_ = false;           // the next file begins a new document
  bool opening_ = false;           // `files_` are opened, not inserted, and leave no undo steps
  std::int64_t insert_at_ = 0;
  std::function<void()> after_export_;
  std::wstring shown_title_;
  std::wstring shown_status_;
  std::int64_t shown_playhead_ = 0;
};

template <class Action>
void EditorWindow::Try(const std::string& what, Action action) {
  try {
    action();
  } catch (...) {
    ShowFailure(window_, what, CurrentFailure());
  }
}

}  // namespace marlinda::editor
