#include "edit/document_content.h"

#include <algorithm>
#include <mutex>
#include <shared_mutex>
#include <span>
#include <utility>

#include "core/frame_math.h"
#include "core/nested_call.h"
#include "core/sample_array.h"

namespace marlinda {
namespace {

enum class DocumentCall { kRead, kOpen, kClose };

// More levels of documents within themselves than any content needs, and few enough for a thread's
// stack.
constexpr int kDeepestRead = 64;

}  // namespace

// A piece goes through an array of exactly its own size, so that a source cannot tell who reads it,
// and delivers nothing to the caller when it fails. Deliberate: the pieces are written one after
// another from the start of the array also when the read begins before the document, and where
// backward segments make them longer than the array, what does not fit is read and dropped.
HRESULT DocumentContent::ReadAudio(__int64 position, SAFEARRAY* samples) {
  return ComCall([&]() -> HRESULT {
    SampleArrayView view;
    Check(view.Lock(samples));
    const NestedCall call(this, DocumentCall::kRead);
    if (call.Depth() > kDeepestRead) return E_FAIL;

    std::shared_lock guard(lock);
    const __int64 channels = format.channels;
    if (channels == 0) {
      guard.unlock();
      std::ranges::fill(view.samples(), 0.0F);
      return S_FALSE;
    }
    // With a negative channel count the frames are negative too, and no piece fits between.
    const __int64 frames = static_cast<__int64>(view.samples().size()) / channels;
    const CSection request(position, SaturatingAdd(position, frames));
    const std::vector<Segment> pieces = segments.Cut(request);
    const __int64 length = segments.Length();
    guard.unlock();

    if (length < request.end) {
      const __int64 left = std::max<__int64>(0, SaturatingSubtract(length, request.begin));
      std::ranges::fill(view.samples().subspan(static_cast<std::size_t>(left * channels)), 0.0F);
    }
    std::span<float> room = view.samples();
    ScratchLease lease(scratch);
    for (const Segment& piece : pieces) {
      const auto count = static_cast<std::size_t>(piece.Length() * channels);
      const std::span<float> target = room.first(std::min(count, room.size()));
      if (piece.source) {
        Check(piece.source->ReadAudio(piece.begin, lease->Prepare(count)));
        const std::span<const float> delivered = lease->samples();
        std::copy_n(delivered.data(), std::min(delivered.size(), target.size()), target.data());
      } else {
        std::ranges::fill(target, 0.0F);
      }
      room = room.subspan(target.size());
    }
    return S_OK;
  });
}

// Deliberate: the sources that were opened before the failing one stay open.
HRESULT DocumentContent::OpenDevice() {
  return ComCall([&]() -> HRESULT {
    const NestedCall call(this, DocumentCall::kOpen);
    if (call.Depth() > 1) return E_FAIL;
    for (const auto& source : Sources()) Check(source->OpenDevice());
    return S_OK;
  });
}

HRESULT DocumentContent::CloseDevice() {
  return ComCall([&]() -> HRESULT {
    const NestedCall call(this, DocumentCall::kClose);
    if (call.Depth() > 1) return S_OK;
    for (const auto& source : Sources()) source->CloseDevice();
    return S_OK;
  });
}

DocumentFormat DocumentContent::CurrentFormat() {
  const std::shared_lock guard(lock);
  return format;
}

std::vector<ComPtr<IAudioReader>> DocumentContent::Sources() {
  std::shared_lock guard(lock);
  std::vector<Segment> all = segments.All();
  guard.unlock();
  std::vector<ComPtr<IAudioReader>> sources;
  sources.reserve(all.size());
  for (Segment& segment : all) {
    if (segment.source) sources.push_back(std::move(segment.source));
  }
  return sources;
}

}  // namespace marlinda
