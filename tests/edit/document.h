// Helpers that create, edit and inspect a document, and a sink that records its events.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "tests/edit/plain_document.h"
#include "tests/support/com_client.h"
#include "tests/support/ramp_source.h"

namespace marlinda::testing {

struct Document {
  explicit Document(ComPtr<IEditedAudio> object = Create<IEditedAudio>(CLSID_CEditedAudio))
      : edit(object) {}
  IEditedAudio* operator->() const { return edit.Get(); }
  operator IEditedAudio*() const { return edit.Get(); }

  // A null source appends silence.
  void Append(const ComPtr<RampSource>& source, __int64 begin, __int64 end) const {
    EXPECT_EQ(edit->AppendSegment(source.Get(), begin, end), S_OK);
  }
  void AddLabel(const std::string& name, __int64 position) const {
    EXPECT_EQ(labels->AddLabel(position, Wide(name)), S_OK);
  }
  void AddMarker(const std::string& name, __int64 begin, __int64 end) const {
    EXPECT_EQ(markers->AddSectionMarker(begin, end, Wide(name)), S_OK);
  }

  // Returns the content in the format of PlainDocument::Text. Sources must be RampSources or null.
  std::string Text() const {
    PlainDocument content;
    IAudioReader* lent = nullptr;
    __int64 begin = 0;
    __int64 end = 0;
    LONG more = 0;
    Bstr name;
    EXPECT_EQ(edit->GetFirstSegment(&lent, &begin, &end, &more), S_OK);
    while (more != 0) {
      const char source = lent == nullptr ? '-' : static_cast<RampSource*>(lent)->name();
      content.segments.emplace_back(source, begin, end);
      EXPECT_EQ(edit->GetNextSegment(&lent, &begin, &end, &more), S_OK);
    }
    // After the last segment, GetNextSegment only writes `more`.
    EXPECT_EQ(end, content.segments.empty() ? 0 : content.segments.back().end);
    LONG count = 0;
    EXPECT_EQ(labels->GetLabelCount(&count), S_OK);
    for (LONG i = 0; i < count; ++i) {
      EXPECT_EQ(labels->GetLabel(i, &begin, name.Receive()), S_OK);
      content.labels.push_back({begin, Narrow(name)});
    }
    EXPECT_EQ(markers->GetMarkerCount(&count), S_OK);
    for (LONG i = 0; i < count; ++i) {
      EXPECT_EQ(markers->GetSectionMarker(i, &begin, &end, name.Receive()), S_OK);
      content.markers.push_back({{begin, end}, Narrow(name)});
    }
    return content.Text();
  }

  // Returns rate, channels and bits, such as "44100/2/16".
  std::string Format() const {
    LONG rate = -1;
    SHORT channels = -1;
    SHORT bits = -1;
    EXPECT_EQ(reader->GetFormat(&rate, &channels), S_OK);
    EXPECT_EQ(edit->GetBitsPerSample(&bits), S_OK);
    return std::to_string(rate) + "/" + std::to_string(channels) + "/" + std::to_string(bits);
  }

  __int64 Length() const {
    __int64 length = 0;
    EXPECT_EQ(reader->GetSampleCount(&length), S_OK);
    return length;
  }

  std::vector<float> Read(__int64 position, std::size_t elements) const {
    const Floats block(elements, -1.0F);
    EXPECT_EQ(reader->ReadAudio(position, block), S_OK);
    return block.ToVector();
  }

  // Names are ASCII.
  static Bstr Wide(const std::string& name) { return Bstr(std::wstring(name.begin(), name.end())); }
  static std::string Narrow(const Bstr& name) {
    const std::wstring wide = name.str();
    return {wide.begin(), wide.end()};
  }

  const ComPtr<IEditedAudio> edit;
  const ComPtr<IAudioReader> reader = As<IAudioReader>(edit);
  const ComPtr<ILabelSupport> labels = As<ILabelSupport>(edit);
  const ComPtr<ISectionMarkerSupport> markers = As<ISectionMarkerSupport>(edit);
  const ComPtr<IScrubSupport> scrub = As<IScrubSupport>(edit);
};

// Records each event and then runs the test's function. Connects to the connection point of its
// event interface.
class Sink final : public TestObject<IDispatch> {
 public:
  Sink(std::string name, CallLog* log, const IID& iid = DIID__IEAUpdateEvents)
      : name_(std::move(name)), log_(log), iid_(iid) {}

  std::function<HRESULT(DISPPARAMS*)> on_event;
  DWORD cookie = 0;

  ComPtr<IConnectionPoint> Point(IUnknown* document) const {
    ComPtr<IConnectionPoint> point;
    EXPECT_EQ(
        As<IConnectionPointContainer>(document)->FindConnectionPoint(iid_, point.GetAddressOf()),
        S_OK);
    return point;
  }
  void Connect(IUnknown* document) { EXPECT_EQ(Point(document)->Advise(this, &cookie), S_OK); }
  void Disconnect(IUnknown* document) { EXPECT_EQ(Point(document)->Unadvise(cookie), S_OK); }

  STDMETHODIMP QueryInterface(REFIID iid, void** object) override {
    return TestObject::QueryInterface(IsEqualIID(iid, iid_) ? IID_IDispatch : iid, object);
  }
  STDMETHODIMP Invoke(DISPID event, REFIID, LCID, WORD flags, DISPPARAMS* params, VARIANT*,
                      EXCEPINFO*, UINT*) override {
    log_->push_back(name_ + std::to_string(event));
    EXPECT_EQ(flags, DISPATCH_METHOD);
    return on_event ? on_event(params) : S_OK;
  }

 private:
  const std::string name_;
  CallLog* const log_;
  const IID iid_;
};

}  // namespace marlinda::testing
