// Counts nested calls of the same method of the same object on the same thread, so that the method
// can limit them. Without a limit, a ring of writers, or a document that contains itself through
// its segments, would overflow the stack.
#pragma once

#include "core/thread_slot.h"

namespace marlinda {

// Represents one call of a method of `object`. Declare it as a local variable of the method. The
// unfinished calls of a thread form a list on its stack. `Kind` is an enumeration of methods.
template <class Kind>
class NestedCall {
 public:
  NestedCall(const void* object, Kind kind) noexcept
      : object_(object), kind_(kind), outer_(Innermost::Get()) {
    Innermost::Set(this);
  }
  ~NestedCall() { Innermost::Set(outer_); }
  NestedCall(const NestedCall&) = delete;
  NestedCall& operator=(const NestedCall&) = delete;

  // Returns the number of unfinished calls of this kind on the object, including this call.
  int Depth() const noexcept {
    int depth = 0;
    for (const NestedCall* call = this; call != nullptr; call = call->outer_) {
      if (call->object_ == object_ && call->kind_ == kind_) ++depth;
    }
    return depth;
  }

 private:
  using Innermost = ThreadSlot<const NestedCall>;

  const void* const object_;
  const Kind kind_;
  const NestedCall* const outer_;
};

}  // namespace marlinda
