// A document as its tests see it: made, edited and looked at in few words.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/com_client.h"
#include "tests/support/ramp_source.h"

namespace marlinda::testing {

class Document {
 public:
  Document() : Document(Create<IEditedAudio>(CLSID_CEditedAudio)) {}
  explicit Document(ComPtr<IEditedAudio> object)
      : edit(object),
        reader(As<IAudioReader>(object)),
        labels(As<ILabelSupport>(object)),
        markers(As<ISectionMarkerSupport>(object)) {}

  IEditedAudio* operator->() const { return edit.Get(); }
  operator IEditedAudio*() const { return edit.Get(); }

  void Append(const ComPtr<RampSource>& source, __int64 begin, __int64 end) const {
    EXPECT_EQ(edit->AppendSegment(source.Get(), begin, end), S_OK);
  }
  void Label(const std::wstring& name, __int64 position) const {
    EXPECT_EQ(labels->AddLabel(position, Bstr(name)), S_OK);
  }
  void Marker(const std::wstring& name, __int64 begin, __int64 end) const {
    EXPECT_EQ(markers->AddSectionMarker(begin, end, Bstr(name)), S_OK);
  }

  // "A[0,10) -[5,7)": the sources by name, silence as a dash.
  std::string Segments() const {
    std::string text;
    IAudioReader* lent = nullptr;
    __int64 begin = 0;
    __int64 end = 0;
    LONG valid = 0;
    EXPECT_EQ(edit->GetFirstSegment(&lent, &begin, &end, &valid), S_OK);
    while (valid != 0) {
      text += lent == nullptr ? '-' : static_cast<RampSource*>(lent)->name();
      text += "[" + std::to_string(begin) + "," + std::to_string(end) + ") ";
      EXPECT_EQ(edit->GetNextSegment(&lent, &begin, &end, &valid), S_OK);
    }
    return Trim(text);
  }

  // "intro@5 outro@90".
  std::string Labels() const {
    LONG count = 0;
    EXPECT_EQ(labels->GetLabelCount(&count), S_OK);
    std::string text;
    for (LONG i = 0; i < count; ++i) {
      __int64 position = 0;
      Bstr name;
      EXPECT_EQ(labels->GetLabel(i, &position, name.Receive()), S_OK);
      text += Plain(name) + "@" + std::to_string(position) + " ";
    }
    return Trim(text);
  }

  // "verse[5,7)".
  std::string Markers() const {
    LONG count = 0;
    EXPECT_EQ(markers->GetMarkerCount(&count), S_OK);
    std::string text;
    for (LONG i = 0; i < count; ++i) {
      __int64 begin = 0;
      __int64 end = 0;
      Bstr name;
      EXPECT_EQ(markers->GetSectionMarker(i, &begin, &end, name.Receive()), S_OK);
      text += Plain(name) + "[" + std::to_string(begin) + "," + std::to_string(end) + ") ";
    }
    return Trim(text);
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

  const ComPtr<IEditedAudio> edit;
  const ComPtr<IAudioReader> reader;
  const ComPtr<ILabelSupport> labels;
  const ComPtr<ISectionMarkerSupport> markers;

 private:
  // The tests name things in plain ASCII.
  static std::string Plain(const Bstr& name) {
    std::string text;
    for (const wchar_t character : name.str()) text += static_cast<char>(character);
    return text;
  }

  static std::string Trim(std::string text) {
    if (!text.empty()) text.pop_back();
    return text;
  }
};

}  // namespace marlinda::testing
