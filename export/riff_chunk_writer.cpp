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
  open_chunks_.clear();
  if (sink_) SeekTo(0);
}

void RiffChunkWriter::Write(std::span<const std::byte> bytes) noexcept {
  DropFailure(sink_ != nullptr && sink_->Write(bytes));
}

void RiffChunkWriter::SeekTo(std::uint64_t position) noexcept {
  DropFailure(sink_ != nullptr && sink_->Seek(position));
}

void RiffChunkWriter::BeginChunk(FourCC id) {
  const bool has_header = sink_ && sink_->Write(LittleEndianBytes().Id(id).U32(0).bytes());
  open_chunks_.push_back({sink_ ? sink_->Position() : 0, has_header});
}

void RiffChunkWriter::EndChunk() {
  if (open_chunks_.empty()) throw std::logic_error("no chunk is open");
  EndInnermost();
}

void RiffChunkWriter::EndInnermost() noexcept {
  const auto [start, has_header] = open_chunks_.back();
  open_chunks_.pop_back();
  // On a full disk there may be no size field to fill in: what lies there is an earlier chunk's.
  if (!has_header) return;

  std::uint64_t size = sink_->Position() - start;
  const auto padding = static_cast<std::size_t>((4 - size % 4) % 4);
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
  while (!open_chunks_.empty()) EndInnermost();
  sink_.reset();
}

}  // namespace marlinda
