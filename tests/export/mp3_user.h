// Registers the project's MP3 encoder and changes the user's encoder settings.
#pragma once

#include <windows.h>

#include <string>

#include "core/registry.h"
#include "tests/support/com_client.h"

namespace marlinda::testing {

// Registers the encoder while this object exists.
class RegisteredEncoder {
 public:
  RegisteredEncoder() { Check(Call("DllRegisterServer")); }
  RegisteredEncoder(const RegisteredEncoder&) = delete;
  RegisteredEncoder& operator=(const RegisteredEncoder&) = delete;
  ~RegisteredEncoder() { Call("DllUnregisterServer"); }

 private:
  // The library stays loaded.
  static HRESULT Call(const char* name) {
    const HMODULE library = LoadLibraryW(ModuleUnderTest::Sibling(L"Mp3Encoder.dll").c_str());
    return ExportAs<decltype(DllCanUnloadNow)>(library, name)();
  }
};

// Deletes the user's encoder settings before and after the test.
class EncoderSettings {
 public:
  EncoderSettings() {
    Check(HRESULT_FROM_WIN32(key_.Open(HKEY_CURRENT_USER, kPath, false)));
    Forget();
  }
  EncoderSettings(const EncoderSettings&) = delete;
  EncoderSettings& operator=(const EncoderSettings&) = delete;
  ~EncoderSettings() { Forget(); }

  DWORD Read(const char* name) const { return key_.ReadDword(name, 0); }
  void Write(const char* name, DWORD value) const { key_.WriteDword(name, value); }

 private:
  static void Forget() {
    for (const char* name : {"WMABitrate", "MP3Bitrate"}) {
      RegDeleteKeyValueA(HKEY_CURRENT_USER, kPath.c_str(), name);
    }
  }

  static inline const std::string kPath = std::string(kSettingsKey) + "\\EncoderSettings";
  CRegistry key_;
};

}  // namespace marlinda::testing
