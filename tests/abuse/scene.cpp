#include "tests/abuse/scene.h"

#include <algorithm>

namespace marlinda::testing {
namespace {

constexpr LONG kRate = 44100;
constexpr SHORT kChannels = 2;
constexpr SHORT kBits = 16;
constexpr std::size_t kFrames = 1000;

bool Contains(const std::string& text, const char* part) {
  return text.find(part) != std::string::npos;
}

}  // namespace

const char* NameOf(State state) {
  switch (state) {
    case State::kFresh:
      return "fresh";
    case State::kSetUp:
      return "set up";
    case State::kOpen:
      return "open";
  }
  return "?";
}

std::int64_t Scene::LegalNumber(const Parameter& parameter) const {
  static constexpr struct {
    const char* name;
    std::int64_t value;
  } kKnown[] = {
      {"nSamplesPerSec", kRate},   {"nChannels", kChannels},
      {"nBitsPerSample", kBits},   {"nSamplesInBlocks", 1024},
      {"nMilliSecs", 100},         {"nEnd", kFrames},
      {"nByteCount", kFrames * 8}, {"nSampleCount", kFrames},
      {"nDeviceId", -1},           {"niDevice", -1},
      {"dwChannelMask", -1},       {"bStoreUndo", 1},
  };
  for (const auto& known : kKnown) {
    if (parameter.name == known.name) return known.value;
  }
  return 0;
}

std::wstring Scene::LegalText(const Parameter& parameter, bool imports) const {
  if (Contains(parameter.name, "Extension")) return L"wav";
  if (Contains(parameter.name, "File") || Contains(parameter.name, "Path")) {
    return imports ? sample_ : folder_ + L"\\target.wav";
  }
  return L"name";
}

template <class I>
I* Scene::Keep(ComPtr<I> object) {
  kept_.push_back(As<IUnknown>(object));
  return object.Get();
}

ComPtr<IAudioReader> Scene::MakeReader() {
  auto silence = Create<INullReader>(CLSID_CNullReader);
  Check(silence->Create(kFrames, kRate, kChannels));
  return As<IAudioReader>(silence);
}

ComPtr<IAudioPool> Scene::MakePool() {
  auto pool = Create<IAudioPool>(CLSID_CAudioPool);
  auto writer = As<IAudioWriter>(pool);
  Check(writer->SetFormat(kRate, kChannels));
  Check(writer->OpenDevice());
  const Floats block(kFrames * kChannels, 0.25F);
  Check(writer->WriteAudio(block));
  Check(writer->CloseDevice());
  return pool;
}

IUnknown* Scene::LegalObject(const Parameter& parameter) {
  if (parameter.iid == IID_IAudioReader || parameter.name == "punkAudioReader") {
    return Keep(MakeReader());
  }
  if (parameter.iid == IID_IAudioPool) return Keep(MakePool());
  if (parameter.iid == IID_IAudioWriter) return Keep(As<IAudioWriter>(MakePool()));
  if (parameter.name == "punkExportFilter") {
    return Keep(Create<IExportFilter>(CLSID_CWavExportFilter));
  }
  if (parameter.name == "punkImportFilter") return Keep(Create<IImportFilter>(CLSID_COggImport));
  // Any class that lists the interface.
  for (const Class& candidate : classes_) {
    const bool lists = std::ranges::any_of(
        candidate.methods, [&](const Method& method) { return method.iid == parameter.iid; });
    if (!lists) continue;
    const auto object = Create<IUnknown>(candidate.clsid);
    ComPtr<IUnknown> face;
    object->QueryInterface(parameter.iid, reinterpret_cast<void**>(face.GetAddressOf()));
    kept_.push_back(face);
    return face.Get();
  }
  return nullptr;
}

void Scene::Bring(IUnknown* object, State state) {
  if (state == State::kFresh) return;
  SetUp(object);
  if (state == State::kOpen) Open(object);
}

// Results do not matter here: an object that refuses stays in the state that it is in.
void Scene::SetUp(IUnknown* object) {
  if (auto silence = As<INullReader>(object)) silence->Create(kFrames, kRate, kChannels);
  if (auto reader = As<IAudioPoolReader>(object)) {
    reader->Create(Keep(MakePool()), 0, 0, kFrames * kChannels * 4, 32);
  }
  if (auto document = As<IEditedAudio>(object)) {
    ComPtr<IAudioReader> take;
    Keep(MakePool())->CreateLastReader(take.GetAddressOf());
    document->AppendSegment(take.Get(), 0, kFrames);
    document->AppendSegment(nullptr, 0, kFrames);
    document->AppendSegment(MakeReader().Get(), 100, 600);
  }
  if (auto labels = As<ILabelSupport>(object)) {
    const Bstr name(L"label");
    labels->AddLabel(100, name);
    labels->AddLabel(50, name);
  }
  if (auto markers = As<ISectionMarkerSupport>(object)) {
    const Bstr name(L"marker");
    markers->AddSectionMarker(0, 500, name);
    markers->AddSectionMarker(700, 300, name);
  }
  if (auto importer = As<IImportFilter>(object)) {
    const auto writer = As<IAudioWriter>(MakePool());
    importer->Initialize(Bstr(sample_), writer.Get());
  }
  if (auto exporter = As<IExportFilter>(object)) {
    exporter->Initialize(Bstr(folder_ + L"\\setup.wav"), MakeReader().Get());
  }
  if (auto connector = As<IAudioConnector>(object)) {
    auto exporter = Create<IExportFilter>(CLSID_CWavExportFilter);
    connector->SetupReaderToExport(MakeReader().Get(), exporter.Get(), kRate, kChannels);
  }
  if (auto wave = As<IWaveWriter>(object)) {
    wave->SetTargetFile(Bstr(folder_ + L"\\setup.wav"));
  }
  if (auto grabber = As<IAudioGrabber>(object)) grabber->SetFormat(kRate, kChannels, kBits);
  if (auto writer = As<IAudioWriter>(object)) {
    writer->SetFormat(kRate, kChannels);
    if (As<IAudioPool>(object)) {
      writer->OpenDevice();
      writer->WriteAudio(Floats(kFrames * kChannels, 0.5F));
      writer->CloseDevice();
    }
  }
}

void Scene::Open(IUnknown* object) {
  if (auto document = As<IEditedAudio>(object)) document->InitChange(0, nullptr);
  if (auto scrubber = As<IAudioScrubber>(object)) {
    scrubber->Start(As<IAudioWriter>(MakePool()).Get(), 1024, kRate, kChannels);
  }
  if (auto reader = As<IAudioReader>(object)) reader->OpenDevice();
  if (auto writer = As<IAudioWriter>(object)) writer->OpenDevice();
  if (auto task = As<ICoreTask>(object)) task->Start();
}

}  // namespace marlinda::testing
