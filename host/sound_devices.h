// The system's sound devices, and errors of devices that cannot be used.
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

// Return the devices in the order of their indexes, from 0.
std::vector<SoundDevice> OutputDevices();
std::vector<SoundDevice> InputDevices();

// An output or input device, chosen by its index or as the system's default.
class DeviceChoice {
 public:
  // Throw a HostError if the device of `index` does not exist, or if there is no device.
  static DeviceChoice OfOutputs(std::optional<int> index);
  static DeviceChoice OfInputs(std::optional<int> index);

  LONG number() const { return index_.value_or(-1); }
  const std::optional<int>& index() const { return index_; }
  // The beginning of a message, such as "sound device 0 (speaker)".
  const std::string& description() const { return description_; }

 private:
  DeviceChoice(const std::vector<SoundDevice>& devices, const char* kind, std::optional<int> index);

  std::optional<int> index_;
  std::string description_;
};

// Returns the bits per sample to use: 32 (float) if the device opens with 32 bits, otherwise 16.
// Tests this by opening and closing the device, because a playing document does not report a device
// that fails to open. Throws a HostError if the device opens with neither width.
SHORT ChooseOutputBits(const DeviceChoice& device, const AudioFormat& format);

// Opens the device for recording, with 32 bits (floats) or, if the device refuses them, with 16.
// Returns the open grabber. Throws a HostError if the device refuses both.
ComPtr<IAudioReader> OpenGrabber(const DeviceChoice& device, const AudioFormat& format);

// The error of a device that was lost while in use. `what` states the effect.
HostError DeviceLost(const DeviceChoice& device, const std::string& what);

}  // namespace marlinda
