// DShowExportJob: one export from reader to compressed file, run by the worker thread of a
// CDShowExport.
#pragma once

#include <marlinda.h>

#include <cstdint>
#include <future>
#include <string>

#include "core/com_ptr.h"
#include "core/filter_task.h"
#include "export/encoded_file.h"

namespace marlinda {

enum class EncodedKind { kWma, kMp3 };

// The reader belongs to the filter until Run begins, and to the worker from then on.
class DShowExportJob : public TaskJob {
 public:
  DShowExportJob(EncodedKind kind, std::string path, IAudioReader* reader);

  EncodedKind kind() const noexcept { return kind_; }
  // False once a Run has taken the reader.
  bool HasReader() const noexcept { return reader_ != nullptr; }
  // The rate and channels of the reader; E_INVALIDARG where it has none that a file could have.
  HRESULT AskFormat(int& samples_per_sec, int& channels) const;

  // Reports through `opened` whether encoder and file are there, then writes the whole file and
  // releases the reader. When they are not, the reader stays for another try. Cancelled, it
  // leaves a valid file with what came before; a file that fails on the way is deleted.
  void Run(EncoderSettings settings, std::promise<HRESULT>& opened) noexcept;

 private:
  void WriteSamples(EncodedFile& file, int channels);

  const EncodedKind kind_;
  const std::string path_;
  ComPtr<IAudioReader> reader_;
};

}  // namespace marlinda
