// A DirectShow source of the tests in the place of the system's own. The name of a file says when
// it hangs: "build", "second build", "run" or "stop".
#pragma once

#include <windows.h>
// After windows.h.
#include <dshow.h>

#include <atomic>
#include <string>
#include <vector>

#include "core/handle.h"
#include "tests/import/class_in_both_apartments.h"

namespace marlinda::testing {

// While it lives the graphs of this process get such sources. Its end lets those go that hang.
class HangingFilters {
 public:
  HangingFilters() = default;
  HangingFilters(const HangingFilters&) = delete;
  HangingFilters& operator=(const HangingFilters&) = delete;
  ~HangingFilters() {
    SetEvent(end_.get());
    while (hanging_ > 0) Sleep(1);
  }

  // Threads that hang in a filter.
  int hanging() const { return hanging_; }

 private:
  void Hang() {
    ++hanging_;
    WaitForSingleObject(end_.get(), INFINITE);
    --hanging_;
  }

  class Source final : public GraphFilter, public IFileSourceFilter {
   public:
    explicit Source(HangingFilters& owner) : owner_(owner) {
      WAVEFORMATEX format = {WAVE_FORMAT_PCM, 1, 8000, 16000, 2, 16, 0};
      output_ = &AddPin<OutputPin>(std::vector<AudioType>{AudioType(format)}, 4096L);
    }
    STDMETHODIMP QueryInterface(REFIID iid, void** object) override {
      if (!IsEqualIID(iid, IID_IFileSourceFilter)) return GraphFilter::QueryInterface(iid, object);
      *object = static_cast<IFileSourceFilter*>(this);
      AddRef();
      return S_OK;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return GraphFilter::AddRef(); }
    STDMETHODIMP_(ULONG) Release() override { return GraphFilter::Release(); }

    STDMETHODIMP Load(LPCOLESTR name, const AM_MEDIA_TYPE*) override {
      name_ = name;
      const bool second = Is(L"second") && ++owner_.loads_ == 2;
      if (second || Is(L"\\build")) owner_.Hang();
      return S_OK;
    }
    STDMETHODIMP GetCurFile(LPOLESTR*, AM_MEDIA_TYPE*) override { return E_NOTIMPL; }
    STDMETHODIMP Run(REFERENCE_TIME start) override {
      const HRESULT hr = GraphFilter::Run(start);
      const std::vector<std::byte> silence(200);
      if (Is(L"stop")) output_->Deliver(silence, 0, 1);
      return hr;
    }
    STDMETHODIMP Stop() override {
      if (Is(L"stop") && state() != State_Stopped) owner_.Hang();
      return GraphFilter::Stop();
    }

   private:
    bool Is(const wchar_t* word) const { return name_.find(word) != std::wstring::npos; }

    HangingFilters& owner_;
    OutputPin* output_ = nullptr;
    std::wstring name_;
  };

  const KernelHandle end_{CreateEventW(nullptr, TRUE, FALSE, nullptr)};
  std::atomic<int> hanging_ = 0;
  std::atomic<int> loads_ = 0;
  const ClassInBothApartments class_{CLSID_AsyncReader, [this] { return new Source(*this); }};
};

}  // namespace marlinda::testing
