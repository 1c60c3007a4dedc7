// The memory of one decoder of the codec library. The library is written in C and does not look
// whether it gets what it asks for, so scripts/build-dependencies builds it to ask here. A request
// that cannot be met throws std::bad_alloc through the library, which leaves the decoder's state
// half made: nobody may touch that again, and what the decoder still held is freed here.
//
// With a library that was built otherwise nothing of this comes into play.
#pragma once

#include <cstddef>

namespace marlinda {

class CodecMemory {
 public:
  // While it lives, what the library asks for on this thread belongs to `memory`; without one, to
  // nobody but the library. Throws std::bad_alloc when the system cannot take note of it.
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
  CodecMemory(const CodecMemory&) = delete;
  CodecMemory& operator=(const CodecMemory&) = delete;
  // Frees what the library has not freed: what it loses of damaged files, and all of it after an
  // exception.
  ~CodecMemory();

  // The library's malloc and realloc: `contents` may be null, and stay as they are when it throws.
  static void* Resize(void* contents, std::size_t size);
  static void Free(void* contents) noexcept;

 private:
  // In front of each block; those of one decoder form a ring, and what is nobody's is alone.
  struct Block {
    Block* previous = this;
    Block* next = this;
  };

  Block blocks_;
};

}  // namespace marlinda
