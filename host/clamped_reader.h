// Readers that modify the samples of another reader.
#pragma once

#include <marlinda.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <span>
#include <utility>

#include "core/com_ptr.h"

namespace marlinda {

using ReadFunction = std::function<HRESULT(IAudioReader*, __int64, SAFEARRAY*)>;

// The engine calls the reader through its vtable only, so the dispatch methods are not implemented.
class FunctionReader final : public IAudioReader {
 public:
  FunctionReader(IAudioReader* source, ReadFunction read)
      : source_(source), read_(std::move(read)) {}
  virtual ~FunctionReader() = default;

  STDMETHODIMP QueryInterface(REFIID iid, void** object) override {
    if (object == nullptr) return E_POINTER;
    *object = nullptr;
    if (!IsEqualIID(iid, IID_IUnknown) && !IsEqualIID(iid, IID_IDispatch) &&
        !IsEqualIID(iid, IID_IAudioReader)) {
      return E_NOINTERFACE;
    }
    *object = static_cast<IAudioReader*>(this);
    AddRef();
    return S_OK;
  }
  STDMETHODIMP_(ULONG) AddRef() override { return ++references_; }
  STDMETHODIMP_(ULONG) Release() override {
    const ULONG left = --references_;
    if (left == 0) delete this;
    return left;
  }

  STDMETHODIMP GetTypeInfoCount(UINT* count) override {
    if (count == nullptr) return E_POINTER;
    *count = 0;
    return S_OK;
  }
  STDMETHODIMP GetTypeInfo(UINT, LCID, ITypeInfo**) override { return E_NOTIMPL; }
  STDMETHODIMP GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*) override { return E_NOTIMPL; }
  STDMETHODIMP Invoke(DISPID, REFIID, LCID, WORD, DISPPARAMS*, VARIANT*, EXCEPINFO*,
                      UINT*) override {
    return E_NOTIMPL;
  }

  STDMETHODIMP ReadAudio(__int64 nSamplePos, SAFEARRAY* psaAudioData) override {
    return read_(source_.Get(), nSamplePos, psaAudioData);
  }
  STDMETHODIMP GetFormat(LONG* pnSamplesPerSec, SHORT* pnChannels) override {
    return source_->GetFormat(pnSamplesPerSec, pnChannels);
  }
  STDMETHODIMP GetSampleCount(__int64* pnSamples) override {
    return source_->GetSampleCount(pnSamples);
  }
  STDMETHODIMP OpenDevice() override { return source_->OpenDevice(); }
  STDMETHODIMP CloseDevice() override { return source_->CloseDevice(); }

 private:
  const ComPtr<IAudioReader> source_;
  const ReadFunction read_;
  std::atomic<ULONG> references_{1};
};

// Returns a reader that calls `read(source, position, array)` on its client's threads.
inline ComPtr<IAudioReader> ReadWith(IAudioReader* source, ReadFunction read) {
  ComPtr<IAudioReader> reader;
  *reader.GetAddressOf() = new FunctionReader(source, std::move(read));
  return reader;
}

// For exports at 24 and 32 bits. The engine scales these samples by 2^31, where +1.0 does not fit
// and becomes the lowest code. Therefore samples of 1.0 and above become the greatest float below
// 1.0.
inline ComPtr<IAudioReader> ClampSamples(IAudioReader* source) {
  return ReadWith(source, [](IAudioReader* clamped, __int64 position, SAFEARRAY* array) {
    constexpr float kLargestSample = 0x1.fffffep-1F;
    const HRESULT hr = clamped->ReadAudio(position, array);
    // The source has refused every array but one of floats.
    if (SUCCEEDED(hr)) {
      const std::span samples(static_cast<float*>(array->pvData), array->rgsabound[0].cElements);
      for (float& sample : samples) sample = std::min(sample, kLargestSample);
    }
    return hr;
  });
}

}  // namespace marlinda
