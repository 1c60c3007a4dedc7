#include "host/sound_devices.h"

#include <mmsystem.h>

#include "host/wide_text.h"

namespace marlinda {
namespace {

constexpr SHORT kBitsToTry[] = {32, 16};
constexpr const char* kChoose = "Choose another with --device; \"marlinda devices\" lists them.";

template <class Caps>
std::vector<SoundDevice> Devices(UINT count, MMRESULT(WINAPI* ask)(UINT_PTR, Caps*, UINT)) {
  std::vector<SoundDevice> devices;
  for (UINT i = 0; i < count; ++i) {
    Caps caps = {};
    ask(i, &caps, sizeof caps);
    devices.push_back({Narrow(caps.szPname), caps.wChannels});
  }
  return devices;
}

HostError Refused(const DeviceChoice& device, const AudioFormat& format) {
  return {ExitStatus::kDevice, device.description(), "it cannot be opened with " + Describe(format),
          std::string("Another program may be using it. ") + kChoose};
}

}  // namespace

std::vector<SoundDevice> OutputDevices() {
  return Devices<WAVEOUTCAPSW>(waveOutGetNumDevs(), waveOutGetDevCapsW);
}

std::vector<SoundDevice> InputDevices() {
  return Devices<WAVEINCAPSW>(waveInGetNumDevs(), waveInGetDevCapsW);
}

DeviceChoice::DeviceChoice(const std::vector<SoundDevice>& devices, const char* kind,
                           std::optional<int> index)
    : index_(index) {
  if (devices.empty()) {
    throw HostError(ExitStatus::kDevice, "", std::string("there is no sound device for ") + kind,
                    "Connect one and start the system's sound service; \"marlinda devices\" "
                    "lists the devices.");
  }
  if (!index) {
    description_ = std::string("the default device for ") + kind;
    return;
  }
  description_ = "sound device " + std::to_string(*index);
  if (*index < 0 || static_cast<std::size_t>(*index) >= devices.size()) {
    throw HostError(
        ExitStatus::kDevice, description_,
        "there are " + std::to_string(devices.size()) + " for " + kind + ", numbered from 0",
        kChoose);
  }
  description_ += " (" + devices[static_cast<std::size_t>(*index)].name + ")";
}

DeviceChoice DeviceChoice::OfOutputs(std::optional<int> index) {
  return {OutputDevices(), "output", index};
}

DeviceChoice DeviceChoice::OfInputs(std::optional<int> index) {
  return {InputDevices(), "input", index};
}

SHORT ChooseOutputBits(const DeviceChoice& device, const AudioFormat& format) {
  const auto playback = CreateObject<IAudioPlayback>(CLSID_CAudioPlayback, "CAudioPlayback");
  const auto writer = Query<IAudioWriter>(playback.Get());
  Check(playback->SetDevice(static_cast<ULONG>(device.number())));
  for (const SHORT bits : kBitsToTry) {
    // SetFormat stores the format and returns E_NOTIMPL; ignore the result.
    playback->SetFormat(format.rate, format.channels, bits);
    if (FAILED(writer->OpenDevice())) continue;
    writer->CloseDevice();
    return bits;
  }
  throw Refused(device, format);
}

ComPtr<IAudioReader> OpenGrabber(const DeviceChoice& device, const AudioFormat& format) {
  const auto grabber = CreateObject<IAudioGrabber>(CLSID_CAudioGrabber, "CAudioGrabber");
  auto reader = Query<IAudioReader>(grabber.Get());
  Check(grabber->SetDevice(device.number()));
  for (const SHORT bits : kBitsToTry) {
    Check(grabber->SetFormat(format.rate, format.channels, bits));
    if (SUCCEEDED(reader->OpenDevice())) return reader;
  }
  throw Refused(device, format);
}

HostError DeviceLost(const DeviceChoice& device, const std::string& what) {
  return {ExitStatus::kDevice, device.description(), what,
          "It may have been unplugged, or the system's sound service may have stopped."};
}

}  // namespace marlinda
