// CAudioScrubber: makes scrubbing audible. A thread plays the block under the cursor over and over,
// crossfaded with the one before, into a writer.
#pragma once

#include <marlinda.h>

#include <memory>
#include <mutex>

#include "core/com_object.h"
#include "core/worker_thread.h"

namespace marlinda {

// The caller sets the writer's format beforehand. The writer paces the thread by blocking in
// WriteAudio; its results do not matter. It is held until the next Start or the last release. A
// playback object whose WriteAudio still blocks a second after Stop is broken.
//
// Start while running fails with E_FAIL. Start fails with E_INVALIDARG for a negative block length,
// blocks of more than 2^24 samples and negative channel counts. Stop without Start does nothing.
// WriteBlock outside Start and Stop fails with E_FAIL, and with E_INVALIDARG for a short block.
class CAudioScrubber final : public Object<CAudioScrubber, IAudioScrubber> {
 public:
  static constexpr const CLSID& kClassId = CLSID_CAudioScrubber;

  CAudioScrubber() = default;
  ~CAudioScrubber();

  // IAudioScrubber
  STDMETHODIMP Start(IAudioWriter* pAudioWriter, LONG nSamplesInBlocks, LONG nSamplesPerSec,
                     SHORT nChannels) override;
  STDMETHODIMP Stop() override;
  STDMETHODIMP WriteBlock(SAFEARRAY* psaAudio) override;

 private:
  struct Job;

  std::shared_ptr<Job> Current();

  std::mutex mutex_;
  // Null before the first Start. Kept after Stop, because it holds the writer.
  std::shared_ptr<Job> job_;
  WorkerThread thread_;
};

}  // namespace marlinda
