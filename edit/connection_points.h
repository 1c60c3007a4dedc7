// The connection points through which the document talks to its listeners.
#pragma once

#include <marlinda.h>
#include <ocidl.h>

#include <array>
#include <functional>
#include <vector>

#include "core/com_ptr.h"

namespace marlinda {

// One outgoing interface. The point is a part of its container: it has an identity of its own, but
// its references are the container's. Sinks keep the order of their slots; a slot that was given
// up is taken by the next sink to connect.
class ConnectionPoint final : public IConnectionPoint {
 public:
  // Makes the arguments of one event call, last argument first, as dispatch calls carry them.
  using Arguments = std::function<std::vector<VARIANTARG>()>;

  ConnectionPoint(IConnectionPointContainer& container, REFIID iid) noexcept
      : container_(container), iid_(iid) {}
  ConnectionPoint(const ConnectionPoint&) = delete;
  ConnectionPoint& operator=(const ConnectionPoint&) = delete;

  REFIID iid() const noexcept { return iid_; }

  // Calls the sinks connected now, one after the other, for an event of a dispatch interface. The
  // error of a failing sink becomes the thread's error information and does not stop the firing.
  // S_OK, or what the last failing sink returned. A sink may do anything meanwhile: connect,
  // disconnect (who is disconnected is not called any more), release the container.
  HRESULT Fire(DISPID event, const Arguments& arguments);

  // IUnknown
  STDMETHODIMP QueryInterface(REFIID iid, void** object) override;
  STDMETHODIMP_(ULONG) AddRef() override { return container_.AddRef(); }
  STDMETHODIMP_(ULONG) Release() override { return container_.Release(); }

  // IConnectionPoint
  STDMETHODIMP GetConnectionInterface(IID* iid) override { return SetOut(iid, iid_); }
  STDMETHODIMP GetConnectionPointContainer(IConnectionPointContainer** container) override;
  STDMETHODIMP Advise(IUnknown* sink, DWORD* cookie) override;
  STDMETHODIMP Unadvise(DWORD cookie) override;
  STDMETHODIMP EnumConnections(IEnumConnections** connections) override;

 private:
  ComPtr<IUnknown> AcceptedFace(IUnknown* sink) const;

  IConnectionPointContainer& container_;
  const IID iid_;
  // A cookie is a slot's number plus one.
  std::vector<ComPtr<IUnknown>> sinks_;
};

// The connection points of the document.
class ConnectionPoints {
 public:
  explicit ConnectionPoints(IConnectionPointContainer& container) noexcept
      : update(container, DIID__IEAUpdateEvents),
        undo(container, DIID__IEAUndoEvents),
        property(container, IID_IPropertyNotifySink) {}

  HRESULT Enumerate(IEnumConnectionPoints** points);
  HRESULT Find(REFIID iid, IConnectionPoint** point) noexcept;

  ConnectionPoint update;
  ConnectionPoint undo;
  ConnectionPoint property;

 private:
  std::array<ConnectionPoint*, 3> All() noexcept { return {&update, &undo, &property}; }
};

}  // namespace marlinda
