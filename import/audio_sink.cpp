#include "import/audio_sink.h"

#include <algorithm>
#include <chrono>
#include <cwchar>
#include <iterator>

#include "core/enumerator.h"

namespace marlinda {
namespace {

constexpr wchar_t kPinId[] = L"In";

std::span<const std::byte> FormatBody(const AM_MEDIA_TYPE& type) noexcept {
  if (type.majortype != MEDIATYPE_Audio || type.formattype != FORMAT_WaveFormatEx ||
      type.pbFormat == nullptr) {
    return {};
  }
  return {reinterpret_cast<const std::byte*>(type.pbFormat), type.cbFormat};
}

// Text that the caller frees with CoTaskMemFree.
HRESULT CopyTaskText(const wchar_t* text, LPWSTR* copy) noexcept {
  const std::size_t bytes = (std::wcslen(text) + 1) * sizeof(wchar_t);
  *copy = static_cast<LPWSTR>(CoTaskMemAlloc(bytes));
  if (*copy == nullptr) return E_OUTOFMEMORY;
  std::copy_n(text, bytes / sizeof(wchar_t), *copy);
  return S_OK;
}

HRESULT GivePin(const ComPtr<IPin>& pin, IPin** out) { return pin.CopyTo(out); }

// The pin names no types of its own: it takes any that QueryAccept takes.
struct NoType {};
HRESULT GiveType(const NoType&, AM_MEDIA_TYPE**) { return E_UNEXPECTED; }

using Pins = Enumerator<IEnumPins, ComPtr<IPin>, IPin*, GivePin>;
using MediaTypes = Enumerator<IEnumMediaTypes, NoType, AM_MEDIA_TYPE*, GiveType>;

}  // namespace

std::optional<PcmFormat> AudioSink::format() const {
  const std::lock_guard lock(mutex_);
  return format_;
}

AudioSink::Outcome AudioSink::Take(std::vector<std::byte>& block, DWORD milliseconds) {
  std::unique_lock lock(mutex_);
  changed_.wait_for(lock, std::chrono::milliseconds(milliseconds),
                    [&] { return has_block_ || ended_; });
  if (has_block_) {
    block.swap(block_);
    has_block_ = false;
    changed_.notify_all();
    return Outcome::kBlock;
  }
  return ended_ ? Outcome::kEnded : Outcome::kNothingYet;
}

void AudioSink::Abandon() {
  const std::lock_guard lock(mutex_);
  abandoned_ = true;
  changed_.notify_all();
}

STDMETHODIMP AudioSink::QueryInterface(REFIID iid, void** object) {
  if (object == nullptr) return E_POINTER;
  *object = nullptr;
  if (iid != IID_IUnknown && iid != IID_IPersist && iid != IID_IMediaFilter &&
      iid != IID_IBaseFilter) {
    return E_NOINTERFACE;
  }
  *object = static_cast<IBaseFilter*>(this);
  AddRef();
  return S_OK;
}

STDMETHODIMP_(ULONG) AudioSink::Release() {
  const ULONG left = --references_;
  if (left == 0) delete this;
  return left;
}

STDMETHODIMP AudioSink::GetClassID(CLSID* class_id) {
  if (class_id == nullptr) return E_POINTER;
  // It is registered nowhere.
  *class_id = CLSID_NULL;
  return S_OK;
}

void AudioSink::SetState(FILTER_STATE state) {
  const std::lock_guard lock(mutex_);
  state_ = state;
  changed_.notify_all();
}

STDMETHODIMP AudioSink::Stop() {
  SetState(State_Stopped);
  return S_OK;
}

STDMETHODIMP AudioSink::Pause() {
  SetState(State_Paused);
  return S_OK;
}

STDMETHODIMP AudioSink::Run(REFERENCE_TIME) {
  SetState(State_Running);
  return S_OK;
}

STDMETHODIMP AudioSink::GetState(DWORD, FILTER_STATE* state) {
  if (state == nullptr) return E_POINTER;
  const std::lock_guard lock(mutex_);
  *state = state_;
  return S_OK;
}

STDMETHODIMP AudioSink::SetSyncSource(IReferenceClock* clock) {
  const std::lock_guard lock(mutex_);
  clock_ = clock;
  return S_OK;
}

STDMETHODIMP AudioSink::GetSyncSource(IReferenceClock** clock) {
  if (clock == nullptr) return E_POINTER;
  const std::lock_guard lock(mutex_);
  return clock_.CopyTo(clock);
}

STDMETHODIMP AudioSink::EnumPins(IEnumPins** pins) {
  if (pins == nullptr) return E_POINTER;
  return ComCall([&] { return Pins::Create({ComPtr<IPin>(&pin_)}, pins); });
}

STDMETHODIMP AudioSink::FindPin(LPCWSTR id, IPin** pin) {
  if (pin == nullptr) return E_POINTER;
  *pin = nullptr;
  if (id == nullptr || std::wcscmp(id, kPinId) != 0) return VFW_E_NOT_FOUND;
  *pin = &pin_;
  AddRef();
  return S_OK;
}

STDMETHODIMP AudioSink::QueryFilterInfo(FILTER_INFO* info) {
  if (info == nullptr) return E_POINTER;
  const std::lock_guard lock(mutex_);
  *info = {};
  name_.copy(info->achName, std::size(info->achName) - 1);
  info->pGraph = graph_;
  if (graph_ != nullptr) graph_->AddRef();
  return S_OK;
}

STDMETHODIMP AudioSink::JoinFilterGraph(IFilterGraph* graph, LPCWSTR name) {
  return ComCall([&] {
    const std::lock_guard lock(mutex_);
    name_ = name != nullptr ? name : L"";
    graph_ = graph;
    return S_OK;
  });
}

// Called by an output pin that has found the format good for itself.
HRESULT AudioSink::Accept(IPin* connector, const AM_MEDIA_TYPE& type) {
  const auto body = FormatBody(type);
  const auto format = ParseWaveFormat(body);
  const std::lock_guard lock(mutex_);
  if (connected_to_ != nullptr) return VFW_E_ALREADY_CONNECTED;
  if (state_ != State_Stopped) return VFW_E_NOT_STOPPED;
  if (!format) return VFW_E_TYPE_NOT_ACCEPTED;
  format_body_.assign(body.begin(), body.end());
  format_ = format;
  connected_to_ = connector;
  return S_OK;
}

HRESULT AudioSink::Deliver(IMediaSample* sample) {
  AM_MEDIA_TYPE* new_type = nullptr;
  if (sample->GetMediaType(&new_type) == S_OK && new_type != nullptr) {
    // The format was announced and stays true of all that is delivered: another one is the end.
    const bool same = ParseWaveFormat(FormatBody(*new_type)) == format();
    if (new_type->pUnk != nullptr) new_type->pUnk->Release();
    CoTaskMemFree(new_type->pbFormat);
    CoTaskMemFree(new_type);
    if (!same) {
      End();
      return S_FALSE;
    }
  }
  BYTE* data = nullptr;
  const HRESULT hr = sample->GetPointer(&data);
  if (FAILED(hr)) return hr;
  const LONG length = sample->GetActualDataLength();
  if (data == nullptr || length <= 0) return S_OK;
  return DeliverBytes({reinterpret_cast<const std::byte*>(data), static_cast<std::size_t>(length)});
}

HRESULT AudioSink::DeliverBytes(std::span<const std::byte> bytes) {
  std::unique_lock lock(mutex_);
  const auto refused = [&] {
    return abandoned_ || flushing_ || ended_ || state_ == State_Stopped || !format_;
  };
  changed_.wait(lock, [&] { return !has_block_ || refused(); });
  if (refused()) return S_FALSE;
  const std::size_t whole = bytes.size() - bytes.size() % format_->FrameBytes();
  if (whole == 0) return S_OK;
  block_.assign(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(whole));
  has_block_ = true;
  changed_.notify_all();
  return S_OK;
}

void AudioSink::End() {
  const std::lock_guard lock(mutex_);
  ended_ = true;
  changed_.notify_all();
}

void AudioSink::SetFlushing(bool flushing) {
  const std::lock_guard lock(mutex_);
  flushing_ = flushing;
  if (flushing) has_block_ = false;
  changed_.notify_all();
}

STDMETHODIMP AudioSink::Pin::QueryInterface(REFIID iid, void** object) {
  if (object == nullptr) return E_POINTER;
  *object = nullptr;
  if (iid == IID_IUnknown || iid == IID_IPin) {
    *object = static_cast<IPin*>(this);
  } else if (iid == IID_IMemInputPin) {
    *object = static_cast<IMemInputPin*>(this);
  } else {
    return E_NOINTERFACE;
  }
  AddRef();
  return S_OK;
}

STDMETHODIMP AudioSink::Pin::ReceiveConnection(IPin* connector, const AM_MEDIA_TYPE* type) {
  if (connector == nullptr || type == nullptr) return E_POINTER;
  return ComCall([&] { return sink_.Accept(connector, *type); });
}

STDMETHODIMP AudioSink::Pin::Disconnect() {
  ComPtr<IPin> released_unlocked;
  const std::lock_guard lock(sink_.mutex_);
  if (sink_.state_ != State_Stopped) return VFW_E_NOT_STOPPED;
  if (sink_.connected_to_ == nullptr) return S_FALSE;
  released_unlocked.Swap(sink_.connected_to_);
  sink_.format_.reset();
  return S_OK;
}

STDMETHODIMP AudioSink::Pin::ConnectedTo(IPin** pin) {
  if (pin == nullptr) return E_POINTER;
  const std::lock_guard lock(sink_.mutex_);
  sink_.connected_to_.CopyTo(pin);
  return *pin != nullptr ? S_OK : VFW_E_NOT_CONNECTED;
}

STDMETHODIMP AudioSink::Pin::ConnectionMediaType(AM_MEDIA_TYPE* type) {
  if (type == nullptr) return E_POINTER;
  *type = {};
  const std::lock_guard lock(sink_.mutex_);
  if (!sink_.format_) return VFW_E_NOT_CONNECTED;
  auto* body = static_cast<BYTE*>(CoTaskMemAlloc(sink_.format_body_.size()));
  if (body == nullptr) return E_OUTOFMEMORY;
  std::ranges::copy(sink_.format_body_, reinterpret_cast<std::byte*>(body));
  type->majortype = MEDIATYPE_Audio;
  type->subtype = sink_.format_->is_float ? MEDIASUBTYPE_IEEE_FLOAT : MEDIASUBTYPE_PCM;
  type->bFixedSizeSamples = TRUE;
  type->lSampleSize = static_cast<ULONG>(sink_.format_->FrameBytes());
  type->formattype = FORMAT_WaveFormatEx;
  type->cbFormat = static_cast<ULONG>(sink_.format_body_.size());
  type->pbFormat = body;
  return S_OK;
}

STDMETHODIMP AudioSink::Pin::QueryPinInfo(PIN_INFO* info) {
  if (info == nullptr) return E_POINTER;
  *info = {};
  info->pFilter = &sink_;
  sink_.AddRef();
  info->dir = PINDIR_INPUT;
  std::copy_n(kPinId, std::size(kPinId), info->achName);
  return S_OK;
}

STDMETHODIMP AudioSink::Pin::QueryDirection(PIN_DIRECTION* direction) {
  if (direction == nullptr) return E_POINTER;
  *direction = PINDIR_INPUT;
  return S_OK;
}

STDMETHODIMP AudioSink::Pin::QueryId(LPWSTR* id) {
  return id == nullptr ? E_POINTER : CopyTaskText(kPinId, id);
}

STDMETHODIMP AudioSink::Pin::QueryAccept(const AM_MEDIA_TYPE* type) {
  if (type == nullptr) return E_POINTER;
  return ParseWaveFormat(FormatBody(*type)) ? S_OK : S_FALSE;
}

STDMETHODIMP AudioSink::Pin::EnumMediaTypes(IEnumMediaTypes** types) {
  if (types == nullptr) return E_POINTER;
  return ComCall([&] { return MediaTypes::Create({}, types); });
}

STDMETHODIMP AudioSink::Pin::EndOfStream() {
  sink_.End();
  return S_OK;
}

STDMETHODIMP AudioSink::Pin::BeginFlush() {
  sink_.SetFlushing(true);
  return S_OK;
}

STDMETHODIMP AudioSink::Pin::EndFlush() {
  sink_.SetFlushing(false);
  return S_OK;
}

STDMETHODIMP AudioSink::Pin::Receive(IMediaSample* sample) {
  if (sample == nullptr) return E_POINTER;
  return ComCall([&] { return sink_.Deliver(sample); });
}

STDMETHODIMP AudioSink::Pin::ReceiveMultiple(IMediaSample** samples, LONG count, LONG* done) {
  if (samples == nullptr || done == nullptr) return E_POINTER;
  for (*done = 0; *done < count; ++*done) {
    const HRESULT hr = Receive(samples[*done]);
    if (hr != S_OK) return hr;
  }
  return S_OK;
}

}  // namespace marlinda
