#include "dshow/graph_filter.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "core/com_call.h"
#include "core/enumerator.h"

namespace marlinda {
namespace {

constexpr long kBufferCount = 4;

HRESULT GivePin(const ComPtr<IPin>& pin, IPin** out) { return pin.CopyTo(out); }

using Pins = Enumerator<IEnumPins, ComPtr<IPin>, IPin*, GivePin>;
using MediaTypes = Enumerator<IEnumMediaTypes, AudioType, AM_MEDIA_TYPE*, GiveType>;

// Names a pin by its direction, because no filter here has two pins of the same direction.
const wchar_t* NameOf(PIN_DIRECTION direction) {
  return direction == PINDIR_INPUT ? L"Input" : L"Output";
}

HRESULT CopyText(const wchar_t* text, LPWSTR* out) {
  if (out == nullptr) return E_POINTER;
  const std::size_t size = (std::wcslen(text) + 1) * sizeof(wchar_t);
  *out = static_cast<LPWSTR>(CoTaskMemAlloc(size));
  if (*out == nullptr) return E_OUTOFMEMORY;
  std::memcpy(*out, text, size);
  return S_OK;
}

HRESULT CreateAllocator(ComPtr<IMemAllocator>& allocator) {
  return CoCreateInstance(CLSID_MemoryAllocator, nullptr, CLSCTX_INPROC_SERVER,
                          __uuidof(IMemAllocator),
                          reinterpret_cast<void**>(allocator.ReleaseAndGetAddressOf()));
}

}  // namespace

const WAVEFORMATEX* WaveFormatOf(const AM_MEDIA_TYPE& type) noexcept {
  if (type.pbFormat == nullptr || type.cbFormat < sizeof(WAVEFORMATEX)) return nullptr;
  return reinterpret_cast<const WAVEFORMATEX*>(type.pbFormat);
}

void FreeContents(AM_MEDIA_TYPE& type) noexcept {
  if (type.pUnk != nullptr) type.pUnk->Release();
  CoTaskMemFree(type.pbFormat);
  type.pUnk = nullptr;
  type.pbFormat = nullptr;
  type.cbFormat = 0;
}

void FreeMediaType::operator()(AM_MEDIA_TYPE* type) const noexcept {
  FreeContents(*type);
  CoTaskMemFree(type);
}

AudioType::AudioType(const WAVEFORMATEX& format)
    : format_(reinterpret_cast<const BYTE*>(&format),
              reinterpret_cast<const BYTE*>(&format) + sizeof format + format.cbSize) {}

AudioType::AudioType(const AM_MEDIA_TYPE& type) {
  if (!IsEqualGUID(type.majortype, MEDIATYPE_Audio) ||
      !IsEqualGUID(type.formattype, FORMAT_WaveFormatEx) || type.pbFormat == nullptr ||
      type.cbFormat < sizeof(PCMWAVEFORMAT)) {
    return;
  }
  format_.assign(type.pbFormat, type.pbFormat + type.cbFormat);
  format_.resize(std::max(format_.size(), sizeof(WAVEFORMATEX)));
}

AM_MEDIA_TYPE AudioType::View() const noexcept {
  AM_MEDIA_TYPE type = {};
  if (empty()) return type;
  type.majortype = MEDIATYPE_Audio;
  const WORD tag = format()->wFormatTag;
  if (tag == WAVE_FORMAT_EXTENSIBLE && format_.size() >= sizeof(WAVEFORMATEXTENSIBLE)) {
    type.subtype = reinterpret_cast<const WAVEFORMATEXTENSIBLE*>(format())->SubFormat;
  } else {
    // The subtype identifiers of format tags differ only in Data1.
    type.subtype = MEDIASUBTYPE_PCM;
    type.subtype.Data1 = tag;
  }
  type.bFixedSizeSamples = IsEqualGUID(type.subtype, MEDIASUBTYPE_PCM) ||
                           IsEqualGUID(type.subtype, MEDIASUBTYPE_IEEE_FLOAT);
  type.lSampleSize = format()->nBlockAlign;
  type.formattype = FORMAT_WaveFormatEx;
  type.cbFormat = static_cast<ULONG>(format_.size());
  type.pbFormat = const_cast<BYTE*>(format_.data());
  return type;
}

HRESULT AudioType::CopyTo(AM_MEDIA_TYPE* type) const noexcept {
  *type = View();
  type->pbFormat = static_cast<BYTE*>(CoTaskMemAlloc(format_.size()));
  if (type->pbFormat == nullptr) return E_OUTOFMEMORY;
  std::memcpy(type->pbFormat, format_.data(), format_.size());
  return S_OK;
}

HRESULT GiveType(const AudioType& type, AM_MEDIA_TYPE** out) {
  auto* copy = static_cast<AM_MEDIA_TYPE*>(CoTaskMemAlloc(sizeof(AM_MEDIA_TYPE)));
  if (copy == nullptr) return E_OUTOFMEMORY;
  const HRESULT hr = type.CopyTo(copy);
  if (FAILED(hr)) CoTaskMemFree(copy);
  if (SUCCEEDED(hr)) *out = copy;
  return hr;
}

// GraphPin

STDMETHODIMP GraphPin::QueryInterface(REFIID iid, void** object) {
  if (object == nullptr) return E_POINTER;
  IUnknown* found = Extra(iid);
  if (IsEqualIID(iid, IID_IUnknown) || IsEqualIID(iid, IID_IPin)) found = static_cast<IPin*>(this);
  *object = found;
  if (found == nullptr) return E_NOINTERFACE;
  found->AddRef();
  return S_OK;
}

STDMETHODIMP_(ULONG) GraphPin::AddRef() { return filter_.AddRef(); }
STDMETHODIMP_(ULONG) GraphPin::Release() { return filter_.Release(); }

STDMETHODIMP GraphPin::ReceiveConnection(IPin* connector, const AM_MEDIA_TYPE* type) {
  if (connector == nullptr || type == nullptr) return E_POINTER;
  if (direction_ != PINDIR_INPUT) return E_UNEXPECTED;
  if (IsConnected()) return VFW_E_ALREADY_CONNECTED;
  if (filter_.state() != State_Stopped) return VFW_E_NOT_STOPPED;
  return ComCall([&] {
    AudioType offered(*type);
    if (offered.empty() || !Accepts(offered)) return VFW_E_TYPE_NOT_ACCEPTED;
    type_ = std::move(offered);
    peer_ = connector;
    return S_OK;
  });
}

STDMETHODIMP GraphPin::Disconnect() {
  if (!IsConnected()) return S_FALSE;
  if (filter_.state() != State_Stopped) return VFW_E_NOT_STOPPED;
  peer_.Reset();
  type_ = AudioType();
  return S_OK;
}

STDMETHODIMP GraphPin::ConnectedTo(IPin** pin) {
  if (pin == nullptr) return E_POINTER;
  *pin = nullptr;
  return IsConnected() ? peer_.CopyTo(pin) : VFW_E_NOT_CONNECTED;
}

STDMETHODIMP GraphPin::ConnectionMediaType(AM_MEDIA_TYPE* type) {
  if (type == nullptr) return E_POINTER;
  *type = {};
  return IsConnected() ? type_.CopyTo(type) : VFW_E_NOT_CONNECTED;
}

STDMETHODIMP GraphPin::QueryPinInfo(PIN_INFO* info) {
  if (info == nullptr) return E_POINTER;
  *info = {};
  info->pFilter = &filter_;
  info->pFilter->AddRef();
  info->dir = direction_;
  lstrcpynW(info->achName, NameOf(direction_), static_cast<int>(std::size(info->achName)));
  return S_OK;
}

STDMETHODIMP GraphPin::QueryId(LPWSTR* id) { return CopyText(NameOf(direction_), id); }

STDMETHODIMP GraphPin::QueryAccept(const AM_MEDIA_TYPE* type) {
  if (type == nullptr) return E_POINTER;
  return ComCall([&] {
    const AudioType asked(*type);
    return !asked.empty() && Accepts(asked) ? S_OK : S_FALSE;
  });
}

STDMETHODIMP GraphPin::EnumMediaTypes(IEnumMediaTypes** types) {
  if (types == nullptr) return E_POINTER;
  return ComCall([&] { return MediaTypes::Create(Types(), types); });
}

// InputPin

STDMETHODIMP InputPin::GetAllocator(IMemAllocator** allocator) {
  if (allocator == nullptr) return E_POINTER;
  ComPtr<IMemAllocator> created;
  const HRESULT hr = CreateAllocator(created);
  *allocator = created.Detach();
  return hr;
}

STDMETHODIMP InputPin::Receive(IMediaSample* sample) {
  if (sample == nullptr) return E_POINTER;
  if (filter_.state() == State_Stopped) return VFW_E_WRONG_STATE;
  return ComCall([&] {
    BYTE* data = nullptr;
    Check(sample->GetPointer(&data));
    const auto size = static_cast<std::size_t>(std::max(sample->GetActualDataLength(), 0L));
    return purpose_.receive(std::as_bytes(std::span(data, size)));
  });
}

STDMETHODIMP InputPin::ReceiveMultiple(IMediaSample** samples, long count, long* processed) {
  if (samples == nullptr || processed == nullptr) return E_POINTER;
  for (*processed = 0; *processed < count; ++*processed) {
    const HRESULT hr = Receive(samples[*processed]);
    if (hr != S_OK) return hr;
  }
  return S_OK;
}

// OutputPin

bool OutputPin::Accepts(const AudioType& type) const {
  return std::ranges::any_of(Types(), [&](const AudioType& own) {
    return own.format()->wFormatTag == type.format()->wFormatTag &&
           own.format()->nSamplesPerSec == type.format()->nSamplesPerSec &&
           own.format()->nChannels == type.format()->nChannels;
  });
}

STDMETHODIMP OutputPin::Connect(IPin* receiver, const AM_MEDIA_TYPE* type) {
  if (receiver == nullptr) return E_POINTER;
  if (IsConnected()) return VFW_E_ALREADY_CONNECTED;
  return ComCall([&] {
    for (const AudioType& own : Types()) {
      const bool asked_for =
          type == nullptr || IsEqualGUID(type->majortype, GUID_NULL) || QueryAccept(type) == S_OK;
      if (asked_for && SUCCEEDED(TryType(receiver, own))) return S_OK;
    }
    return VFW_E_NO_ACCEPTABLE_TYPES;
  });
}

HRESULT OutputPin::TryType(IPin* receiver, const AudioType& type) {
  const AM_MEDIA_TYPE view = type.View();
  HRESULT hr = receiver->ReceiveConnection(this, &view);
  if (FAILED(hr)) return hr;
  peer_ = receiver;
  type_ = type;
  hr = AgreeOnAllocator();
  if (FAILED(hr)) {
    receiver->Disconnect();
    Disconnect();
  }
  return hr;
}

HRESULT OutputPin::AgreeOnAllocator() {
  input_ = TryQuery<IMemInputPin>(peer_.Get());
  if (!input_) return VFW_E_NO_TRANSPORT;
  HRESULT hr = input_->GetAllocator(allocator_.ReleaseAndGetAddressOf());
  if (FAILED(hr) || !allocator_) hr = CreateAllocator(allocator_);
  if (FAILED(hr)) return hr;
  ALLOCATOR_PROPERTIES wanted = {kBufferCount, buffer_bytes_, 1, 0};
  ALLOCATOR_PROPERTIES actual = {};
  hr = allocator_->SetProperties(&wanted, &actual);
  return FAILED(hr) ? hr : input_->NotifyAllocator(allocator_.Get(), FALSE);
}

STDMETHODIMP OutputPin::Disconnect() {
  const HRESULT hr = GraphPin::Disconnect();
  if (hr == S_OK) {
    input_.Reset();
    allocator_.Reset();
  }
  return hr;
}

HRESULT OutputPin::Deliver(std::span<const std::byte> bytes, REFERENCE_TIME start,
                           REFERENCE_TIME stop) {
  if (!allocator_) return VFW_E_NOT_CONNECTED;
  const std::size_t total = bytes.size();
  const auto time_at = [&](std::size_t offset) {
    return start +
           static_cast<REFERENCE_TIME>(static_cast<double>(stop - start) *
                                       static_cast<double>(offset) / static_cast<double>(total));
  };
  for (std::size_t done = 0; done < total;) {
    ComPtr<IMediaSample> sample;
    HRESULT hr = allocator_->GetBuffer(sample.GetAddressOf(), nullptr, nullptr, 0);
    if (FAILED(hr)) return hr;
    BYTE* data = nullptr;
    hr = sample->GetPointer(&data);
    if (FAILED(hr)) return hr;
    const auto piece = std::min(total - done, static_cast<std::size_t>(sample->GetSize()));
    if (piece == 0) return E_FAIL;
    std::memcpy(data, bytes.data() + done, piece);
    REFERENCE_TIME from = time_at(done);
    REFERENCE_TIME to = time_at(done + piece);
    sample->SetActualDataLength(static_cast<long>(piece));
    sample->SetTime(&from, &to);
    sample->SetSyncPoint(TRUE);
    sample->SetDiscontinuity(FALSE);
    hr = input_->Receive(sample.Get());
    if (hr != S_OK) return FAILED(hr) ? hr : E_FAIL;
    done += piece;
  }
  return S_OK;
}

// GraphFilter

STDMETHODIMP GraphFilter::QueryInterface(REFIID iid, void** object) {
  if (object == nullptr) return E_POINTER;
  *object = nullptr;
  if (!IsEqualIID(iid, IID_IUnknown) && !IsEqualIID(iid, IID_IPersist) &&
      !IsEqualIID(iid, IID_IMediaFilter) && !IsEqualIID(iid, IID_IBaseFilter)) {
    return E_NOINTERFACE;
  }
  *object = static_cast<IBaseFilter*>(this);
  AddRef();
  return S_OK;
}

STDMETHODIMP_(ULONG) GraphFilter::Release() {
  const ULONG left = --references_;
  if (left == 0) delete this;
  return left;
}

STDMETHODIMP GraphFilter::Stop() {
  state_ = State_Stopped;
  for (const auto& pin : pins_) pin->Commit(false);
  return S_OK;
}

STDMETHODIMP GraphFilter::Pause() {
  for (const auto& pin : pins_) {
    const HRESULT hr = pin->Commit(true);
    if (FAILED(hr)) return hr;
  }
  state_ = State_Paused;
  return S_OK;
}

STDMETHODIMP GraphFilter::Run(REFERENCE_TIME) {
  const HRESULT hr = state_ == State_Stopped ? Pause() : S_OK;
  if (SUCCEEDED(hr)) state_ = State_Running;
  return hr;
}

STDMETHODIMP GraphFilter::SetSyncSource(IReferenceClock* clock) {
  const std::lock_guard lock(mutex_);
  clock_ = clock;
  return S_OK;
}

STDMETHODIMP GraphFilter::GetSyncSource(IReferenceClock** clock) {
  if (clock == nullptr) return E_POINTER;
  const std::lock_guard lock(mutex_);
  return clock_.CopyTo(clock);
}

STDMETHODIMP GraphFilter::EnumPins(IEnumPins** pins) {
  if (pins == nullptr) return E_POINTER;
  return ComCall([&] {
    std::vector<ComPtr<IPin>> items;
    for (const auto& pin : pins_) items.emplace_back(pin.get());
    return Pins::Create(std::move(items), pins);
  });
}

STDMETHODIMP GraphFilter::FindPin(LPCWSTR id, IPin** pin) {
  if (id == nullptr || pin == nullptr) return E_POINTER;
  *pin = nullptr;
  for (const auto& own : pins_) {
    if (std::wcscmp(id, NameOf(own->direction_)) == 0) return ComPtr<IPin>(own.get()).CopyTo(pin);
  }
  return VFW_E_NOT_FOUND;
}

STDMETHODIMP GraphFilter::QueryFilterInfo(FILTER_INFO* info) {
  if (info == nullptr) return E_POINTER;
  *info = {};
  const std::lock_guard lock(mutex_);
  name_.copy(info->achName, std::size(info->achName) - 1);
  info->pGraph = graph_;
  if (graph_ != nullptr) graph_->AddRef();
  return S_OK;
}

STDMETHODIMP GraphFilter::JoinFilterGraph(IFilterGraph* graph, LPCWSTR name) {
  return ComCall([&] {
    const std::lock_guard lock(mutex_);
    name_ = name != nullptr ? name : L"";
    graph_ = graph;
  });
}

// FilterGraph

FilterGraph::FilterGraph() {
  Check(CreateInstance(CLSID_FilterGraph, builder_));
  control_ = TryQuery<IMediaControl>(builder_.Get());
  // mingw's header has no __uuidof for this interface.
  builder_->QueryInterface(IID_IMediaEvent, reinterpret_cast<void**>(events_.GetAddressOf()));
  if (control_ == nullptr || events_ == nullptr) throw HResultError(E_NOINTERFACE);
}

HRESULT FilterGraph::Run() {
  // The constructor cannot remove the clock, because the graph passes this setting only to filters
  // that it already contains.
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
