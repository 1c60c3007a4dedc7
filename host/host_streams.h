// Readers and writers that the host implements and the engine calls.
#pragma once

#include <marlinda.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <span>
#include <utility>

#include "core/com_ptr.h"
#include "core/plain_object.h"
#include "host/engine.h"

namespace marlinda {

// An object with one interface. The dispatch methods are not implemented, because the engine calls
// the object only through its vtable.
template <class I>
class HostObject : public PlainObject<I> {
 public:
  STDMETHODIMP QueryInterface(REFIID iid, void** object) override {
    return PlainObject<I>::QueryInterface(IsEqualIID(iid, IID_IDispatch) ? __uuidof(I) : iid,
                                          object);
  }
  STDMETHODIMP GetTypeInfoCount(UINT*) override { return E_NOTIMPL; }
  STDMETHODIMP GetTypeInfo(UINT, LCID, ITypeInfo**) override { return E_NOTIMPL; }
  STDMETHODIMP GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*) override { return E_NOTIMPL; }
  STDMETHODIMP Invoke(DISPID, REFIID, LCID, WORD, DISPPARAMS*, VARIANT*, EXCEPINFO*,
                      UINT*) override {
    return E_NOTIMPL;
  }
};

using ReadFunction = std::function<HRESULT(IAudioReader*, __int64, SAFEARRAY*)>;

class FunctionReader final : public HostObject<IAudioReader> {
 public:
  FunctionReader(IAudioReader* source, ReadFunction read)
      : source_(source), read_(std::move(read)) {}

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
};

// Returns a reader whose ReadAudio calls `read(source, position, array)` on the calling thread.
inline ComPtr<IAudioReader> ReadWith(IAudioReader* source, ReadFunction read) {
  ComPtr<IAudioReader> reader;
  *reader.GetAddressOf() = new FunctionReader(source, std::move(read));
  return reader;
}

// Returns the samples of an array of floats.
inline std::span<float> SamplesOf(const SAFEARRAY* array) {
  return {static_cast<float*>(array->pvData), array->rgsabound[0].cElements};
}

using WriteFunction = std::function<HRESULT(const AudioFormat&, SAFEARRAY*)>;

class FunctionWriter final : public HostObject<IAudioWriter> {
 public:
  explicit FunctionWriter(WriteFunction write) : write_(std::move(write)) {}

  STDMETHODIMP WriteAudio(SAFEARRAY* psaAudioData) override {
    return write_(format_, psaAudioData);
  }
  STDMETHODIMP OpenDevice() override { return S_OK; }
  STDMETHODIMP CloseDevice() override { return S_OK; }
  STDMETHODIMP SetFormat(LONG nSamplesPerSec, SHORT nChannels) override {
    format_ = {nSamplesPerSec, nChannels};
    return S_OK;
  }
  STDMETHODIMP QueryIsReady(LONG* pbReady) override {
    if (pbReady == nullptr) return E_POINTER;
    *pbReady = 1;
    return S_OK;
  }

 private:
  const WriteFunction write_;
  AudioFormat format_;
};

// Returns a writer whose WriteAudio calls `write(format, array)` on the calling thread.
inline ComPtr<IAudioWriter> WriteWith(WriteFunction write) {
  ComPtr<IAudioWriter> writer;
  *writer.GetAddressOf() = new FunctionWriter(std::move(write));
  return writer;
}

// For exports. At 24 and 32 bits, the engine scales samples by 2^31, so that +1.0 overflows to the
// lowest code. NaN becomes the lowest code at each width. Therefore the returned reader replaces
// samples of 1.0 and above by the greatest float below 1.0, and NaN by 0.
inline ComPtr<IAudioReader> ClampSamples(IAudioReader* source) {
  return ReadWith(source, [](IAudioReader* clamped, __int64 position, SAFEARRAY* array) {
    constexpr float kLargestSample = 0x1.fffffep-1F;
    const HRESULT hr = clamped->ReadAudio(position, array);
    // A successful read proves that this is an array of floats.
    if (SUCCEEDED(hr)) {
      for (float& sample : SamplesOf(array)) {
        sample = std::isnan(sample) ? 0.0F : std::min(sample, kLargestSample);
      }
    }
    return hr;
  });
}

}  // namespace marlinda
