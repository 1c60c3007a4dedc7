// A listener to a document's events.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <utility>

#include "tests/support/com_client.h"
#include "tests/support/ramp_source.h"

namespace marlinda::testing {

// Notes each event and then does what the test wants. Connects itself to the point of its
// interface.
class Sink final : public TestObject<IDispatch> {
 public:
  Sink(std::string name, CallLog* log, const IID& iid = DIID__IEAUpdateEvents)
      : name_(std::move(name)), log_(log), iid_(iid) {}

  std::function<HRESULT(DISPPARAMS*, EXCEPINFO*)> on_event;
  DWORD cookie = 0;

  ComPtr<IConnectionPoint> Point(IUnknown* document) const {
    ComPtr<IConnectionPoint> point;
    EXPECT_EQ(
        As<IConnectionPointContainer>(document)->FindConnectionPoint(iid_, point.GetAddressOf()),
        S_OK);
    return point;
  }
  void Connect(IUnknown* document) { EXPECT_EQ(Point(document)->Advise(this, &cookie), S_OK); }
  void Disconnect(IUnknown* document) { EXPECT_EQ(Point(document)->Unadvise(cookie), S_OK); }

  STDMETHODIMP QueryInterface(REFIID iid, void** object) override {
    *object = nullptr;
    if (!IsEqualIID(iid, IID_IUnknown) && !IsEqualIID(iid, iid_)) return E_NOINTERFACE;
    return AddRef(), *object = this, S_OK;
  }
  STDMETHODIMP Invoke(DISPID event, REFIID reserved, LCID locale, WORD flags, DISPPARAMS* params,
                      VARIANT* result, EXCEPINFO* exception, UINT* argument_error) override {
    log_->push_back(name_ + std::to_string(event));
    EXPECT_TRUE(IsEqualIID(reserved, IID_NULL));
    EXPECT_EQ(locale, 0x400u);
    EXPECT_EQ(flags, DISPATCH_METHOD);
    EXPECT_EQ(params->cNamedArgs, 0u);
    EXPECT_TRUE(result != nullptr && argument_error != nullptr);
    EXPECT_TRUE(exception->scode == 0 && exception->bstrDescription == nullptr);
    return on_event ? on_event(params, exception) : S_OK;
  }

 private:
  const std::string name_;
  CallLog* const log_;
  const IID iid_;
};

}  // namespace marlinda::testing
