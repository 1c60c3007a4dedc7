// The last filter of a DirectShow graph: takes uncompressed audio of any format through one input
// pin and hands it to the thread that decodes the file.
#pragma once

#include <windows.h>
// After windows.h.
#include <dshow.h>

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <optional>
#include <span>
#include <vector>

#include "core/com_ptr.h"
#include "import/pcm_format.h"

namespace marlinda {

// The graph's own threads deliver into the pin, one other thread takes blocks out. A delivery waits
// until its block has been taken, so the graph decodes no faster than it is read, and never by the
// clock.
class AudioSink final : public IBaseFilter {
 public:
  static ComPtr<AudioSink> Make() { return new AudioSink; }

  IPin* pin() noexcept { return &pin_; }

  // The format of the connection; nothing while there is none.
  std::optional<PcmFormat> format() const;

  enum class Outcome { kBlock, kEnded, kNothingYet };
  // Waits at most `milliseconds` for the next block of whole frames and puts it into `block`.
  Outcome Take(std::vector<std::byte>& block, DWORD milliseconds);

  // From now on deliveries are refused and none waits, so that the graph can be stopped.
  void Abandon();

  // IUnknown
  STDMETHODIMP QueryInterface(REFIID iid, void** object) override;
  STDMETHODIMP_(ULONG) AddRef() override { return ++references_; }
  STDMETHODIMP_(ULONG) Release() override;

  // IPersist
  STDMETHODIMP GetClassID(CLSID* class_id) override;

  // IMediaFilter. Nothing is rendered against a clock, so changes of state need no waiting.
  STDMETHODIMP Stop() override;
  STDMETHODIMP Pause() override;
  STDMETHODIMP Run(REFERENCE_TIME start) override;
  STDMETHODIMP GetState(DWORD milliseconds, FILTER_STATE* state) override;
  STDMETHODIMP SetSyncSource(IReferenceClock* clock) override;
  STDMETHODIMP GetSyncSource(IReferenceClock** clock) override;

  // IBaseFilter
  STDMETHODIMP EnumPins(IEnumPins** pins) override;
  STDMETHODIMP FindPin(LPCWSTR id, IPin** pin) override;
  STDMETHODIMP QueryFilterInfo(FILTER_INFO* info) override;
  STDMETHODIMP JoinFilterGraph(IFilterGraph* graph, LPCWSTR name) override;
  STDMETHODIMP QueryVendorInfo(LPWSTR*) override { return E_NOTIMPL; }

 private:
  // Shares its references with the filter that it is a part of.
  class Pin final : public IPin, public IMemInputPin {
   public:
    explicit Pin(AudioSink& sink) noexcept : sink_(sink) {}

    STDMETHODIMP QueryInterface(REFIID iid, void** object) override;
    STDMETHODIMP_(ULONG) AddRef() override { return sink_.AddRef(); }
    STDMETHODIMP_(ULONG) Release() override { return sink_.Release(); }

    // IPin
    STDMETHODIMP Connect(IPin*, const AM_MEDIA_TYPE*) override { return E_UNEXPECTED; }
    STDMETHODIMP ReceiveConnection(IPin* connector, const AM_MEDIA_TYPE* type) override;
    STDMETHODIMP Disconnect() override;
    STDMETHODIMP ConnectedTo(IPin** pin) override;
    STDMETHODIMP ConnectionMediaType(AM_MEDIA_TYPE* type) override;
    STDMETHODIMP QueryPinInfo(PIN_INFO* info) override;
    STDMETHODIMP QueryDirection(PIN_DIRECTION* direction) override;
    STDMETHODIMP QueryId(LPWSTR* id) override;
    STDMETHODIMP QueryAccept(const AM_MEDIA_TYPE* type) override;
    STDMETHODIMP EnumMediaTypes(IEnumMediaTypes** types) override;
    STDMETHODIMP QueryInternalConnections(IPin**, ULONG*) override { return E_NOTIMPL; }
    STDMETHODIMP EndOfStream() override;
    STDMETHODIMP BeginFlush() override;
    STDMETHODIMP EndFlush() override;
    STDMETHODIMP NewSegment(REFERENCE_TIME, REFERENCE_TIME, double) override { return S_OK; }

    // IMemInputPin
    STDMETHODIMP GetAllocator(IMemAllocator**) override { return VFW_E_NO_ALLOCATOR; }
    STDMETHODIMP NotifyAllocator(IMemAllocator*, BOOL) override { return S_OK; }
    STDMETHODIMP GetAllocatorRequirements(ALLOCATOR_PROPERTIES*) override { return E_NOTIMPL; }
    STDMETHODIMP Receive(IMediaSample* sample) override;
    STDMETHODIMP ReceiveMultiple(IMediaSample** samples, LONG count, LONG* done) override;
    STDMETHODIMP ReceiveCanBlock() override { return S_OK; }

   private:
    AudioSink& sink_;
  };

  AudioSink() noexcept : pin_(*this) {}
  ~AudioSink() = default;

  HRESULT Accept(IPin* connector, const AM_MEDIA_TYPE& type);
  HRESULT Deliver(IMediaSample* sample);
  HRESULT DeliverBytes(std::span<const std::byte> bytes);
  void SetState(FILTER_STATE state);
  void End();
  void SetFlushing(bool flushing);

  std::atomic<ULONG> references_ = 0;
  Pin pin_;

  mutable std::mutex mutex_;
  std::condition_variable changed_;
  // All below is guarded by the mutex.
  IFilterGraph* graph_ = nullptr;  // not held: the graph holds us
  std::wstring name_;
  ComPtr<IReferenceClock> clock_;
  ComPtr<IPin> connected_to_;
  std::vector<std::byte> format_body_;  // as the connection was made
  std::optional<PcmFormat> format_;
  FILTER_STATE state_ = State_Stopped;
  std::vector<std::byte> block_;  // delivered and not yet taken
  bool has_block_ = false;
  bool flushing_ = false;
  bool ended_ = false;
  bool abandoned_ = false;
};

}  // namespace marlinda
