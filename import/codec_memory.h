// CodecMemory: the heap of one decoder of the codec library, which scripts/build-dependencies
// builds to allocate here. Why: the library uses the result of malloc without a check, so a small
// file that announces huge tables would crash the host. Here a failed request throws std::bad_alloc
// through the library instead. The decoder's state is then inconsistent and is never used again;
// its blocks are freed with this object. So does a request beyond what one decoder may hold. A
// library built otherwise has its own heap, without this protection.
#pragma once

#include <atomic>
#include <cstddef>

namespace marlinda {

// One thread at a time uses an owner; parts of a whole have threads of their own.
class CodecMemory {
 public:
  // What the blocks of a whole take at most, in bytes.
  static constexpr std::size_t kMaxBytes = std::size_t{128} << 20;

  // Until its end, blocks that the library allocates on this thread belong to `memory`. Blocks
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
  // A part of `whole`, which outlives it: their blocks are counted together.
  explicit CodecMemory(CodecMemory* whole) : whole_(whole) {}
  // Frees the blocks that the library has not freed: some of damaged files, all after an exception.
  ~CodecMemory();

  // Bytes of the blocks of a whole.
  std::size_t held() const noexcept { return whole_->held_; }

  // The library's malloc and realloc: `contents` may be null, and stay as they are when it throws.
  // A block that grows gets room to grow further: the library asks for a page more each time.
  static void* Resize(void* contents, std::size_t size);
  static void Free(void* contents) noexcept;

 private:
  // Stands before the contents. The blocks of one owner form a ring; a block without an owner is a
  // ring of one.
  struct Block {
    Block* previous = this;
    Block* next = this;
    CodecMemory* owner = nullptr;
    std::size_t size = sizeof(Block);  // with the contents and the room behind them
  };

  // False, and nothing taken, beyond the bound.
  bool Take(std::size_t bytes) noexcept;

  Block blocks_;
  CodecMemory* const whole_ = this;
  std::atomic<std::size_t> held_{0};
};

}  // namespace marlinda
