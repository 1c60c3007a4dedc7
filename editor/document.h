// The edited document with its undo steps and the clipboard.
#pragma once

#include <marlinda.h>

#include <cstdint>
#include <functional>
#include <limits>
#include <string>

#include "editor/undo_stack.h"
#include "editor/view.h"
#include "host/engine.h"

namespace marlinda::editor {

// Audio to insert: an imported file or a recording.
struct Material {
  ImportedAudio audio;
  Annotations annotations;
  Tags tags;
};

class DocumentEvents;

class Document {
 public:
  // Argument of `changed` (see the constructor) after an edit that changes only labels or sections.
  static constexpr std::int64_t kNoAudio = std::numeric_limits<std::int64_t>::max();

  // `changed` is called after each change, with the first frame whose audio may differ.
  explicit Document(std::function<void(std::int64_t)> changed);
  ~Document();
  Document(const Document&) = delete;
  Document& operator=(const Document&) = delete;

  IEditedAudio* audio() const { return audio_.Get(); }
  // Rate and channels are 0 while the document has no audio.
  const AudioFormat& format() const { return format_; }
  std::int64_t frames() const { return frames_; }
  const Annotations& annotations() const { return annotations_; }
  const UndoStack<ComPtr<IEditedAudio>>& undo() const { return undo_; }
  // True if audio, annotations and tags are those of the last MarkSaved, ForgetSteps or Clear.
  bool IsSaved() const { return undo_.IsSaved() && tags == saved_tags_; }
  bool CanPaste() const { return clipboard_ && clipboard_frames_ > 0; }

  Tags tags;  // descriptive texts for the next export

  // Empties the document and deletes the undo steps.
  void Clear();
  // Deletes the undo steps and marks the content as saved.
  void ForgetSteps();
  void MarkSaved();

  // Each edit is one undo step. An edit that fails throws and leaves the content unchanged.
  void Insert(const std::string& name, std::int64_t position, const Material& material);
  void InsertSilence(std::int64_t position, std::int64_t frames);
  void Delete(const std::string& name, Range range);
  void Trim(Range range);
  void Copy(Range range);
  // Replaces the range by the clipboard. Returns the range of the pasted audio.
  Range Paste(Range range);
  void AddLabel(std::int64_t position, const std::string& name);
  void SetLabel(const std::string& operation, LONG index, const Label& label);
  void RemoveLabel(LONG index);
  void AddSection(Range range, const std::string& name);
  void SetSection(const std::string& operation, LONG index, const SectionMarker& section);
  void RemoveSection(LONG index);

  void Undo();
  void Redo();

 private:
  friend class DocumentEvents;

  void StoreUndo(const std::string& name);  // handles the event before a change
  void ContentChanged();                    // handles the event after a change

  void Edit(const std::string& name, std::int64_t from, const std::function<void()>& edit);
  void Restore(IEditedAudio* state);
  // Sets the format of a document without audio.
  void TakeFormat(const AudioFormat& format);
  ComPtr<IEditedAudio> CopyOfAll() const;

  std::function<void(std::int64_t)> changed_;
  ComPtr<IEditedAudio> audio_;
  ComPtr<IAudioReader> reader_;
  ComPtr<ILabelSupport> labels_;
  ComPtr<ISectionMarkerSupport> sections_;
  ComPtr<DocumentEvents> undo_events_;
  ComPtr<DocumentEvents> update_events_;
  ComPtr<IEditedAudio> clipboard_;
  std::int64_t clipboard_frames_ = 0;
  UndoStack<ComPtr<IEditedAudio>> undo_;
  Tags saved_tags_;
  bool stored_ = false;            // StoreUndo has stored the step of the current edit
  std::int64_t changed_from_ = 0;  // the first frame that the current edit may have changed
  AudioFormat format_;
  std::int64_t frames_ = 0;
  Annotations annotations_;
};

}  // namespace marlinda::editor
