#include "import/codec_memory.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>

#include "core/thread_slot.h"

namespace marlinda {

CodecMemory::Use::Use(CodecMemory& memory) : outer_(ThreadSlot<CodecMemory>::Get()) {
  if (!ThreadSlot<CodecMemory>::Set(&memory)) throw std::bad_alloc();
}

CodecMemory::Use::~Use() { ThreadSlot<CodecMemory>::Set(outer_); }

CodecMemory::~CodecMemory() {
  for (Block* block = blocks_.next; block != &blocks_;) {
    Block* const next = block->next;
    whole_->held_ -= block->size;
    std::free(block);
    block = next;
  }
}

bool CodecMemory::Take(std::size_t bytes) noexcept {
  if (whole_->held_.fetch_add(bytes) + bytes <= kMaxBytes) return true;
  whole_->held_ -= bytes;
  return false;
}

void* CodecMemory::Resize(void* contents, std::size_t size) {
  // The contents follow the Block, whose size keeps them aligned as by malloc.
  static_assert(sizeof(Block) % (2 * sizeof(void*)) == 0);
  Block* const old = contents != nullptr ? static_cast<Block*>(contents) - 1 : nullptr;
  CodecMemory* const owner = old != nullptr ? old->owner : ThreadSlot<CodecMemory>::Get();
  const bool alone = old == nullptr || old->next == old;
  const std::size_t old_size = old != nullptr ? old->size : 0;
  const std::size_t most = owner != nullptr
                               ? kMaxBytes - std::min(owner->held(), kMaxBytes) + old_size
                               : std::numeric_limits<std::size_t>::max();
  if (size > most - std::min(most, sizeof(Block))) throw std::bad_alloc();
  std::size_t wanted = sizeof(Block) + size;
  if (wanted <= old_size) return contents;
  if (old != nullptr) wanted = std::max(wanted, std::min(most, old_size + old_size / 2));
  if (owner != nullptr && !owner->Take(wanted - old_size)) throw std::bad_alloc();
  auto* const block = static_cast<Block*>(std::realloc(old, wanted));
  if (block == nullptr) {
    if (owner != nullptr) owner->whole_->held_ -= wanted - old_size;
    throw std::bad_alloc();
  }
  if (alone) new (block) Block;
  block->owner = owner;
  block->size = wanted;
  if (old == nullptr && owner != nullptr) {
    block->previous = owner->blocks_.previous;
    block->next = &owner->blocks_;
  }
  block->previous->next = block;
  block->next->previous = block;
  return block + 1;
}

void CodecMemory::Free(void* contents) noexcept {
  if (contents == nullptr) return;
  Block* const block = static_cast<Block*>(contents) - 1;
  if (block->owner != nullptr) block->owner->whole_->held_ -= block->size;
  block->previous->next = block->next;
  block->next->previous = block->previous;
  std::free(block);
}

}  // namespace marlinda

// scripts/build-dependencies makes the codec library call these functions instead of malloc,
// calloc, realloc and free.
extern "C" {

void* marlinda_codec_malloc(std::size_t size) {
  return marlinda::CodecMemory::Resize(nullptr, size);
}

void* marlinda_codec_calloc(std::size_t count, std::size_t size) {
  constexpr std::size_t kTooMuch = std::numeric_limits<std::size_t>::max();
  const std::size_t all = size != 0 && count > kTooMuch / size ? kTooMuch : count * size;
  return std::memset(marlinda::CodecMemory::Resize(nullptr, all), 0, all);
}

void* marlinda_codec_realloc(void* contents, std::size_t size) {
  return marlinda::CodecMemory::Resize(contents, size);
}

void marlinda_codec_free(void* contents) { marlinda::CodecMemory::Free(contents); }
}
