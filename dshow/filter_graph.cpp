#include "dshow/filter_graph.h"

namespace marlinda {

FilterGraph::FilterGraph() {
  Check(CreateInstance(CLSID_FilterGraph, builder_));
  control_ = TryQuery<IMediaControl>(builder_.Get());
  // mingw's header has no __uuidof for this interface.
  builder_->QueryInterface(IID_IMediaEvent, reinterpret_cast<void**>(events_.GetAddressOf()));
  if (control_ == nullptr || events_ == nullptr) throw HResultError(E_NOINTERFACE);
}

HRESULT FilterGraph::Run() {
  // Set here, because the graph gives its clock to the filters that it has at the time.
  const auto filter = TryQuery<IMediaFilter>(builder_.Get());
  const HRESULT hr = filter != nullptr ? filter->SetSyncSource(nullptr) : E_NOINTERFACE;
  return FAILED(hr) ? hr : control_->Run();
}

bool FilterGraph::HasFailed() {
  long code = 0;
  LONG_PTR first = 0;
  LONG_PTR second = 0;
  while (events_->GetEvent(&code, &first, &second, 0) == S_OK) {
    if (code == EC_ERRORABORT || code == EC_STREAM_ERROR_STOPPED || code == EC_USERABORT) {
      has_failed_ = true;
    }
    events_->FreeEventParams(code, first, second);
  }
  return has_failed_;
}

void ForEachPin(IBaseFilter* filter, PIN_DIRECTION direction,
                const std::function<bool(IPin*)>& visit) {
  ComPtr<IEnumPins> pins;
  if (filter == nullptr || filter->EnumPins(pins.GetAddressOf()) != S_OK) return;
  ComPtr<IPin> pin;
  while (pins->Next(1, pin.ReleaseAndGetAddressOf(), nullptr) == S_OK) {
    PIN_DIRECTION found = PINDIR_INPUT;
    if (SUCCEEDED(pin->QueryDirection(&found)) && found == direction && visit(pin.Get())) return;
  }
}

}  // namespace marlinda
