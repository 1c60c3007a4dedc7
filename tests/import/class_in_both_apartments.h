// A DirectShow filter of the tests as a class that graphs of this process find.
#pragma once

#include <windows.h>

#include <functional>
#include <future>
#include <thread>
#include <utility>

#include "dshow/graph_filter.h"
#include "tests/support/test_object.h"

namespace marlinda::testing {

// Offers the class to the calling apartment and to the multithreaded one, for as long as it lives.
class ClassInBothApartments {
 public:
  ClassInBothApartments(REFCLSID clsid, std::function<GraphFilter*()> make)
      : clsid_(clsid), factory_(std::move(make)) {
    Check(Register(cookie_));
    std::promise<HRESULT> registered;
    other_ = std::thread([this, &registered, end = end_.get_future()]() mutable {
      CoInitializeEx(nullptr, COINIT_MULTITHREADED);
      DWORD cookie = 0;
      registered.set_value(Register(cookie));
      end.wait();
      CoRevokeClassObject(cookie);
      CoUninitialize();
    });
    Check(registered.get_future().get());
  }
  ClassInBothApartments(const ClassInBothApartments&) = delete;
  ClassInBothApartments& operator=(const ClassInBothApartments&) = delete;
  ~ClassInBothApartments() {
    end_.set_value();
    other_.join();
    CoRevokeClassObject(cookie_);
  }

 private:
  struct Factory final : TestObject<IClassFactory> {
    explicit Factory(std::function<GraphFilter*()> function) : make(std::move(function)) {}
    STDMETHODIMP CreateInstance(IUnknown*, REFIID iid, void** object) override {
      return ComPtr<GraphFilter>(make())->QueryInterface(iid, object);
    }
    STDMETHODIMP LockServer(BOOL) override { return S_OK; }
    const std::function<GraphFilter*()> make;
  };

  HRESULT Register(DWORD& cookie) {
    return CoRegisterClassObject(clsid_, &factory_, CLSCTX_INPROC_SERVER, REGCLS_MULTIPLEUSE,
                                 &cookie);
  }

  const CLSID clsid_;
  Factory factory_;
  DWORD cookie_ = 0;
  std::promise<void> end_;
  std::thread other_;
};

}  // namespace marlinda::testing
