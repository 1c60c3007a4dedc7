// The sound devices of the system, and messages about devices that cannot be used.
#pragma once

#include <marlinda.h>

#include <optional>
#include <string>
#include <vector>

#include "core/com_ptr.h"
#include "host/engine.h"

namespace marlinda {

struct SoundDevice {
  std::string name;
  int channels = 0;
};

// In the order of their indexes, which count from 0.
std::vector<SoundDevice> OutputDevices();
std::vector<SoundDevice> InputDevices();

// An output or input as the engine's interfaces take it: an index, or the system's default without
// one.
class DeviceChoice {
 public:
  // Throws a HostError when there is no such device, or none at all.
  static DeviceChoice OfOutputs(std::optional<int> index);
  static DeviceChoice OfInputs(std::optional<int> index);

  LONG number() const { return index_.value_or(-1); }
  const std::optional<int>& index() const { return index_; }
  // "sound device 0 (speaker)", to begin a message with.
  const std::string& description() const { return description_; }

 private:
  DeviceChoice(const std::vector<SoundDevice>& devices, const char* kind, std::optional<int> index);

  std::optional<int> index_;
  std::string description_;
};

// The bits per sample to use the device with: 32, which is float and keeps what there is, or else
// 16. The device is opened and closed for it, because a playing document does not report that its
// device would not open. Throws a HostError when it opens with neither.
SHORT ChooseOutputBits(const DeviceChoice& device, const AudioFormat& format);

// Opens the device for recording in the same way; the grabber is open afterwards. Throws a
// HostError.
ComPtr<IAudioReader> OpenGrabber(const DeviceChoice& device, const AudioFormat& format);

// The device stood still in the middle of its work.
HostError DeviceLost(const DeviceChoice& device, const std::string& what);

}  // namespace marlinda
