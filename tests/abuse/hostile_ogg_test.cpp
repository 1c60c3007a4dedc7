// Damaged Ogg files through the built module: no crash, no hang, no flood of memory, the writer's
// protocol kept, and a cancel that is answered. Hundreds of files; TESSALY_HOSTILE_OGG names
// another number, or "cuts" for five small files cut short at every byte.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include "tests/abuse/child_runs.h"
#include "tests/abuse/ogg_mutator.h"
#include "tests/support/com_client.h"
#include "tests/support/process_counts.h"
#include "tests/support/recording_writer.h"

namespace marlinda::testing {
namespace {

constexpr char kFiles[] = "500";
const DWORD kLongestImport = TimeLimit(5000, 30000);
const DWORD kLongestCancel = TimeLimit(300, 1800);

std::vector<OggBytes> Seeds() {
  std::vector<std::filesystem::path> paths;
  for (const auto& entry : std::filesystem::directory_iterator(TESSALY_OGG_SEEDS)) {
    paths.push_back(entry.path());
  }
  std::ranges::sort(paths);
  std::vector<OggBytes> seeds;
  for (const auto& path : paths) seeds.push_back(ReadFileBytes(path.wstring()));
  return seeds;
}

// One import from first look to last block. Failures go to the report.
class Import {
 public:
  Import(const SharedReport& report, const std::wstring& path) : report_(report), path_(path) {}

  // True when the file was taken.
  bool Run(bool cancel) {
    auto filter = Create<IImportFilter>(CLSID_COggImport);
    auto writer = MakeObject<RecordingWriter>();
    writer->keep_samples = false;
    const HRESULT can_load = filter->QueryCanLoad(path_);
    if (can_load != S_OK && can_load != E_FAIL) Fail("QueryCanLoad gave " + Hex(can_load));
    const HRESULT hr = filter->Initialize(path_, writer.Get());
    if (hr != can_load) Fail("Initialize gave " + Hex(hr) + ", QueryCanLoad " + Hex(can_load));
    if (FAILED(hr)) return false;
    ReadTexts(filter.Get());

    LONG rate = 0;
    SHORT channels = 0;
    Check(As<IExFormatInfo>(filter)->GetFormat(&rate, &channels));
    if (rate <= 0 || channels <= 0) Fail("a format of nothing");
    writer->on_write = [&, channels](SAFEARRAY* block) {
      if (block->rgsabound[0].cElements % static_cast<ULONG>(channels) != 0) odd_blocks_ = true;
    };
    const auto task = As<ICoreTask>(filter);
    const ULONGLONG begun = GetTickCount64();
    Check(task->Start());
    if (cancel) {
      task->Cancel();
      if (GetTickCount64() - begun > kLongestCancel) Fail("the cancel took too long");
    }
    while (!WaitForTask(task.Get(), 1)) {
      if (GetTickCount64() - begun < kLongestImport) continue;
      Fail("the import took too long");
      task->Cancel();
      break;
    }
    std::vector<std::string> expected = {"SetFormat", "OpenDevice"};
    if (writer->blocks > 0) expected.emplace_back("WriteAudio");
    expected.emplace_back("CloseDevice");
    if (writer->calls != expected) Fail("the writer's protocol was broken");
    if (writer->samples_per_sec != rate || writer->channels != channels) Fail("another format");
    if (odd_blocks_) Fail("a block was not of whole frames");
    float progress = -1;
    if (SUCCEEDED(task->GetProgress(&progress)) && !(progress >= 0 && progress <= 1)) {
      Fail("a progress of " + std::to_string(progress));
    }
    return true;
  }

 private:
  void Fail(const std::string& what) { report_.Fail(what); }

  void ReadTexts(IImportFilter* filter) {
    Bstr texts[5];
    const auto reader = As<IMetaDataReader>(filter);
    if (FAILED(reader->SetFilename(path_))) Fail("SetFilename failed");
    const HRESULT hr =
        reader->GetMetaData(texts[0].Receive(), texts[1].Receive(), texts[2].Receive(),
                            texts[3].Receive(), texts[4].Receive());
    if (FAILED(hr)) Fail("GetMetaData gave " + Hex(hr));
    if (texts[3].str().size() > 4) Fail("a year of more than four characters");
  }

  const SharedReport& report_;
  const Bstr path_;
  bool odd_blocks_ = false;
};

constexpr char kCuts[] = "cuts";

// The files of a run, each by its number.
class Cases {
 public:
  explicit Cases(const std::string& name) : seeds_(Seeds()), cut_(name == kCuts) {
    if (cut_) {
      std::ranges::sort(seeds_, {}, &OggBytes::size);
      seeds_.resize(5);
      for (const OggBytes& seed : seeds_) count_ += static_cast<LONG64>(seed.size());
    } else {
      count_ = std::atoll(name.c_str());
    }
  }

  LONG64 Count() const { return count_; }

  DamagedOgg Get(LONG64 number) const {
    if (!cut_) {
      // First what is whole, so that a test of refusals alone cannot pass.
      return IsWhole(number) ? DamagedOgg{"whole", seeds_[static_cast<std::size_t>(number)]}
                             : Damage(seeds_, static_cast<std::uint32_t>(number));
    }
    auto length = static_cast<std::size_t>(number);
    auto seed = seeds_.begin();
    for (; length >= seed->size(); ++seed) length -= seed->size();
    return {std::to_string(length) + " of " + std::to_string(seed->size()) + " bytes",
            {seed->begin(), seed->begin() + static_cast<std::ptrdiff_t>(length)}};
  }

  bool IsWhole(LONG64 number) const { return !cut_ && number < static_cast<LONG64>(seeds_.size()); }

 private:
  std::vector<OggBytes> seeds_;
  bool cut_;
  LONG64 count_ = 0;
};

void RunCases(const ChildTask& task, SharedReport& report) {
  const Cases cases(task.name);
  const LONG64 count = cases.Count();
  const std::wstring path = task.arguments.at(0) + L"\\damaged.ogg";
  LONG64 taken = 0;
  unsigned handles = 0;
  for (LONG64 number = task.first; number < count; ++number) {
    const DamagedOgg damaged = cases.Get(number);
    report.Begin(number, damaged.what);
    report.Count();
    WriteFileBytes(path, damaged.bytes);
    const bool was_taken = Import(report, path).Run(number % 5 == 4);
    if (!was_taken && cases.IsWhole(number)) report.Fail("a whole file was refused");
    if (was_taken) ++taken;
    if (number == task.first + 50) handles = CountHandles();
  }
  report.Begin(count, "at the end");
  if (handles != 0 && CountHandles() > handles + 5) report.Fail("handles are left");
  std::printf("%lld files, of which %lld were taken\n", count - task.first, taken);
}

TEST(HostileOgg, IsReadOrRefusedAndHarmsNothing) {
  const char* const named = std::getenv("TESSALY_HOSTILE_OGG");
  const std::string cases = named != nullptr ? named : kFiles;
  const TemporaryFolder folder;
  const Outcome outcome = RunInChildren(cases, {folder.path()});
  for (const std::string& failure : outcome.failures) ADD_FAILURE() << failure;
  EXPECT_GE(outcome.calls, Cases(cases).Count());
}

}  // namespace
}  // namespace marlinda::testing

int main(int argc, char** argv) {
  return marlinda::testing::AbuseMain(argc, argv, marlinda::testing::RunCases, [] {});
}
