// Decodes the packets of a Vorbis stream on several threads, into the blocks that the codec
// library's reader makes of them: the same samples in the same order. Only vorbis_stream uses it.
#pragma once

// Leaves out unused tables of callbacks.
#define OV_EXCLUDE_STATIC_CALLBACKS
#include <vorbis/vorbisfile.h>

#include <array>
#include <atomic>
#include <cfenv>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <span>
#include <vector>

#include "import/codec_memory.h"

namespace marlinda {

// Takes packets out of the library's reader and leaves unusual ones to it: the trimmed last packet,
// the next link of a chain, damaged and huge packets. Each thread decodes groups of packets, and
// before a group the packet in front of it, because blocks overlap.
class VorbisWorkers {
 public:
  static constexpr unsigned kMaxThreads = 8;

  // True when the library's reader has decoded the first page, whose begin is trimmed, and its
  // samples have been read.
  static bool CanStart(OggVorbis_File& file) noexcept;

  // To be called right after a packet was decoded. `memory` is the reader's; both outlive the
  // workers. Null, and the reader unchanged, where memory or threads are short.
  static std::unique_ptr<VorbisWorkers> Start(OggVorbis_File& file, CodecMemory& memory,
                                              unsigned threads);

  VorbisWorkers(OggVorbis_File& file, std::size_t packets_of_group);
  // Cancels and waits, for one packet at most.
  ~VorbisWorkers();

  // Takes packets, as many as there is room for. Calls the library's reader, so std::bad_alloc
  // leaves that inconsistent.
  void Fill();

  // Copies the next block, or as much of it as there is room for, and returns how many samples that
  // is. 0 when all packets taken are decoded. std::bad_alloc when a decoder got no memory.
  std::size_t Read(std::span<std::int16_t> buffer);

  // After the last Read. False at a hole, which ends what can be read. Otherwise the library's
  // reader is ready for the next packet. Throws as Fill does.
  bool HandBack();

 private:
  static constexpr std::size_t kGroupPackets = 64;

  struct Group {
    // Of the packets, back to back, that in front of the group included.
    std::vector<unsigned char> bytes;
    std::array<std::size_t, kGroupPackets + 1> ends = {};
    std::size_t packets = 0;
    std::vector<std::int16_t> codes;
    std::array<std::size_t, kGroupPackets> blocks = {};  // samples of each
    std::size_t decoded = 0;                             // blocks
    bool failed = false;
    bool done = false;  // guarded by the lock
  };
  struct Decoder;

  void StartThreads(CodecMemory& memory, unsigned threads);
  bool TakePacket(Group& group);
  bool TakePage();
  bool IsOrdinary(ogg_packet& packet);
  void Work(Decoder& decoder) noexcept;
  void Decode(Decoder& decoder, Group& group) const;
  Group& At(std::size_t group) noexcept { return groups_[group % groups_.size()]; }

  OggVorbis_File& file_;
  const std::size_t channels_;
  const std::size_t packets_of_group_;

  // The latest packet taken. While `pending_`, the library's reader does not count it yet.
  std::vector<unsigned char> latest_;
  ogg_packet latest_header_ = {};
  bool pending_ = false;
  bool ended_ = false;
  bool hole_ = false;

  // Used as a ring. Counts of groups follow: read <= started <= filled.
  std::vector<Group> groups_;
  std::size_t read_ = 0;
  std::size_t started_ = 0;  // guarded by the lock
  std::size_t filled_ = 0;   // guarded by the lock where the workers read it
  // In the group that is read.
  std::size_t block_ = 0;
  std::size_t code_ = 0;
  std::size_t block_end_ = 0;

  std::fenv_t environment_ = {};  // of the reading thread: how it rounds
  std::atomic<bool> cancelled_{false};
  std::mutex mutex_;
  std::condition_variable filled_changed_;
  std::condition_variable done_changed_;
  std::vector<std::unique_ptr<Decoder>> decoders_;
};

}  // namespace marlinda
