// A DirectShow source of the tests in the place of the system's own. The name of a file says when
// it hangs: "build", "second build", "run" or "stop".
#pragma once

#include <windows.h>
// After windows.h.
#include <dshow.h>

#include <atomic>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "core/handle.h"
#include "dshow/graph_filter.h"
#include "tests/support/test_object.h"

namespace marlinda::testing {

// While it lives the graphs of this process get such sources. Its end lets those go that hang.
class HangingFilters {
 public:
  HangingFilters() {
    std::promise<HRESULT> registered;
    // Graphs are in the multithreaded apartment.
    apartment_ = std::thread([this, &registered] {
      CoInitializeEx(nullptr, COINIT_MULTITHREADED);
      DWORD cookie = 0;
      registered.set_value(CoRegisterClassObject(CLSID_AsyncReader, &factory_, CLSCTX_INPROC_SERVER,
                                                 REGCLS_MULTIPLEUSE, &cookie));
      Hang();
      CoRevokeClassObject(cookie);
      CoUninitialize();
    });
    Check(registered.get_future().get());
  }
  HangingFilters(const HangingFilters&) = delete;
  HangingFilters& operator=(const HangingFilters&) = delete;
  ~HangingFilters() {
    SetEvent(end_.get());
    apartment_.join();
    while (hanging_ > 0) Sleep(1);
  }

  // Threads that hang in a filter.
  int hanging() const { return hanging_ - 1; }

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

  struct Factory final : TestObject<IClassFactory> {
    explicit Factory(HangingFilters& owner) : owner_(owner) {}
    STDMETHODIMP CreateInstance(IUnknown*, REFIID iid, void** object) override {
      return ComPtr<GraphFilter>(new Source(owner_))->QueryInterface(iid, object);
    }
    STDMETHODIMP LockServer(BOOL) override { return S_OK; }
    HangingFilters& owner_;
  };

  const KernelHandle end_{CreateEventW(nullptr, TRUE, FALSE, nullptr)};
  Factory factory_{*this};
  std::atomic<int> hanging_ = 0;
  std::atomic<int> loads_ = 0;
  std::thread apartment_;
};

}  // namespace marlinda::testing
