#include "import/audio_sink.h"

#include <chrono>

namespace marlinda {

// Takes every uncompressed format, one for as long as it is connected.
class AudioSink::Pin final : public InputPin {
 public:
  Pin(GraphFilter& filter, AudioSink& sink)
      : InputPin(filter, {.accepts = {},
                          .receive = [&](auto bytes) { return sink.Deliver(bytes); },
                          .end = [&] { return sink.End(); }}),
        sink_(sink) {}

  STDMETHODIMP ReceiveConnection(IPin* connector, const AM_MEDIA_TYPE* type) override {
    const HRESULT hr = InputPin::ReceiveConnection(connector, type);
    if (SUCCEEDED(hr)) sink_.SetFormat(ParseWaveFormat(this->type().bytes()));
    return hr;
  }
  STDMETHODIMP BeginFlush() override {
    sink_.SetFlushing(true);
    return S_OK;
  }
  STDMETHODIMP EndFlush() override {
    sink_.SetFlushing(false);
    return S_OK;
  }

 private:
  bool Accepts(const AudioType& type) const override {
    return ParseWaveFormat(type.bytes()).has_value();
  }

  STDMETHODIMP GetAllocator(IMemAllocator**) override { return VFW_E_NO_ALLOCATOR; }
  STDMETHODIMP ReceiveCanBlock() override { return S_OK; }
  STDMETHODIMP Receive(IMediaSample* sample) override {
    if (sample == nullptr) return E_POINTER;
    return ComCall([&] {
      AM_MEDIA_TYPE* announced = nullptr;
      if (sample->GetMediaType(&announced) == S_OK && announced != nullptr) {
        const MediaType owner(announced);
        // The format was announced and stays true of all that is delivered: another one is the end.
        if (ParseWaveFormat(AudioType(*announced).bytes()) != sink_.format()) {
          sink_.End();
          return S_FALSE;
        }
      }
      return InputPin::Receive(sample);
    });
  }

  AudioSink& sink_;
};

AudioSink::AudioSink() { AddPin<Pin>(*this); }

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

STDMETHODIMP AudioSink::Stop() {
  const HRESULT hr = GraphFilter::Stop();
  // Under the lock, so that no delivery looks before it and waits after it.
  const std::lock_guard lock(mutex_);
  changed_.notify_all();
  return hr;
}

HRESULT AudioSink::Deliver(std::span<const std::byte> bytes) {
  std::unique_lock lock(mutex_);
  const auto refused = [&] {
    return abandoned_ || flushing_ || ended_ || state() == State_Stopped || !format_;
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

HRESULT AudioSink::End() {
  const std::lock_guard lock(mutex_);
  ended_ = true;
  changed_.notify_all();
  return S_OK;
}

void AudioSink::SetFormat(const std::optional<PcmFormat>& format) {
  const std::lock_guard lock(mutex_);
  format_ = format;
}

void AudioSink::SetFlushing(bool flushing) {
  const std::lock_guard lock(mutex_);
  flushing_ = flushing;
  if (flushing) has_block_ = false;
  changed_.notify_all();
}

}  // namespace marlinda
