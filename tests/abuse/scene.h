// What a well-behaved host passes to any method of the module, and the states that it brings
// objects into. Everything goes by interface and parameter name, so that a new class gets its
// share.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "tests/abuse/parts.h"
#include "tests/support/contract_model.h"

namespace marlinda::testing {

enum class State { kFresh, kSetUp, kOpen };

// The objects and files of one case.
class Scene {
 public:
  // Files come from and go into `folder`; `sample` is an Ogg file.
  Scene(std::wstring folder, std::wstring sample, const std::vector<Class>& classes)
      : folder_(std::move(folder)), sample_(std::move(sample)), classes_(classes) {}

  // Results do not matter: an object that refuses stays in the state that it is in.
  void Bring(IUnknown* object, State state) {
    if (state != State::kFresh) SetUp(object);
    if (state == State::kOpen) Open(object);
  }

  static std::int64_t LegalNumber(const Parameter& parameter) {
    static const std::map<std::string, std::int64_t> kKnown = {
        {"nSamplesPerSec", kRate}, {"nChannels", kChannels},   {"nBitsPerSample", 16},
        {"nMilliSecs", 100},       {"nSamplesInBlocks", 1024}, {"nEnd", kFrames},
        {"nByteCount", 8000},      {"nSampleCount", kFrames},  {"nDeviceId", -1},
        {"niDevice", -1},          {"dwChannelMask", -1},      {"bStoreUndo", 1}};
    const auto found = kKnown.find(parameter.name);
    return found != kKnown.end() ? found->second : 0;
  }

  // For an object that reads files, or one that writes them.
  std::wstring LegalText(const Parameter& parameter, IUnknown* object) const {
    const auto has = [&](const char* part) {
      return parameter.name.find(part) != std::string::npos;
    };
    if (has("Extension")) return L"wav";
    if (!has("File") && !has("Path")) return L"name";
    const bool writes = As<IExportFilter>(object) || As<IWaveWriter>(object);
    return writes ? folder_ + L"\\target.wav" : sample_;
  }

  // Some object with that interface, kept by the scene. Null where the module has none.
  IUnknown* LegalObject(const Parameter& parameter) {
    if (parameter.iid == IID_IAudioReader || parameter.name == "punkAudioReader") {
      return Keep(Silence(kFrames));
    }
    if (parameter.iid == IID_IAudioPool) return Keep(Pool());
    if (parameter.iid == IID_IAudioWriter) return Keep(As<IAudioWriter>(Pool()));
    if (parameter.name == "punkExportFilter") {
      return Keep(Create<IExportFilter>(CLSID_CWavExportFilter));
    }
    if (parameter.name == "punkImportFilter") return Keep(Create<IImportFilter>(CLSID_COggImport));
    for (const Class& known : classes_) {
      for (const Interface& each : known.interfaces) {
        if (each.iid != parameter.iid) continue;
        ComPtr<IUnknown>& face = kept_.emplace_back();
        Create<IUnknown>(known.clsid)
            ->QueryInterface(each.iid, reinterpret_cast<void**>(face.GetAddressOf()));
        return face.Get();
      }
    }
    return nullptr;
  }

 private:
  static constexpr LONG kRate = 44100;
  static constexpr SHORT kChannels = 2;
  static constexpr __int64 kFrames = 1000;

  template <class I>
  I* Keep(const ComPtr<I>& object) {
    kept_.push_back(As<IUnknown>(object));
    return object.Get();
  }
  static ComPtr<IAudioPool> Pool() {
    auto pool = Create<IAudioPool>(CLSID_CAudioPool);
    WriteTake(As<IAudioWriter>(pool).Get(), Samples(2 * kFrames, 0.25F));
    return pool;
  }

  void SetUp(IUnknown* object) {
    const Bstr name(L"name");
    const Bstr target(folder_ + L"\\setup.wav");
    if (auto silence = As<INullReader>(object)) silence->Create(kFrames, kRate, kChannels);
    if (auto reader = As<IAudioPoolReader>(object)) {
      reader->Create(Keep(Pool()), 0, 0, kFrames * kChannels * 4, 32);
    }
    if (auto document = As<IEditedAudio>(object)) {
      ComPtr<IAudioReader> take;
      Keep(Pool())->CreateLastReader(take.GetAddressOf());
      document->AppendSegment(take.Get(), 0, kFrames);
      document->AppendSegment(nullptr, 0, kFrames);
      document->AppendSegment(Silence(kFrames).Get(), 100, 600);
    }
    if (auto labels = As<ILabelSupport>(object)) {
      labels->AddLabel(100, name);
      labels->AddLabel(50, name);
    }
    if (auto markers = As<ISectionMarkerSupport>(object)) {
      markers->AddSectionMarker(0, 500, name);
      markers->AddSectionMarker(700, 300, name);
    }
    if (auto importer = As<IImportFilter>(object)) {
      importer->Initialize(Bstr(sample_), As<IAudioWriter>(Pool()).Get());
    }
    if (auto exporter = As<IExportFilter>(object))
      exporter->Initialize(target, Silence(kFrames).Get());
    if (auto connector = As<IAudioConnector>(object)) {
      connector->SetupReaderToExport(Silence(kFrames).Get(),
                                     Create<IExportFilter>(CLSID_CWavExportFilter).Get(), kRate,
                                     kChannels);
    }
    if (auto wave = As<IWaveWriter>(object)) wave->SetTargetFile(target);
    if (auto grabber = As<IAudioGrabber>(object)) grabber->SetFormat(kRate, kChannels, 16);
    if (auto writer = As<IAudioWriter>(object)) {
      As<IAudioPool>(object) ? WriteTake(writer.Get(), Samples(2 * kFrames, 0.5F))
                             : void(writer->SetFormat(kRate, kChannels));
    }
  }

  static void Open(IUnknown* object) {
    if (auto document = As<IEditedAudio>(object)) document->InitChange(0, nullptr);
    if (auto scrubber = As<IAudioScrubber>(object)) {
      scrubber->Start(As<IAudioWriter>(Pool()).Get(), 1024, kRate, kChannels);
    }
    if (auto reader = As<IAudioReader>(object)) reader->OpenDevice();
    if (auto writer = As<IAudioWriter>(object)) writer->OpenDevice();
    if (auto task = As<ICoreTask>(object)) task->Start();
  }

  const std::wstring folder_;
  const std::wstring sample_;
  const std::vector<Class>& classes_;
  std::vector<ComPtr<IUnknown>> kept_;
};

}  // namespace marlinda::testing
