#include "task/converter_link.h"

#include "core/constants.h"
#include "core/sample_array.h"

namespace marlinda {
namespace {

// An array that a callee made and we destroy.
class ReceivedArray {
 public:
  ReceivedArray() noexcept = default;
  ~ReceivedArray() {
    if (array_ != nullptr) SafeArrayDestroy(array_);
  }
  ReceivedArray(const ReceivedArray&) = delete;
  ReceivedArray& operator=(const ReceivedArray&) = delete;

  SAFEARRAY** Receive() noexcept { return &array_; }
  SAFEARRAY* get() const noexcept { return array_; }

 private:
  SAFEARRAY* array_ = nullptr;
};

}  // namespace

ConverterLink::ConverterLink(const StreamFormat& source, const StreamFormat& target) {
  if (FAILED(CreateInstance(CLSID_CFormatConverter, converter_))) return;
  if (FAILED(converter_->SetUp(source.rate, target.rate, source.channels, target.channels,
                               kConverterMode))) {
    converter_.Reset();
  }
}

void ConverterLink::Pass(SAFEARRAY* block, PacedQueue& queue) {
  if (FAILED(converter_->Convert(block))) return;
  ReceivedArray converted;
  const HRESULT hr = converter_->GetOutput(converted.Receive());
  SampleArrayView view;  // unlocks before the array is destroyed
  if (FAILED(hr) || FAILED(view.Lock(converted.get()))) return;
  queue.Put(view.samples());
}

void ConverterLink::PassSilence(std::size_t samples, PacedQueue& queue) {
  const SampleArray silence(samples);
  Pass(silence.get(), queue);
}

}  // namespace marlinda
