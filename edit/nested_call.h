// NestedCall: tells how deep calls of one kind on one object are nested on this thread. A document
// can come to contain itself through its segments, and a sink can play what tells it about playing:
// such calls would never end.
#pragma once

namespace marlinda {

class NestedCall {
 public:
  enum class Kind { kRead, kOpen, kClose, kPlay };

  NestedCall(const void* object, Kind kind) noexcept;
  ~NestedCall();
  NestedCall(const NestedCall&) = delete;
  NestedCall& operator=(const NestedCall&) = delete;

  // 1 for a call that is not nested.
  int Depth() const noexcept;

 private:
  const void* object_;
  Kind kind_;
  const NestedCall* outer_;
};

}  // namespace marlinda
