// CodecMemory: the heap of one decoder of the codec library. scripts/build-dependencies builds the
// library to allocate here. The library does not check the result of malloc, so a small file that
// announces huge tables would crash the host. Here a failed request, or one beyond the decoder's
// limit, throws std::bad_alloc through the library. The decoder's state is then inconsistent and
// must not be used again; this object's destructor frees its blocks. A library built otherwise uses
// its own heap, without this protection.
#pragma once

#include <atomic>
#include <cstddef>

namespace marlinda {

// One thread at a time may use an object. The parts of a whole may be used on different threads.
class CodecMemory {
 public:
  // Limit in bytes for all blocks of a whole.
  static constexpr std::size_t kMaxBytes = std::size_t{128} << 20;

  // While it lives, blocks that the library allocates on this thread belong to `memory`. Blocks
  // allocated without a Use have no owner. Throws std::bad_alloc.
  class Use {
   public:
    explicit Use(CodecMemory& memory);
    Use(const Use&) = delete;
    Use& operator=(const Use&) = delete;
    ~Use();

   private:
    CodecMemory* const outer_;
  };

  CodecMemory() = default;
  // A part of `whole`, which must outlive it. Their blocks count against one limit.
  explicit CodecMemory(CodecMemory* whole) : whole_(whole) {}
  // Frees the blocks that the library has not freed: some after a damaged file, all after an
  // exception.
  ~CodecMemory();

  // Bytes in all blocks of the whole.
  std::size_t held() const noexcept { return whole_->held_; }

  // The library's malloc and realloc. `contents` may be null; they are unchanged if it throws. A
  // growing block gets spare room, because the library asks for one more page each time.
  static void* Resize(void* contents, std::size_t size);
  static void Free(void* contents) noexcept;

 private:
  // Precedes the contents. The blocks of one owner form a ring; a block without an owner is a ring
  // of one.
  struct Block {
    Block* previous = this;
    Block* next = this;
    CodecMemory* owner = nullptr;
    std::size_t size = sizeof(Block);  // including the contents and spare room
  };

  // Returns false and takes nothing if the limit would be exceeded.
  bool Take(std::size_t bytes) noexcept;

  Block blocks_;
  CodecMemory* const whole_ = this;
  std::atomic<std::size_t> held_{0};
};

}  // namespace marlinda
