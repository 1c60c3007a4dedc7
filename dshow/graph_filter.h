// DirectShow graphs and the engine's own filters in them. GraphFilter and its pins implement the
// DirectShow interfaces. The code that adds a pin chooses its formats and handles its data.
#pragma once

#include <dshow.h>
#include <mmreg.h>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <vector>

#include "core/com_call.h"
#include "core/com_ptr.h"

namespace marlinda {

class GraphFilter;

// Returns the wave format in a media type, or null if the type's format block is too short.
const WAVEFORMATEX* WaveFormatOf(const AM_MEDIA_TYPE& type) noexcept;

// Frees the format block of a media type and releases its pUnk. Does not free the structure.
void FreeContents(AM_MEDIA_TYPE& type) noexcept;

struct FreeMediaType {
  void operator()(AM_MEDIA_TYPE* type) const noexcept;
};
// Owns a media type that came from a filter.
using MediaType = std::unique_ptr<AM_MEDIA_TYPE, FreeMediaType>;

// An audio media type with a wave format.
class AudioType {
 public:
  AudioType() noexcept = default;
  // Also copies the cbSize bytes after `format`.
  explicit AudioType(const WAVEFORMATEX& format);
  // Copies the format, with a missing cbSize added. Empty if `type` is not audio in a wave format.
  explicit AudioType(const AM_MEDIA_TYPE& type);

  bool empty() const noexcept { return format_.empty(); }
  std::span<const std::byte> bytes() const noexcept { return std::as_bytes(std::span(format_)); }
  const WAVEFORMATEX* format() const noexcept {
    return empty() ? nullptr : reinterpret_cast<const WAVEFORMATEX*>(format_.data());
  }
  // The view is valid while this object exists.
  AM_MEDIA_TYPE View() const noexcept;
  // Stores a copy in `type`. The caller frees the copy's format block.
  HRESULT CopyTo(AM_MEDIA_TYPE* type) const noexcept;

 private:
  std::vector<BYTE> format_;
};

// Returns a new copy of the type, which the caller frees. Leaves `out` unchanged on failure.
HRESULT GiveType(const AudioType& type, AM_MEDIA_TYPE** out);

// The base of all pins. A pin belongs to its filter and uses the filter's reference count.
class GraphPin : public IPin {
 public:
  bool IsConnected() const noexcept { return peer_ != nullptr; }
  const AudioType& type() const noexcept { return type_; }

  STDMETHODIMP QueryInterface(REFIID iid, void** object) override;
  STDMETHODIMP_(ULONG) AddRef() override;
  STDMETHODIMP_(ULONG) Release() override;

  STDMETHODIMP Connect(IPin*, const AM_MEDIA_TYPE*) override { return E_UNEXPECTED; }
  STDMETHODIMP ReceiveConnection(IPin* connector, const AM_MEDIA_TYPE* type) override;
  STDMETHODIMP Disconnect() override;
  STDMETHODIMP ConnectedTo(IPin** pin) override;
  STDMETHODIMP ConnectionMediaType(AM_MEDIA_TYPE* type) override;
  STDMETHODIMP QueryPinInfo(PIN_INFO* info) override;
  STDMETHODIMP QueryDirection(PIN_DIRECTION* direction) override {
    return SetOut(direction, direction_);
  }
  STDMETHODIMP QueryId(LPWSTR* id) override;
  STDMETHODIMP QueryAccept(const AM_MEDIA_TYPE* type) override;
  STDMETHODIMP EnumMediaTypes(IEnumMediaTypes** types) override;
  STDMETHODIMP QueryInternalConnections(IPin**, ULONG*) override { return E_NOTIMPL; }
  STDMETHODIMP EndOfStream() override { return E_UNEXPECTED; }
  STDMETHODIMP BeginFlush() override { return S_OK; }
  STDMETHODIMP EndFlush() override { return S_OK; }
  STDMETHODIMP NewSegment(REFERENCE_TIME, REFERENCE_TIME, double) override { return S_OK; }

 protected:
  GraphPin(GraphFilter& filter, PIN_DIRECTION direction) noexcept
      : filter_(filter), direction_(direction) {}
  virtual ~GraphPin() = default;

  virtual bool Accepts(const AudioType& type) const = 0;
  virtual std::vector<AudioType> Types() const { return {}; }
  // Returns the interface that this kind of pin has besides IPin, or null for any other identifier.
  virtual IUnknown* Extra(REFIID) noexcept { return nullptr; }
  // Allocates the buffers (true) or frees them (false) when the filter starts or stops.
  virtual HRESULT Commit(bool) { return S_OK; }

  GraphFilter& filter_;
  const PIN_DIRECTION direction_;
  ComPtr<IPin> peer_;
  AudioType type_;

  friend class GraphFilter;
};

// Calls `receive` with the bytes of each media sample, and `end` after the last one, on the thread
// that delivers them. Any result of `receive` other than S_OK stops the delivery.
class InputPin : public GraphPin, protected IMemInputPin {
 public:
  struct Purpose {
    std::function<bool(const WAVEFORMATEX&)> accepts;
    std::function<HRESULT(std::span<const std::byte>)> receive;
    std::function<HRESULT()> end;
  };
  InputPin(GraphFilter& filter, Purpose purpose)
      : GraphPin(filter, PINDIR_INPUT), purpose_(std::move(purpose)) {}

  STDMETHODIMP QueryInterface(REFIID iid, void** object) override {
    return GraphPin::QueryInterface(iid, object);
  }
  STDMETHODIMP_(ULONG) AddRef() override { return GraphPin::AddRef(); }
  STDMETHODIMP_(ULONG) Release() override { return GraphPin::Release(); }
  STDMETHODIMP EndOfStream() override { return ComCall(purpose_.end); }

 protected:
  bool Accepts(const AudioType& type) const override { return purpose_.accepts(*type.format()); }
  IUnknown* Extra(REFIID iid) noexcept override {
    return IsEqualIID(iid, IID_IMemInputPin) ? static_cast<IMemInputPin*>(this) : nullptr;
  }

  STDMETHODIMP GetAllocator(IMemAllocator** allocator) override;
  STDMETHODIMP NotifyAllocator(IMemAllocator*, BOOL) override { return S_OK; }
  STDMETHODIMP GetAllocatorRequirements(ALLOCATOR_PROPERTIES*) override { return E_NOTIMPL; }
  STDMETHODIMP Receive(IMediaSample* sample) override;
  STDMETHODIMP ReceiveMultiple(IMediaSample** samples, long count, long* processed) override;
  STDMETHODIMP ReceiveCanBlock() override { return S_FALSE; }

 private:
  const Purpose purpose_;
};

// Offers a list of types and delivers bytes of the agreed type to the connected pin.
class OutputPin : public GraphPin {
 public:
  OutputPin(GraphFilter& filter, std::vector<AudioType> types, long buffer_bytes)
      : GraphPin(filter, PINDIR_OUTPUT), types_(std::move(types)), buffer_bytes_(buffer_bytes) {}

  // Splits `bytes` and, in proportion, the time from `start` to `stop` into media samples.
  HRESULT Deliver(std::span<const std::byte> bytes, REFERENCE_TIME start, REFERENCE_TIME stop);
  HRESULT DeliverEnd() { return peer_ ? peer_->EndOfStream() : VFW_E_NOT_CONNECTED; }

  STDMETHODIMP Connect(IPin* receiver, const AM_MEDIA_TYPE* type) override;
  STDMETHODIMP Disconnect() override;

 protected:
  bool Accepts(const AudioType& type) const override;
  std::vector<AudioType> Types() const override { return types_; }
  HRESULT Commit(bool commit) override {
    if (!allocator_) return S_OK;
    return commit ? allocator_->Commit() : allocator_->Decommit();
  }

 private:
  HRESULT TryType(IPin* receiver, const AudioType& type);
  HRESULT AgreeOnAllocator();

  const std::vector<AudioType> types_;
  const long buffer_bytes_;
  ComPtr<IMemInputPin> input_;
  ComPtr<IMemAllocator> allocator_;
};

// A DirectShow filter. Add its pins before use.
class GraphFilter : public IBaseFilter {
 public:
  static ComPtr<GraphFilter> Make() { return new GraphFilter; }

  template <class Pin, class... Arguments>
  Pin& AddPin(Arguments&&... arguments) {
    auto pin = std::make_unique<Pin>(*this, std::forward<Arguments>(arguments)...);
    Pin& added = *pin;
    pins_.emplace_back(pin.release());
    return added;
  }
  const auto& pins() const noexcept { return pins_; }
  FILTER_STATE state() const noexcept { return state_; }

  STDMETHODIMP QueryInterface(REFIID iid, void** object) override;
  STDMETHODIMP_(ULONG) AddRef() override { return ++references_; }
  STDMETHODIMP_(ULONG) Release() override;

  // Only the engine creates the filter, so it has no class identifier.
  STDMETHODIMP GetClassID(CLSID* class_id) override { return SetOut(class_id, GUID_NULL); }
  STDMETHODIMP Stop() override;
  STDMETHODIMP Pause() override;
  STDMETHODIMP Run(REFERENCE_TIME start) override;
  STDMETHODIMP GetState(DWORD, FILTER_STATE* state) override { return SetOut(state, state_); }
  STDMETHODIMP SetSyncSource(IReferenceClock* clock) override;
  STDMETHODIMP GetSyncSource(IReferenceClock** clock) override;
  STDMETHODIMP EnumPins(IEnumPins** pins) override;
  STDMETHODIMP FindPin(LPCWSTR id, IPin** pin) override;
  STDMETHODIMP QueryFilterInfo(FILTER_INFO* info) override;
  STDMETHODIMP JoinFilterGraph(IFilterGraph* graph, LPCWSTR name) override;
  STDMETHODIMP QueryVendorInfo(LPWSTR*) override { return E_NOTIMPL; }

 protected:
  GraphFilter() = default;
  virtual ~GraphFilter() = default;

 private:
  struct DeletePin {
    void operator()(GraphPin* pin) const { delete pin; }
  };

  std::atomic<ULONG> references_{0};
  std::atomic<FILTER_STATE> state_{State_Stopped};
  std::vector<std::unique_ptr<GraphPin, DeletePin>> pins_;

  std::mutex mutex_;
  // The mutex guards the members below.
  ComPtr<IReferenceClock> clock_;
  IFilterGraph* graph_ = nullptr;  // not a reference: the graph holds its filters
  std::wstring name_;

  friend class GraphPin;
};

// A graph without a clock, so that its filters run as fast as they can. Use it only on a single
// thread that has entered an apartment.
class FilterGraph {
 public:
  // Throws HResultError if the system has no filter graph.
  FilterGraph();
  FilterGraph(const FilterGraph&) = delete;
  FilterGraph& operator=(const FilterGraph&) = delete;
  // Stops the graph, because filters must not be released while they run.
  ~FilterGraph() { Stop(); }

  IGraphBuilder* builder() const noexcept { return builder_.Get(); }
  HRESULT Run();
  void Stop() noexcept { control_->Stop(); }
  // True once a filter has reported an error.
  bool HasFailed();

 private:
  ComPtr<IGraphBuilder> builder_;
  ComPtr<IMediaControl> control_;
  ComPtr<IMediaEvent> events_;
  bool has_failed_ = false;
};

// Calls `visit` with each pin of this direction until `visit` returns true.
void ForEachPin(IBaseFilter* filter, PIN_DIRECTION direction,
                const std::function<bool(IPin*)>& visit);

}  // namespace marlinda
