// Imports all files of a folder in one process, and writes their samples as raw floats beside
// them, for comparison with other decoders:
//   import_files FOLDER [count]
// Prints one line for each file: name, result, rate, channels, frames. With `count`, counts the
// samples instead of writing them, and appends the numbers of samples and of open handles.
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iostream>

#include "tests/support/com_client.h"
#include "tests/support/process_counts.h"
#include "tests/support/recording_writer.h"

namespace marlinda::testing {
namespace {

void ImportFile(const std::filesystem::path& path, bool count) {
  const bool is_ogg = path.extension() == ".ogg";
  const auto filter = Create<IImportFilter>(is_ogg ? CLSID_COggImport : CLSID_CDShowImport);
  const auto writer = MakeObject<RecordingWriter>();
  std::size_t samples = 0;
  writer->keep_samples = !count;
  writer->on_write = [&](SAFEARRAY* block) { samples += block->rgsabound[0].cElements; };
  const Bstr name(path.wstring());
  const HRESULT can_load = filter->QueryCanLoad(name);
  std::cout << path.filename().string() << ' ' << std::hex << can_load << std::dec;
  if (can_load == S_OK && filter->Initialize(name, writer.Get()) == S_OK) {
    const auto task = As<ICoreTask>(filter);
    task->Start();
    if (!WaitForTask(task.Get())) throw HResultError(E_FAIL);
    __int64 frames = 0;
    filter->GetSourceSampleCount(&frames);
    std::cout << ' ' << writer->samples_per_sec << ' ' << writer->channels << ' ' << frames;
    if (count) {
      std::cout << ' ' << samples << ' ' << CountHandles();
    } else {
      std::ofstream raw(path.string() + ".raw", std::ios::binary);
      raw.write(reinterpret_cast<const char*>(writer->samples.data()),
                static_cast<std::streamsize>(writer->samples.size() * sizeof(float)));
    }
  }
  std::cout << std::endl;
}

}  // namespace
}  // namespace marlinda::testing

int main(int argc, char** argv) {
  return marlinda::testing::RunClient([&] {
    const std::filesystem::directory_iterator folder(argv[1]);
    std::vector<std::filesystem::path> files(begin(folder), end(folder));
    std::ranges::sort(files);
    for (const auto& file : files) marlinda::testing::ImportFile(file, argc > 2);
    return 0;
  });
}
