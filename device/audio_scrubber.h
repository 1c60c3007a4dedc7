// CAudioScrubber: makes scrubbing audible. A thread plays the block under the cursor over and over,
// crossfaded with the one before, into a writer.
#pragma once

#include <marlinda.h>

#include <memory>
#include <mutex>

#include "core/com_object.h"
#include "core/com_ptr.h"
#include "core/worker_thread.h"

namespace marlinda {

// The caller sets the writer's format beforehand. The writer paces the thread by blocking in
// WriteAudio; its results do not matter. It is held until the next Start or the last release. A
// playback object that keeps the thread waiting for a second after Stop is taken to have lost its
// device, and is told to break.
//
// Beyond what hosts must do: Start while running is refused with E_FAIL, blocks of less than no
// frames or more than 2^24 samples and negative channel counts with E_INVALIDARG; Stop without
// Start does nothing; WriteBlock outside Start and Stop gives E_FAIL, one that is too short
// E_INVALIDARG.
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
  struct Scrub;

  std::shared_ptr<Scrub> Current();

  ComPtr<IAudioWriter> writer_;
  std::mutex mutex_;
  // Null unless running. Under the lock: a block may be written while another thread stops.
  std::shared_ptr<Scrub> scrub_;
  WorkerThread thread_;
};

}  // namespace marlinda
