// A listener to a document's events.
#pragma once

#include <gtest/gtest.h>
#include <marlinda.h>

#include <functional>
#include <string>
#include <utility>

#include "tests/support/ramp_source.h"
#include "tests/support/test_object.h"

namespace marlinda::testing {

// A listener as any host may write one: it notes each event and then does what the test wants.
class Sink final : public TestObject<IDispatch> {
 public:
  Sink(std::string name, const IID& iid, CallLog* log)
      : name_(std::move(name)), iid_(iid), log_(log) {}

  std::function<HRESULT(DISPPARAMS*, EXCEPINFO*)> on_event;

  STDMETHODIMP QueryInterface(REFIID iid, void** object) override {
    *object = nullptr;
    if (!IsEqualIID(iid, IID_IUnknown) && !IsEqualIID(iid, iid_)) return E_NOINTERFACE;
    *object = this;
    AddRef();
    return S_OK;
  }

  STDMETHODIMP Invoke(DISPID event, REFIID reserved, LCID locale, WORD flags, DISPPARAMS* params,
                      VARIANT* result, EXCEPINFO* exception, UINT* argument_error) override {
    log_->push_back(name_ + std::to_string(event));
    EXPECT_TRUE(IsEqualIID(reserved, IID_NULL));
    EXPECT_EQ(locale, 0x400u);
    EXPECT_EQ(flags, DISPATCH_METHOD);
    EXPECT_EQ(params->cNamedArgs, 0u);
    EXPECT_NE(result, nullptr);
    EXPECT_NE(argument_error, nullptr);
    EXPECT_EQ(exception->scode, 0);
    EXPECT_EQ(exception->bstrDescription, nullptr);
    return on_event ? on_event(params, exception) : S_OK;
  }

 private:
  const std::string name_;
  const IID iid_;
  CallLog* const log_;
};

}  // namespace marlinda::testing
