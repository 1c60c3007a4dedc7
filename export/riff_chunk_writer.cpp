#include "export/riff_chunk_writer.h"

#include <array>
#include <stdexcept>
#include <utility>

namespace marlinda {
namespace {

constexpr std::uint64_t kSizeFieldBytes = 4;

// The one place where failed writes and seeks are dropped: an export has no way to report them
// while it runs, and a file cut short but closed in order is worth more than none.
void DropFailure(bool /*succeeded*/) noexcept {}

}  // namespace

void RiffChunkWriter::Attach(std::unique_ptr<ByteSink> sink) {
  sink_ = std::move(sink);
  body_starts_.clear();
  if (sink_) SeekTo(0);
}

void RiffChunkWriter::Write(std::span<const std::byte> bytes) noexcept {
  DropFailure(sink_ != nullptr && sink_->Write(bytes));
}

void RiffChunkWriter::SeekTo(std::uint64_t position) noexcept {
  DropFailure(sink_ != nullptr && sink_->Seek(position));
}

void RiffChunkWriter::BeginChunk(FourCC id) {
  Write(LittleEndianBytes().Id(id).U32(0).bytes());
  body_starts_.push_back(sink_ ? sink_->Position() : 0);
}

void RiffChunkWriter::EndChunk() {
  if (body_starts_.empty()) throw std::logic_error("no chunk is open");
  EndInnermost();
}

void RiffChunkWriter::EndInnermost() noexcept {
  const std::uint64_t start = body_starts_.back();
  body_starts_.pop_back();
  if (!sink_) return;

  std::uint64_t size = sink_->Position() - start;
  const std::size_t padding = -size % 4;
  const std::array<std::byte, 4> zeros = {};
  Write(std::span(zeros).first(padding));
  size += padding;

  std::array<std::byte, kSizeFieldBytes> field;
  for (std::size_t i = 0; i < field.size(); ++i) field[i] = static_cast<std::byte>(size >> (8 * i));
  SeekTo(start - kSizeFieldBytes);
  Write(field);
  SeekTo(start + size);
}

void RiffChunkWriter::Close() noexcept {
  while (!body_starts_.empty()) EndInnermost();
  sink_.reset();
}

}  // namespace marlinda
