// Imports every file of a folder through CDShowImport, in one process, and leaves the samples
// beside it as raw floats, for comparison with what other programs decode:
//   import_files FOLDER
// For each file one line: name, result, rate, channels, frames.
#include <filesystem>
#include <fstream>
#include <iostream>

#include "tests/support/com_client.h"
#include "tests/support/recording_writer.h"

namespace marlinda::testing {
namespace {

void ImportFile(const std::filesystem::path& path) {
  const auto filter = Create<IImportFilter>(CLSID_CDShowImport);
  const auto writer = MakeObject<RecordingWriter>();
  const Bstr name(path.wstring());
  std::cout << path.filename().string() << ' ' << std::hex << filter->QueryCanLoad(name)
            << std::dec;
  if (filter->Initialize(name, writer.Get()) == S_OK) {
    const auto task = As<ICoreTask>(filter);
    task->Start();
    if (!WaitForTask(task.Get())) throw HResultError(E_FAIL);
    __int64 frames = 0;
    filter->GetSourceSampleCount(&frames);
    std::cout << ' ' << writer->samples_per_sec << ' ' << writer->channels << ' ' << frames;
    std::ofstream raw(path.string() + ".raw", std::ios::binary);
    raw.write(reinterpret_cast<const char*>(writer->samples.data()),
              static_cast<std::streamsize>(writer->samples.size() * sizeof(float)));
  }
  std::cout << std::endl;
}

}  // namespace
}  // namespace marlinda::testing

int main(int argc, char** argv) {
  using namespace marlinda::testing;
  if (argc != 2) return 2;
  CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
  ModuleUnderTest::Load();
  const std::filesystem::directory_iterator folder(argv[1]);
  for (const auto& file : std::vector<std::filesystem::path>(begin(folder), end(folder))) {
    ImportFile(file);
  }
  const bool unused = ModuleUnderTest::RevokeAndSeeUnused();
  CoUninitialize();
  return unused ? 0 : 1;
}
