// An MP3 encoder of the tests, its place among the audio compressors of the system, and the user's
// settings of encoders. What it puts out is no MP3 but shows what came in: the bytes per second
// that were chosen, the samples as they came, and "END".
#pragma once

#include <windows.h>
// After windows.h.
#include <dshow.h>

#include <cstring>
#include <string>
#include <vector>

#include "core/registry.h"
#include "dshow/graph_filter.h"
#include "tests/import/class_in_both_apartments.h"

namespace marlinda::testing {

// {5B0E6B1F-6B1B-4B0E-9C55-1D7C3A4E9F21}
inline constexpr CLSID kFakeEncoderId = {
    0x5B0E6B1F, 0x6B1B, 0x4B0E, {0x9C, 0x55, 0x1D, 0x7C, 0x3A, 0x4E, 0x9F, 0x21}};

// How fakes behave that are made from now on.
struct EncoderPlan {
  std::vector<int> kbits_per_sec = {56, 64, 96, 128, 192, 256, 320};
  bool tells_capabilities = true;
  bool fails_while_encoding = false;

  static EncoderPlan& Current() {
    static EncoderPlan plan;
    return plan;
  }
};

inline AudioType Mp3Type(int kbit_per_sec) {
  const auto bytes_per_sec = static_cast<DWORD>(kbit_per_sec) * 125;
  return AudioType(WAVEFORMATEX{WAVE_FORMAT_MPEGLAYER3, 2, 44100, bytes_per_sec, 1, 0, 0});
}

class EncoderPin final : public OutputPin, private IAMStreamConfig {
 public:
  EncoderPin(GraphFilter& filter, const EncoderPlan& plan)
      : OutputPin(filter, {}, 4096), plan_(plan), chosen_(Mp3Type(plan.kbits_per_sec.front())) {}

  STDMETHODIMP QueryInterface(REFIID iid, void** object) override {
    return OutputPin::QueryInterface(iid, object);
  }
  STDMETHODIMP_(ULONG) AddRef() override { return OutputPin::AddRef(); }
  STDMETHODIMP_(ULONG) Release() override { return OutputPin::Release(); }

 private:
  std::vector<AudioType> Types() const override { return {chosen_}; }
  IUnknown* Extra(REFIID iid) noexcept override {
    const bool has_it = plan_.tells_capabilities && IsEqualIID(iid, IID_IAMStreamConfig);
    return has_it ? static_cast<IAMStreamConfig*>(this) : nullptr;
  }

  STDMETHODIMP SetFormat(AM_MEDIA_TYPE* type) override { return chosen_ = AudioType(*type), S_OK; }
  STDMETHODIMP GetFormat(AM_MEDIA_TYPE**) override { return E_NOTIMPL; }
  STDMETHODIMP GetNumberOfCapabilities(int* count, int* size) override {
    *count = static_cast<int>(plan_.kbits_per_sec.size());
    *size = sizeof(AUDIO_STREAM_CONFIG_CAPS);
    return S_OK;
  }
  STDMETHODIMP GetStreamCaps(int index, AM_MEDIA_TYPE** type, BYTE* details) override {
    std::memset(details, 0, sizeof(AUDIO_STREAM_CONFIG_CAPS));
    return GiveType(Mp3Type(plan_.kbits_per_sec.at(static_cast<std::size_t>(index))), type);
  }

  const EncoderPlan plan_;
  AudioType chosen_;
};

class FakeEncoder final : public GraphFilter {
 public:
  FakeEncoder() : plan_(EncoderPlan::Current()) {
    AddPin<InputPin>(InputPin::Purpose{
        [](const WAVEFORMATEX& format) {
          return format.wFormatTag == WAVE_FORMAT_PCM && format.wBitsPerSample == 16 &&
                 format.nChannels <= 2;
        },
        [this](std::span<const std::byte> bytes) {
          if (plan_.fails_while_encoding) return E_FAIL;
          if (!std::exchange(has_begun_, true)) {
            Deliver(std::as_bytes(std::span(&output_->type().format()->nAvgBytesPerSec, 1)));
          }
          return Deliver(bytes);
        },
        [this] {
          Deliver(std::as_bytes(std::span("END", 3)));
          return output_->DeliverEnd();
        }});
    output_ = &AddPin<EncoderPin>(plan_);
  }

 private:
  HRESULT Deliver(std::span<const std::byte> bytes) { return output_->Deliver(bytes, 0, 0); }

  const EncoderPlan plan_;
  EncoderPin* output_ = nullptr;
  bool has_begun_ = false;
};

// Makes the encoder known to the system for as long as it lives.
class InstalledEncoder {
 public:
  InstalledEncoder() {
    SetValue(L"CLSID", TextOf(kFakeEncoderId));
    SetValue(L"FriendlyName", L"Encoder of the tests");
  }
  InstalledEncoder(const InstalledEncoder&) = delete;
  InstalledEncoder& operator=(const InstalledEncoder&) = delete;
  ~InstalledEncoder() {
    RegDeleteTreeW(HKEY_CLASSES_ROOT, kKey.c_str());
    EncoderPlan::Current() = {};
  }

 private:
  static std::wstring TextOf(REFGUID id) {
    wchar_t text[40] = L"";
    StringFromGUID2(id, text, static_cast<int>(std::size(text)));
    return text;
  }
  static void SetValue(const wchar_t* name, const std::wstring& text) {
    const auto size = static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t));
    Check(HRESULT_FROM_WIN32(static_cast<DWORD>(
        RegSetKeyValueW(HKEY_CLASSES_ROOT, kKey.c_str(), name, REG_SZ, text.c_str(), size))));
  }

  static inline const std::wstring kKey =
      L"CLSID\\" + TextOf(CLSID_AudioCompressorCategory) + L"\\Instance\\" + TextOf(kFakeEncoderId);
  const ClassInBothApartments class_{kFakeEncoderId, [] { return new FakeEncoder; }};
};

// The user's settings of encoders, absent before and after.
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
