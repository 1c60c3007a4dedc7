// The connection points through which the document sends events to its sinks.
#pragma once

#include <marlinda.h>
#include <ocidl.h>
#include <olectl.h>

#include <algorithm>
#include <array>
#include <functional>
#include <utility>
#include <vector>

#include "core/com_ptr.h"
#include "core/enumerator.h"

namespace marlinda {

// An entry of EnumConnections. Each copy holds a reference to the sink.
struct Connection {
  ComPtr<IUnknown> sink;
  DWORD cookie = 0;
};

inline HRESULT GiveConnection(const Connection& connection, CONNECTDATA* out) {
  *out = {connection.sink.Get(), connection.cookie};
  out->pUnk->AddRef();
  return S_OK;
}

inline HRESULT GivePoint(const ComPtr<IConnectionPoint>& point, IConnectionPoint** out) {
  return point.CopyTo(out);
}

using Connections = Enumerator<IEnumConnections, Connection, CONNECTDATA, GiveConnection>;
using Points =
    Enumerator<IEnumConnectionPoints, ComPtr<IConnectionPoint>, IConnectionPoint*, GivePoint>;

// The connection point of one outgoing interface. It has its own identity but uses its container's
// reference count. Each sink has a slot. Fire calls the sinks in slot order. A new sink gets the
// first free slot.
class ConnectionPoint final : public IConnectionPoint {
 public:
  // Returns the arguments of one event call, last argument first, as in DISPPARAMS.
  using Arguments = std::function<std::vector<VARIANTARG>()>;

  ConnectionPoint(IConnectionPointContainer& container, REFIID iid) noexcept
      : container_(container), iid_(iid) {}
  ConnectionPoint(const ConnectionPoint&) = delete;
  ConnectionPoint& operator=(const ConnectionPoint&) = delete;

  REFIID iid() const noexcept { return iid_; }

  // Sends an event of a dispatch interface to each connected sink. If a sink fails, its error
  // becomes the thread's error information, and the next sink is called. Returns S_OK or the result
  // of the last failing sink. During its call a sink may connect or disconnect sinks or release the
  // container. A disconnected sink is no longer called.
  HRESULT Fire(DISPID event, const Arguments& arguments) {
    const ComPtr<IUnknown> keep_alive(&container_);
    const auto connected = sinks_;
    HRESULT result = S_OK;
    for (std::size_t slot = 0; slot < connected.size(); ++slot) {
      const ComPtr<IUnknown>& sink = connected[slot];
      // An earlier sink may have disconnected this sink.
      if (!sink || sinks_[slot].Get() != sink.Get()) continue;
      const HRESULT hr = CallSink(static_cast<IDispatch*>(sink.Get()), event, arguments, iid_);
      if (FAILED(hr)) result = hr;
    }
    return result;
  }

  // IUnknown
  STDMETHODIMP QueryInterface(REFIID iid, void** object) override {
    if (object == nullptr) return E_POINTER;
    *object = nullptr;
    if (!IsEqualIID(iid, IID_IUnknown) && !IsEqualIID(iid, IID_IConnectionPoint)) {
      return E_NOINTERFACE;
    }
    *object = static_cast<IConnectionPoint*>(this);
    AddRef();
    return S_OK;
  }
  STDMETHODIMP_(ULONG) AddRef() override { return container_.AddRef(); }
  STDMETHODIMP_(ULONG) Release() override { return container_.Release(); }

  // IConnectionPoint
  STDMETHODIMP GetConnectionInterface(IID* iid) override { return SetOut(iid, iid_); }
  STDMETHODIMP GetConnectionPointContainer(IConnectionPointContainer** container) override {
    const HRESULT hr = SetOut(container, &container_);
    if (SUCCEEDED(hr)) container_.AddRef();
    return hr;
  }
  STDMETHODIMP Advise(IUnknown* sink, DWORD* cookie) override {
    if (cookie != nullptr) *cookie = 0;
    if (sink == nullptr || cookie == nullptr) return E_POINTER;
    return ComCall([&] {
      ComPtr<IUnknown> face = AcceptedFace(sink);
      if (!face) return CONNECT_E_CANNOTCONNECT;
      auto slot = std::ranges::find_if(sinks_, [](const auto& held) { return !held; });
      if (slot == sinks_.end()) slot = sinks_.emplace(slot);
      *slot = std::move(face);
      *cookie = static_cast<DWORD>(slot - sinks_.begin()) + 1;
      return S_OK;
    });
  }
  STDMETHODIMP Unadvise(DWORD cookie) override {
    if (cookie == 0 || cookie > sinks_.size() || !sinks_[cookie - 1]) return CONNECT_E_NOCONNECTION;
    // The sink may call back while it is released, so its slot is emptied first.
    const ComPtr<IUnknown> released = std::exchange(sinks_[cookie - 1], nullptr);
    return S_OK;
  }
  STDMETHODIMP EnumConnections(IEnumConnections** connections) override {
    if (connections == nullptr) return E_POINTER;
    *connections = nullptr;
    return ComCall([&] {
      std::vector<Connection> entries;
      for (std::size_t slot = 0; slot < sinks_.size(); ++slot) {
        if (sinks_[slot]) entries.push_back({sinks_[slot], static_cast<DWORD>(slot) + 1});
      }
      return Connections::Create(std::move(entries), connections);
    });
  }

 private:
  // Sets the error of a failing sink as the thread's error information.
  static void InstallErrorInfo(EXCEPINFO& exception, REFIID event_interface) {
    if (exception.pfnDeferredFillIn != nullptr) exception.pfnDeferredFillIn(&exception);
    ComPtr<ICreateErrorInfo> error;
    if (FAILED(CreateErrorInfo(error.GetAddressOf()))) return;
    error->SetGUID(event_interface);
    error->SetSource(exception.bstrSource);
    error->SetDescription(exception.bstrDescription);
    error->SetHelpFile(exception.bstrHelpFile);
    error->SetHelpContext(exception.dwHelpContext);
    SetErrorInfo(0, TryQuery<IErrorInfo>(error.Get()).Get());
  }

  static HRESULT CallSink(IDispatch* sink, DISPID event, const Arguments& make_arguments,
                          REFIID event_interface) {
    // Each sink gets arguments of its own. A sink that wrongly clears or replaces an argument then
    // harms neither the next sink nor the caller's string.
    std::vector<VARIANTARG> arguments;
    if (make_arguments) arguments = make_arguments();
    DISPPARAMS params = {};
    params.rgvarg = arguments.data();
    params.cArgs = static_cast<UINT>(arguments.size());
    VARIANT result;
    VariantInit(&result);
    EXCEPINFO exception = {};
    UINT argument_error = 0;
    const HRESULT hr = sink->Invoke(event, IID_NULL, LOCALE_USER_DEFAULT, DISPATCH_METHOD, &params,
                                    &result, &exception, &argument_error);
    if (FAILED(hr)) InstallErrorInfo(exception, event_interface);
    VariantClear(&result);
    for (VARIANTARG& argument : arguments) VariantClear(&argument);
    SysFreeString(exception.bstrSource);
    SysFreeString(exception.bstrDescription);
    SysFreeString(exception.bstrHelpFile);
    return hr;
  }
  // A sink for events may offer only IDispatch instead of the event interface.
  ComPtr<IUnknown> AcceptedFace(IUnknown* sink) const {
    ComPtr<IUnknown> face;
    const auto receive = [&](REFIID iid) {
      return SUCCEEDED(
          sink->QueryInterface(iid, reinterpret_cast<void**>(face.ReleaseAndGetAddressOf())));
    };
    const bool events = !IsEqualIID(iid_, IID_IPropertyNotifySink);
    if (receive(iid_) || (events && receive(IID_IDispatch))) return face;
    return nullptr;
  }

  IConnectionPointContainer& container_;
  const IID iid_;
  // A sink's cookie is its slot number plus one.
  std::vector<ComPtr<IUnknown>> sinks_;
};

class ConnectionPoints {
 public:
  explicit ConnectionPoints(IConnectionPointContainer& container) noexcept
      : update(container, DIID__IEAUpdateEvents),
        undo(container, DIID__IEAUndoEvents),
        property(container, IID_IPropertyNotifySink) {}

  HRESULT Enumerate(IEnumConnectionPoints** points) {
    if (points == nullptr) return E_POINTER;
    *points = nullptr;
    std::vector<ComPtr<IConnectionPoint>> entries;
    for (ConnectionPoint* point : All()) entries.emplace_back(point);
    return Points::Create(std::move(entries), points);
  }
  HRESULT Find(REFIID iid, IConnectionPoint** point) noexcept {
    if (point == nullptr) return E_POINTER;
    *point = nullptr;
    for (ConnectionPoint* candidate : All()) {
      if (IsEqualIID(candidate->iid(), iid))
        return candidate->QueryInterface(IID_IConnectionPoint, reinterpret_cast<void**>(point));
    }
    return CONNECT_E_NOCONNECTION;
  }

  ConnectionPoint update;
  ConnectionPoint undo;
  ConnectionPoint property;

 private:
  std::array<ConnectionPoint*, 3> All() noexcept { return {&update, &undo, &property}; }
};

}  // namespace marlinda
