// What the programs that the device tests drive have in common: the module's clients, and how they
// tell what they see.
#pragma once

#include <cstdio>
#include <utility>

#include "tests/support/com_client.h"

namespace marlinda::testing {

constexpr std::size_t kChannels = 2;
constexpr LONG kRate = 44100;

// At once, for somebody waits for it.
template <class... Arguments>
void Say(const char* format, Arguments... arguments) {
  std::printf(format, arguments...);
  std::fflush(stdout);
}

// Does what is asked and tells how long it took, in milliseconds.
template <class Action>
void Timed(const char* name, Action&& action) {
  const ULONGLONG start = GetTickCount64();
  std::forward<Action>(action)();
  Say("%s %u\n", name, static_cast<unsigned>(GetTickCount64() - start));
}

inline ComPtr<IAudioWriter> Speaker(SHORT bits, LONG milliseconds = 1000) {
  auto playback = Create<IAudioPlayback>(CLSID_CAudioPlayback);
  playback->SetFormat(kRate, kChannels, bits);
  playback->SetBufferLength(milliseconds);
  return As<IAudioWriter>(playback);
}

inline ComPtr<IAudioReader> Microphone(SHORT bits) {
  auto grabber = Create<IAudioGrabber>(CLSID_CAudioGrabber);
  grabber->SetFormat(kRate, kChannels, bits);
  return As<IAudioReader>(grabber);
}

}  // namespace marlinda::testing
