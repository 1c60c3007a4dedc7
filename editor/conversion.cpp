#include "editor/conversion.h"

#include <algorithm>

#include "core/com_call.h"
#include "host/converted_audio.h"

namespace marlinda::editor {

Conversion::Conversion(const ImportedAudio& from, const AudioFormat& to)
    : from_(from),
      format_(to),
      frames_(ConvertSampleCount(from.frames, from.format.rate, to.rate)),
      converter_(NewConverter(from.format, to)),
      pool_(NewPool()) {
  thread_ = std::thread([this] {
    result_ = ComCall([this] {
      ConvertInto(pool_.Get(), converter_.Get(), from_, format_, [this](std::int64_t written) {
        if (cancelled_) throw HResultError(E_ABORT);
        written_ = written;
      });
      return S_OK;
    });
    running_ = false;
  });
}

Conversion::~Conversion() {
  cancelled_ = true;
  if (thread_.joinable()) thread_.join();
}

float Conversion::progress() const {
  return static_cast<float>(written_) / static_cast<float>(std::max<std::int64_t>(1, frames_));
}

ImportedAudio Conversion::Finish() {
  thread_.join();
  // If a write to the pool's temporary files failed, `result_` is the system's error code.
  if (FAILED(result_)) throw Explain(result_, kTemporaryFolder, ExitStatus::kOutput);
  return LastTake(pool_.Get());
}

}  // namespace marlinda::editor
