#include "edit/nested_call.h"

#include <windows.h>

namespace marlinda {
namespace {

// The innermost call of each thread. Not thread_local: what the compiler's runtime allocates for
// that would stay behind with every thread that ends.
class ThreadSlot {
 public:
  ThreadSlot() noexcept : index_(TlsAlloc()) {}
  ~ThreadSlot() { TlsFree(index_); }
  ThreadSlot(const ThreadSlot&) = delete;
  ThreadSlot& operator=(const ThreadSlot&) = delete;

  const NestedCall* Get() const noexcept {
    return static_cast<const NestedCall*>(TlsGetValue(index_));
  }
  void Set(const NestedCall* call) noexcept { TlsSetValue(index_, const_cast<NestedCall*>(call)); }

 private:
  DWORD index_;
};

ThreadSlot innermost;

}  // namespace

NestedCall::NestedCall(const void* object, Kind kind) noexcept
    : object_(object), kind_(kind), outer_(innermost.Get()) {
  innermost.Set(this);
}

NestedCall::~NestedCall() { innermost.Set(outer_); }

int NestedCall::Depth() const noexcept {
  int depth = 0;
  for (const NestedCall* call = this; call != nullptr; call = call->outer_) {
    if (call->object_ == object_ && call->kind_ == kind_) ++depth;
  }
  return depth;
}

}  // namespace marlinda
