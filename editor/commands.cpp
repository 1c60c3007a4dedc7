// The commands of the editor's menu and keys.
#include <algorithm>
#include <utility>

#include "editor/editor_window.h"
#include "editor/resource.h"
#include "host/wide_text.h"

namespace marlinda::editor {
namespace {

const char* const kKeys =
    "Mouse in the waveform\n"
    "    drag: select; Shift: extend; double click: the section\n"
    "    Alt or middle button: scrub; wheel: scroll; Ctrl+wheel: zoom\n"
    "Mouse above it\n"
    "    click: select a label or section; drag: move; double click: rename\n"
    "Keys\n"
    "    Space: play or stop; Shift+Space: loop; Enter: stop at the playhead\n"
    "    R: record or stop; S: scrub with the arrow keys; Esc: stop, cancel\n"
    "    Arrows, Page Up and Down, Home, End: move; with Shift: select\n"
    "    L: label; M: section; Tab: next label or section; F2: rename; Del: delete\n"
    "    Ctrl+Left and Right: move it\n"
    "    + and -: zoom; 0: whole document; Z: selection\n"
    "    D: decibels; F: frames\n"
    "All other keys are in the menu.";

void Enable(HMENU menu, int id, bool enabled) {
  EnableMenuItem(menu, static_cast<UINT>(id), MF_BYCOMMAND | (enabled ? MF_ENABLED : MF_GRAYED));
}

void SetChecked(HMENU menu, int id, bool checked) {
  CheckMenuItem(menu, static_cast<UINT>(id), MF_BYCOMMAND | (checked ? MF_CHECKED : MF_UNCHECKED));
}

void SetText(HMENU menu, int id, const std::string& text) {
  const std::wstring wide = Widen(text);
  MENUITEMINFOW info = {};
  info.cbSize = sizeof info;
  info.fMask = MIIM_STRING;
  info.dwTypeData = const_cast<wchar_t*>(wide.c_str());
  SetMenuItemInfoW(menu, static_cast<UINT>(id), FALSE, &info);
}

// Doubles each "&". A single "&" in a menu text marks the access key.
std::string ForMenu(const std::string& text) {
  std::string escaped;
  for (const char c : text) escaped += c == '&' ? std::string("&&") : std::string(1, c);
  return escaped;
}

}  // namespace

bool EditorWindow::CanDo(int id) const {
  const bool audio = document_.frames() > 0;
  const bool recording = transport_.IsRecording();
  const bool free = !job_ && !recording;
  const bool selected = !selection().empty();
  const bool marked = mark_.kind != MarkKind::kNone;
  switch (id) {
    case ID_NEW:
    case ID_OPEN:
    case ID_IMPORT:
    case ID_PROPERTIES:
    case ID_SILENCE:
      return free;
    case ID_EXPORT:
    case ID_LABEL:
      return free && audio;
    case ID_UNDO:
      return free && document_.undo().CanUndo();
    case ID_REDO:
      return free && document_.undo().CanRedo();
    case ID_PASTE:
      return free && document_.CanPaste();
    case ID_CUT:
    case ID_COPY:
    case ID_TRIM:
    case ID_SECTION:
      return free && selected;
    case ID_DELETE:
      return free && (selected || marked);
    case ID_RENAME:
    case ID_MARK_LEFT:
    case ID_MARK_RIGHT:
      return free && marked;
    case ID_RECORD:
      return !job_;
    case ID_PLAY:
      return audio || recording;
    case ID_LOOP:
    case ID_SCRUB:
    case ID_SELECT_ALL:
    case ID_SELECT_SECTION:
    case ID_NEXT_MARK:
    case ID_PREVIOUS_MARK:
    case ID_ZOOM_IN:
    case ID_ZOOM_OUT:
    case ID_ZOOM_ALL:
      return audio && !recording;
    case ID_ZOOM_SELECTION:
      return selected && !recording;
    case ID_STOP_HERE:
      return transport_.IsPlaying() || transport_.IsScrubbing();
    default:
      return true;
  }
}

void EditorWindow::PrepareMenu(HMENU menu) {
  for (int i = 0; i < GetMenuItemCount(menu); ++i) {
    const auto id = static_cast<int>(GetMenuItemID(menu, i));
    if (id > 0) Enable(menu, id, CanDo(id));
  }
  const auto& undo = document_.undo();
  SetText(menu, ID_UNDO,
          "&Undo" + (undo.CanUndo() ? " " + ForMenu(undo.UndoName()) : "") + "\tCtrl+Z");
  SetText(menu, ID_REDO,
          "&Redo" + (undo.CanRedo() ? " " + ForMenu(undo.RedoName()) : "") + "\tCtrl+Y");
  SetChecked(menu, ID_DECIBELS, decibels_);
  SetChecked(menu, ID_FRAMES, unit_ == RulerUnit::kFrames);
  const auto first = static_cast<int>(GetMenuItemID(menu, 0));
  if (first == ID_OUTPUT) ListDevices(menu, ID_OUTPUT, OutputDevices(), transport_.output);
  if (first == ID_INPUT) ListDevices(menu, ID_INPUT, InputDevices(), transport_.input);
}

void EditorWindow::ListDevices(HMENU menu, int first, const std::vector<SoundDevice>& devices,
                               const std::optional<int>& chosen) {
  while (GetMenuItemCount(menu) > 1) DeleteMenu(menu, 1, MF_BYPOSITION);
  for (int id = first + 1; const SoundDevice& device : devices) {
    AppendMenuW(menu, MF_STRING, static_cast<UINT_PTR>(id++), Widen(ForMenu(device.name)).c_str());
  }
  SetChecked(menu, first + (chosen ? *chosen + 1 : 0), true);
  if (chosen) SetChecked(menu, first, false);
}

void EditorWindow::Command(int id) {
  if (drag_ != Drag::kNone || !CanDo(id)) return;
  if (id >= ID_OUTPUT && id < ID_DEVICES_END) {
    const bool input = id >= ID_INPUT;
    const int index = id - (input ? ID_INPUT : ID_OUTPUT) - 1;
    (input ? transport_.input : transport_.output) =
        index < 0 ? std::nullopt : std::optional(index);
    return;
  }
  switch (id) {
    case ID_NEW:
      return AfterSaving([this] {
        transport_.Stop();
        document_.Clear();
        file_.clear();
        ShowState();
      });
    case ID_OPEN:
    case ID_IMPORT: {
      const bool replace = id == ID_OPEN;
      auto files = AskFilesToOpen(window_, replace ? "Open" : "Insert files");
      if (!files.empty()) StartFiles(std::move(files), replace);
      return;
    }
    case ID_EXPORT:
      return Export(nullptr);
    case ID_PROPERTIES:
      if (const auto tags = AskTags(window_, document_.tags)) document_.tags = *tags;
      return ShowState();
    case ID_EXIT:
      SendMessageW(window_, WM_CLOSE, 0, 0);
      return;
    case ID_DECIBELS:
      decibels_ = !decibels_;
      return InvalidateAll();
    case ID_FRAMES:
      unit_ = unit_ == RulerUnit::kTime ? RulerUnit::kFrames : RulerUnit::kTime;
      InvalidateAll();
      return ShowState();
    case ID_KEYS:
      return ShowKeys();
    default:
      break;
  }
  if (id >= ID_UNDO && id <= ID_SELECT_SECTION) return Edit(id);
  if (id >= ID_LABEL && id <= ID_MARK_RIGHT) return EditMarks(id);
  if (id >= ID_PLAY && id <= ID_STOP) return MakeSound(id);
  Navigate(id);
}

void EditorWindow::Edit(int id) {
  const Range range = selection();
  if (id == ID_SELECT_ALL || id == ID_SELECT_SECTION) {
    const Range chosen =
        id == ID_SELECT_ALL ? Range{0, document_.frames()} : SectionAround(range.begin);
    Select(chosen.begin, chosen.end);
    return transport_.Loop(chosen);
  }
  if (id == ID_DELETE && mark_.kind != MarkKind::kNone) {
    if (mark_.kind == MarkKind::kLabel) {
      document_.RemoveLabel(mark_.index);
    } else {
      document_.RemoveSection(mark_.index);
    }
    message_ = document_.undo().UndoName();
    return ShowState();
  }
  if (id == ID_COPY) {
    document_.Copy(range);
    message_ = "Copied";
    return ShowState();
  }
  std::int64_t silence = 0;
  if (id == ID_SILENCE) {
    const LONG rate = document_.frames() > 0 ? document_.format().rate : 44100;
    const auto seconds = AskText(window_, "Insert silence", "Seconds", "1.0");
    if (!seconds) return;
    silence = ParseSeconds(*seconds, rate);
    if (silence <= 0) {
      throw HostError(ExitStatus::kUsage, *seconds, "this is not a duration",
                      "Enter seconds such as 1.5, up to a day.");
    }
  }
  // Stops playback, because the document must not be edited while it plays.
  transport_.Stop();
  switch (id) {
    case ID_UNDO:
      message_ = "Undone: " + document_.undo().UndoName();
      document_.Undo();
      break;
    case ID_REDO:
      message_ = "Redone: " + document_.undo().RedoName();
      document_.Redo();
      break;
    case ID_CUT:
      document_.Copy(range);
      document_.Delete("Cut", range);
      Select(range.begin, range.begin);
      break;
    case ID_DELETE:
      document_.Delete("Delete", range);
      Select(range.begin, range.begin);
      break;
    case ID_PASTE: {
      const Range pasted = document_.Paste(range);
      Select(pasted.begin, pasted.end);
      break;
    }
    case ID_TRIM:
      document_.Trim(range);
      Select(0, document_.frames());
      break;
    case ID_SILENCE:
      document_.InsertSilence(range.begin, silence);
      Select(range.begin, range.begin + silence);
      break;
    default:
      break;
  }
  if (id != ID_UNDO && id != ID_REDO) message_ = document_.undo().UndoName();
  InvalidateAll();
  ShowState();
}

void EditorWindow::EditMarks(int id) {
  const Annotations& annotations = document_.annotations();
  const auto index = static_cast<std::size_t>(mark_.index);
  if (id == ID_NEXT_MARK || id == ID_PREVIOUS_MARK) return NextMark(id == ID_NEXT_MARK ? 1 : -1);
  if (id == ID_MARK_LEFT || id == ID_MARK_RIGHT) {
    const std::int64_t pixel = view_.zoom().pixels > 1 ? 1 : view_.zoom().frames;
    return StoreMoved(Moved(mark_.kind == MarkKind::kLabel ? Drag::kLabel : Drag::kSection,
                            id == ID_MARK_RIGHT ? pixel : -pixel));
  }
  if (id == ID_LABEL) {
    // Reads the position first, because playback continues while the dialog is open.
    const std::int64_t at = transport_.IsIdle() ? selection().begin : transport_.position();
    const auto name = AskText(window_, "Add label", "Name",
                              "Label " + std::to_string(annotations.labels.size() + 1));
    if (!name) return;
    document_.AddLabel(at, *name);
    ChooseMark({MarkKind::kLabel, static_cast<LONG>(annotations.labels.size()) - 1});
  } else if (id == ID_SECTION) {
    const Range range = selection();
    const auto name = AskText(window_, "Add section", "Name",
                              "Section " + std::to_string(annotations.markers.size() + 1));
    if (!name) return;
    document_.AddSection(range, *name);
    ChooseMark({MarkKind::kSection, static_cast<LONG>(annotations.markers.size()) - 1});
  } else {
    const Mark mark = mark_;
    const bool label = mark.kind == MarkKind::kLabel;
    const auto name =
        AskText(window_, "Rename", "Name",
                label ? annotations.labels[index].name : annotations.markers[index].name);
    if (!name) return;
    if (label) {
      document_.SetLabel("Rename label", mark.index, {annotations.labels[index].position, *name});
    } else {
      document_.SetSection("Rename section", mark.index,
                           {annotations.markers[index].section, *name});
    }
    ChooseMark(mark);
  }
  message_ = document_.undo().UndoName();
  ShowState();
}

void EditorWindow::NextMark(int step) {
  struct Place {
    std::int64_t position;
    Mark mark;
  };
  std::vector<Place> places;
  for (LONG index = 0; const Label& label : document_.annotations().labels) {
    places.push_back({label.position, {MarkKind::kLabel, index++}});
  }
  for (LONG index = 0; const SectionMarker& marker : document_.annotations().markers) {
    places.push_back({marker.section.begin, {MarkKind::kSection, index++}});
  }
  if (places.empty()) return;
  std::ranges::stable_sort(places, {}, &Place::position);
  const auto chosen = std::ranges::find(places, mark_, &Place::mark);
  const auto count = static_cast<std::ptrdiff_t>(places.size());
  std::ptrdiff_t next = step > 0 ? 0 : count - 1;
  if (chosen != places.end()) next = (chosen - places.begin() + step + count) % count;
  const auto& [position, mark] = places[static_cast<std::size_t>(next)];
  MoveHead(position, false);
  ChooseMark(mark);
}

void EditorWindow::MakeSound(int id) {
  const Range range = selection();
  const std::int64_t position = transport_.position();
  const Range rest = {cursor() < document_.frames() ? cursor() : 0, document_.frames()};
  message_.clear();
  if (transport_.IsRecording()) {
    if (id == ID_PLAY || id == ID_STOP || id == ID_RECORD) FinishRecording();
  } else if (id == ID_STOP && transport_.IsIdle()) {
    if (job_) {
      CancelJob();
      message_ = "Cancelled";
    } else {
      ChooseMark({});
      Select(range.begin, range.begin);
    }
  } else if (!transport_.IsIdle() && id != ID_RECORD) {
    const bool scrubbing = transport_.IsScrubbing();
    transport_.Stop();
    if (id == ID_STOP_HERE || scrubbing) MoveHead(position, false);
  } else if (id == ID_RECORD) {
    transport_.Record();
  } else if (id == ID_SCRUB) {
    transport_.StartScrub(cursor());
  } else if (id == ID_PLAY || id == ID_LOOP) {
    transport_.Play(!range.empty()  ? range
                    : id == ID_LOOP ? Range{0, document_.frames()}
                                    : rest,
                    id == ID_LOOP);
  }
  shown_playhead_ = transport_.position();
  peaks_.clear();
  InvalidateAll();
  WatchTimer();
  ShowState();
}

void EditorWindow::FinishRecording() {
  transport_.Stop();
  const Material take = transport_.TakeRecording();
  const std::int64_t at = selection().begin;
  InvalidateAll();
  if (take.audio.frames == 0) {
    message_ = "Nothing was recorded";
    return;
  }
  document_.Insert("Record", at, take);
  Select(at, at + take.audio.frames);
  message_ = "Recorded";
}

void EditorWindow::Navigate(int id) {
  const bool extend = id >= ID_HOME + ID_EXTEND && id <= ID_PAGE_RIGHT + ID_EXTEND;
  const Zoom& zoom = view_.zoom();
  // The arrow keys move by kPixels pixels, or by one frame if a frame is wider than a pixel.
  constexpr std::int64_t kPixels = 4;
  const std::int64_t step = zoom.pixels > 1 ? 1 : kPixels * zoom.frames;
  const std::int64_t page = std::max<std::int64_t>(1, view_.visible().length() / 4);
  const auto zoom_by = [&](double factor) {
    const int x = view_.PixelOf(cursor());
    const bool visible = x >= 0 && x <= view_.width();
    Scroll([&] {
      if (visible) {
        view_.ZoomAround(cursor(), x, factor);
      } else {
        view_.ZoomAt(view_.width() / 2, factor);
      }
    });
  };
  switch (extend ? id - ID_EXTEND : id) {
    case ID_HOME:
      return MoveHead(0, extend);
    case ID_END:
      return MoveHead(document_.frames(), extend);
    case ID_LEFT:
      return MoveHead(cursor() - step, extend);
    case ID_RIGHT:
      return MoveHead(cursor() + step, extend);
    case ID_PAGE_LEFT:
      return MoveHead(cursor() - page, extend);
    case ID_PAGE_RIGHT:
      return MoveHead(cursor() + page, extend);
    case ID_ZOOM_IN:
      return zoom_by(2);
    case ID_ZOOM_OUT:
      return zoom_by(0.5);
    case ID_ZOOM_ALL:
      return Scroll([&] { view_.ShowAll(); });
    case ID_ZOOM_SELECTION:
      return Scroll([&] { view_.ShowRange(selection()); });
    default:
      return;
  }
}

Range EditorWindow::SectionAround(std::int64_t frame) const {
  // Finds the shortest section at `frame`, else the range between the labels around `frame`.
  Range found = {0, document_.frames()};
  bool in_section = false;
  for (const auto& [section, name] : document_.annotations().markers) {
    const Range range = {section.begin, section.end};
    if (!range.Holds(frame) || (in_section && range.length() >= found.length())) continue;
    found = range;
    in_section = true;
  }
  if (in_section) return found;
  for (const Label& label : document_.annotations().labels) {
    if (label.position <= frame) found.begin = std::max(found.begin, label.position);
    if (label.position > frame) found.end = std::min(found.end, label.position);
  }
  return found;
}

void EditorWindow::ShowKeys() {
  MessageBoxW(window_, Widen(kKeys).c_str(), L"Keys and mouse", MB_OK);
}

}  // namespace marlinda::editor
