// DShowExportJob: one export from reader to compressed file, run by the worker thread of a
// CDShowExport.
#pragma once

#include <marlinda.h>

#include <atomic>
#include <cstdint>
#include <future>
#include <string>

#include "core/com_ptr.h"
#include "export/encoded_file.h"

namespace marlinda {

enum class EncodedKind { kWma, kMp3 };

// The filter and its worker share a job, so that the job outlives whichever of them ends first. The
// reader belongs to the filter until Run begins, and to the worker from then on.
class DShowExportJob {
 public:
  DShowExportJob(EncodedKind kind, std::string path, IAudioReader* reader);

  EncodedKind kind() const noexcept { return kind_; }
  // False once a Run has taken the reader.
  bool HasReader() const noexcept { return reader_ != nullptr; }
  // The rate and channels of the reader; E_INVALIDARG where it has none that a file could have.
  HRESULT AskFormat(int& samples_per_sec, int& channels) const;

  // Tells through `opened` whether encoder and file are there, and then writes the whole file and
  // lets go of the reader. When they are not, the reader stays for another try. Cancelled, it
  // leaves a valid file with what came before; a file that fails on the way is deleted.
  void Run(EncodingOrder order, std::promise<HRESULT>& opened) noexcept;

  // The calls below come from any thread, at any time.

  void Cancel() noexcept { cancelled_ = true; }
  std::int64_t Position() const noexcept { return position_; }
  std::int64_t Total() const noexcept { return total_; }

 private:
  void WriteSamples(EncodedFile& file, int channels);

  const EncodedKind kind_;
  const std::string path_;
  const std::int64_t total_;
  ComPtr<IAudioReader> reader_;
  std::atomic<bool> cancelled_{false};
  std::atomic<std::int64_t> position_{0};
};

}  // namespace marlinda
