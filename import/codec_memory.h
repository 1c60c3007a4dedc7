// CodecMemory: the heap of one Vorbis decoder. scripts/build-dependencies builds the codec library
// (libogg and libvorbis) to allocate from CodecMemory. The library does not check the result of
// malloc, so a small file that announces huge tables would crash the host. If memory runs out or
// kMaxBytes is reached, CodecMemory throws std::bad_alloc through the library. The decoder is then
// inconsistent and must not be used again; ~CodecMemory frees the blocks. A library that was built
// without that script has its own heap and lacks this protection.
#pragma once

#include <atomic>
#include <cstddef>

namespace marlinda {

// A CodecMemory can be a part of another one, `whole`, and then shares its limit. Each part may be
// used on a thread of its own.
class CodecMemory {
 public:
  // Limit in bytes for the total of a CodecMemory and every CodecMemory that is a part of it.
  static constexpr std::size_t kMaxBytes = std::size_t{128} << 20;

  // While a Use exists, `memory` owns the blocks that the library allocates on this thread. Without
  // a Use, blocks have no owner. The constructor throws std::bad_alloc.
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
  // Shares the limit of `whole`, which must outlive this object.
  explicit CodecMemory(CodecMemory* whole) : whole_(whole) {}
  // Frees the blocks that the library has not freed. The library leaves some blocks after a damaged
  // file and all blocks after an exception.
  ~CodecMemory();

  // Bytes in all blocks that share this object's limit.
  std::size_t held() const noexcept { return whole_->held_; }

  // Acts as malloc if `contents` is null, otherwise as realloc. If Resize throws, the old block is
  // unchanged. A growing block gets spare room, because the library adds one Ogg page at a time.
  static void* Resize(void* contents, std::size_t size);
  static void Free(void* contents) noexcept;

 private:
  // A Block precedes the contents of each allocation. The blocks of one owner form a ring. A block
  // without an owner forms a ring of its own.
  struct Block {
    Block* previous = this;
    Block* next = this;
    CodecMemory* owner = nullptr;
    std::size_t size = sizeof(Block);  // bytes of the Block, contents and spare room
  };

  // Counts `bytes`. Returns false and counts nothing if the total would exceed the limit.
  bool Take(std::size_t bytes) noexcept;

  Block blocks_;
  CodecMemory* const whole_ = this;
  std::atomic<std::size_t> held_{0};
};

}  // namespace marlinda
