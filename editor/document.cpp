#include "editor/document.h"

#include <algorithm>
#include <utility>

#include "core/plain_object.h"
#include "host/wide_text.h"

namespace marlinda::editor {

// Passes the events of one event interface to the document. The engine calls only Invoke.
class DocumentEvents final : public PlainObject<IDispatch> {
 public:
  DocumentEvents(Document& document, const IID& events) : document_(document), events_(events) {}

  void Listen(IUnknown* source) {
    const auto points = Query<IConnectionPointContainer>(source);
    Check(points->FindConnectionPoint(events_, point_.ReleaseAndGetAddressOf()));
    Check(point_->Advise(this, &cookie_));
  }
  // Ends the connection. Until then, the engine's document and this sink refer to each other.
  void Leave() {
    if (point_) point_->Unadvise(cookie_);
    point_.Reset();
  }

  STDMETHODIMP QueryInterface(REFIID iid, void** object) override {
    return PlainObject::QueryInterface(IsEqualIID(iid, events_) ? IID_IDispatch : iid, object);
  }
  STDMETHODIMP GetTypeInfoCount(UINT* count) override {
    if (count == nullptr) return E_POINTER;
    *count = 0;
    return S_OK;
  }
  STDMETHODIMP GetTypeInfo(UINT, LCID, ITypeInfo**) override { return E_NOTIMPL; }
  STDMETHODIMP GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*) override { return E_NOTIMPL; }
  STDMETHODIMP Invoke(DISPID event, REFIID, LCID, WORD, DISPPARAMS* params, VARIANT*, EXCEPINFO*,
                      UINT*) override {
    constexpr DISPID kStoreUndo = 1;
    constexpr DISPID kContentChanged = 3;
    return ComCall([&] {
      if (!IsEqualIID(events_, DIID__IEAUndoEvents)) {
        if (event == kContentChanged) document_.ContentChanged();
      } else if (event == kStoreUndo && params != nullptr && params->cArgs == 2) {
        // rgvarg lists the arguments in reverse: rgvarg[0] is the document, rgvarg[1] the name.
        const BSTR name = V_BSTR(&params->rgvarg[1]);
        document_.StoreUndo(Narrow({name, SysStringLen(name)}));
      }
    });
  }

 private:
  Document& document_;
  const IID events_;
  ComPtr<IConnectionPoint> point_;
  DWORD cookie_ = 0;
};

namespace {

ComPtr<IEditedAudio> NewAudio() {
  return CreateObject<IEditedAudio>(CLSID_CEditedAudio, "CEditedAudio");
}

ComPtr<DocumentEvents> ListenTo(IEditedAudio* audio, Document& document, const IID& events) {
  ComPtr<DocumentEvents> sink;
  *sink.GetAddressOf() = new DocumentEvents(document, events);
  sink->Listen(audio);
  return sink;
}

}  // namespace

Document::Document(std::function<void(std::int64_t)> changed)
    : changed_(std::move(changed)),
      audio_(NewAudio()),
      reader_(Query<IAudioReader>(audio_.Get())),
      labels_(Query<ILabelSupport>(audio_.Get())),
      sections_(Query<ISectionMarkerSupport>(audio_.Get())),
      undo_events_(ListenTo(audio_.Get(), *this, DIID__IEAUndoEvents)),
      update_events_(ListenTo(audio_.Get(), *this, DIID__IEAUpdateEvents)) {}

Document::~Document() {
  undo_events_->Leave();
  update_events_->Leave();
}

void Document::StoreUndo(const std::string& name) {
  undo_.Store(name, CopyOfAll());
  stored_ = true;
}

void Document::ContentChanged() {
  Check(reader_->GetSampleCount(&frames_));
  format_ = {};
  if (frames_ > 0) Check(reader_->GetFormat(&format_.rate, &format_.channels));
  annotations_ = ReadAnnotations(audio_.Get());
  changed_(std::exchange(changed_from_, 0));
}

void Document::Clear() {
  Check(audio_->InitChange(0, Bstr("Clear").get()));
  audio_->Clear();
  tags = {};
  ForgetSteps();
  Check(audio_->CommitChange());
}

void Document::ForgetSteps() {
  undo_.Clear();
  saved_tags_ = tags;
}

void Document::MarkSaved() {
  undo_.MarkSaved();
  saved_tags_ = tags;
}

void Document::Edit(const std::string& name, std::int64_t from, const std::function<void()>& edit) {
  stored_ = false;
  Check(audio_->InitChange(1, Bstr(name).get()));
  if (!stored_) {
    audio_->CommitChange();
    throw Explain(E_OUTOFMEMORY, name, ExitStatus::kFailure);
  }
  changed_from_ = from;
  try {
    edit();
  } catch (...) {
    // RollbackChange only empties the document. The undo step holds the earlier content.
    audio_->RollbackChange();
    Restore(undo_.Withdraw().Get());
    throw;
  }
  Check(audio_->CommitChange());
}

void Document::Restore(IEditedAudio* state) {
  changed_from_ = 0;
  Check(audio_->InitChange(0, Bstr("Restore").get()));
  const HRESULT hr = state->CopyAll(audio_.Get());
  Check(audio_->CommitChange());
  Check(hr);
}

ComPtr<IEditedAudio> Document::CopyOfAll() const {
  auto copy = NewAudio();
  Check(audio_->CopyAll(copy.Get()));
  return copy;
}

void Document::TakeFormat(const AudioFormat& format) {
  constexpr SHORT kBits = 16;
  if (frames_ == 0) Check(audio_->SetFormat(format.rate, format.channels, kBits));
}

void Document::Insert(const std::string& name, std::int64_t position, const Material& material) {
  Edit(name, position, [&] {
    TakeFormat(material.audio.format);
    const auto piece = NewAudio();
    Check(piece->AppendSegment(material.audio.reader.Get(), 0, material.audio.frames));
    AddAnnotations(piece.Get(), material.annotations);
    Check(audio_->Insert(position, piece.Get()));
  });
}

void Document::InsertSilence(std::int64_t position, std::int64_t frames) {
  Edit("Insert silence", position,
       [&] { Check(audio_->InsertSegment(position, nullptr, 0, frames)); });
}

void Document::Delete(const std::string& name, Range range) {
  Edit(name, range.begin, [&] { Check(audio_->Delete(range.begin, range.end)); });
}

void Document::Trim(Range range) {
  Edit("Trim", 0, [&] {
    Check(audio_->Delete(range.end, frames_));
    Check(audio_->Delete(0, range.begin));
  });
}

void Document::Copy(Range range) {
  auto copy = NewAudio();
  Check(audio_->Copy(copy.Get(), range.begin, range.end));
  clipboard_ = std::move(copy);
  clipboard_frames_ = range.length();
}

Range Document::Paste(Range range) {
  AudioFormat format;
  Check(Query<IAudioReader>(clipboard_.Get())->GetFormat(&format.rate, &format.channels));
  if (frames_ > 0 && (format.rate != format_.rate || format.channels != format_.channels)) {
    throw HostError(ExitStatus::kUsage, "the clipboard", "its audio has another format",
                    "Export it to a file and insert that file, which converts it.");
  }
  Edit("Paste", range.begin, [&] {
    TakeFormat(format);
    if (!range.empty()) Check(audio_->Delete(range.begin, range.end));
    Check(audio_->Insert(range.begin, clipboard_.Get()));
  });
  return {range.begin, range.begin + clipboard_frames_};
}

void Document::AddLabel(std::int64_t position, const std::string& name) {
  Edit("Add label", kNoAudio, [&] { Check(labels_->AddLabel(position, Bstr(name).get())); });
}

void Document::SetLabel(const std::string& operation, LONG index, const Label& label) {
  Edit(operation, kNoAudio,
       [&] { Check(labels_->SetLabel(index, label.position, Bstr(label.name).get())); });
}

void Document::RemoveLabel(LONG index) {
  Edit("Delete label", kNoAudio, [&] { Check(labels_->RemoveLabel(index)); });
}

void Document::AddSection(Range range, const std::string& name) {
  Edit("Add section", kNoAudio,
       [&] { Check(sections_->AddSectionMarker(range.begin, range.end, Bstr(name).get())); });
}

void Document::SetSection(const std::string& operation, LONG index, const SectionMarker& marker) {
  Edit(operation, kNoAudio, [&] {
    const auto& [section, name] = marker;
    Check(sections_->SetSectionMarker(index, section.begin, section.end, Bstr(name).get()));
  });
}

void Document::RemoveSection(LONG index) {
  Edit("Delete section", kNoAudio, [&] { Check(sections_->RemoveSectionMarker(index)); });
}

void Document::Undo() { Restore(undo_.Undo(CopyOfAll()).Get()); }

void Document::Redo() { Restore(undo_.Redo(CopyOfAll()).Get()); }

}  // namespace marlinda::editor
