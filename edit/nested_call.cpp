#include "edit/nested_call.h"

#include "core/thread_slot.h"

namespace marlinda {
namespace {

using Innermost = ThreadSlot<const NestedCall>;

}  // namespace

NestedCall::NestedCall(const void* object, Kind kind) noexcept
    : object_(object), kind_(kind), outer_(Innermost::Get()) {
  Innermost::Set(this);
}

NestedCall::~NestedCall() { Innermost::Set(outer_); }

int NestedCall::Depth() const noexcept {
  int depth = 0;
  for (const NestedCall* call = this; call != nullptr; call = call->outer_) {
    if (call->object_ == object_ && call->kind_ == kind_) ++depth;
  }
  return depth;
}

}  // namespace marlinda
