// VorbisWorkers: decodes a Vorbis stream's packets on several threads. Samples and blocks equal
// those of the codec library's reader (libvorbisfile). Only vorbis_stream uses this class.
#pragma once

// Omits the header's unused callback tables.
#define OV_EXCLUDE_STATIC_CALLBACKS

#include <vorbis/vorbisfile.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cfenv>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <mutex>
#include <new>
#include <span>
#include <system_error>
#include <thread>
#include <vector>

#include "import/codec_memory.h"
#include "import/vorbis_samples.h"

namespace marlinda {

inline constexpr std::size_t kMaxGroupSamples = std::size_t{1} << 18;
inline constexpr std::size_t kMaxGroupBytes = std::size_t{1} << 18;
inline constexpr std::size_t kMinGroupPackets = 8;
inline constexpr long kMaxPacketBytes = 1L << 16;
inline constexpr long kReadBytes = 1L << 14;
// Beyond this position the library's sums may overflow.
inline constexpr ogg_int64_t kMaxPosition = std::numeric_limits<ogg_int64_t>::max() / 2;
// Limit in bytes for the memory that the library's reader and all workers hold when the workers
// begin to decode. The rest of CodecMemory::kMaxBytes is enough to decode packets of
// kMaxPacketBytes, so workers never cause the reader to run out of memory.
inline constexpr std::size_t kMaxHeld = CodecMemory::kMaxBytes / 2;

// Maximum samples in a block, over all channels.
inline std::size_t MaxBlock(const vorbis_info& info) noexcept {
  return static_cast<std::size_t>(vorbis_info_blocksize(const_cast<vorbis_info*>(&info), 1)) / 2 *
         static_cast<std::size_t>(info.channels);
}

// Decodes packets on worker threads instead of in the library's reader. The reader still decodes
// unusual packets: the trimmed last packet, packets of the next link, damaged and huge packets.
// Each thread decodes groups of packets. Because blocks overlap, the thread also decodes the packet
// before each group.
class VorbisWorkers {
 public:
  static constexpr unsigned kMaxThreads = 8;

  // Workers do not trim samples, but the library may trim the first page. So the library's reader
  // must have decoded that page. The caller must also have read all samples decoded so far.
  static bool CanStart(OggVorbis_File& file) noexcept {
    return file.vd.granulepos >= 0 && file.vd.granulepos < kMaxPosition &&
           file.vb.opb.storage <= kMaxPacketBytes &&
           vorbis_synthesis_pcmout(&file.vd, nullptr) == 0;
  }

  // Call it right after the reader has decoded a packet. The reader and its `memory` must outlive
  // the workers. Returns null, without effect, if blocks are too large or resources run short.
  static std::unique_ptr<VorbisWorkers> Start(OggVorbis_File& file, CodecMemory& memory,
                                              unsigned threads) {
    const std::size_t packets = std::min(kGroupPackets, kMaxGroupSamples / MaxBlock(*file.vd.vi));
    if (packets < kMinGroupPackets) return nullptr;
    try {
      auto workers = std::make_unique<VorbisWorkers>(file, packets);
      workers->StartThreads(memory, std::min(threads, kMaxThreads));
      if (memory.held() <= kMaxHeld) return workers;
    } catch (const std::bad_alloc&) {
    } catch (const std::system_error&) {
    }
    return nullptr;
  }

  VorbisWorkers(OggVorbis_File& file, std::size_t packets_of_group)
      : file_(file),
        channels_(static_cast<std::size_t>(file.vd.vi->channels)),
        packets_of_group_(packets_of_group) {
    // The first group also needs the packet before it, which the reader decoded last. The reader's
    // block still refers to that packet.
    const oggpack_buffer& packet = file.vb.opb;
    latest_.assign(packet.buffer, packet.buffer + packet.storage);
  }
  // Cancels further decoding and waits for the packets being decoded.
  ~VorbisWorkers() {
    {
      const std::lock_guard lock(mutex_);
      cancelled_ = true;
    }
    filled_changed_.notify_all();
    for (const auto& decoder : decoders_) {
      if (decoder->thread.joinable()) decoder->thread.join();
    }
  }

  // Takes packets from the library's reader until all groups are full or an unusual packet comes.
  // If Fill throws std::bad_alloc, the reader is inconsistent.
  void Fill() {
    while (!ended_ && filled_ - read_ < groups_.size()) {
      Group& group = At(filled_);
      group.bytes = latest_;
      group.ends[0] = latest_.size();
      group.packets = 0;
      group.decoded = 0;
      group.done = false;
      while (group.packets < packets_of_group_ && group.bytes.size() < kMaxGroupBytes && !ended_) {
        ended_ = !TakePacket(group);
      }
      if (group.packets == 0) return;
      {
        const std::lock_guard lock(mutex_);
        ++filled_;
      }
      filled_changed_.notify_one();
    }
  }

  // Copies the next block, or as much as fits, and returns the number of samples copied. Returns 0
  // once all decoded blocks have been read. Throws std::bad_alloc if a decoder lacked memory.
  std::size_t Read(std::span<std::int16_t> buffer) {
    while (code_ == block_end_) {
      if (read_ == filled_) return 0;
      Group& group = At(read_);
      {
        std::unique_lock lock(mutex_);
        done_changed_.wait(lock, [&group] { return group.done; });
      }
      if (block_ < group.decoded) {
        block_end_ += group.blocks[block_++];
        break;
      }
      if (group.failed) throw std::bad_alloc();
      ++read_;
      block_ = code_ = block_end_ = 0;
    }
    const std::size_t room = buffer.size() / channels_ * channels_;
    const std::size_t samples = std::min(room, block_end_ - code_);
    std::copy_n(At(read_).codes.data() + code_, samples, buffer.data());
    code_ += samples;
    return samples;
  }

  // Call HandBack after the last Read. Returns false if a hole ends the stream. Otherwise the
  // library's reader can continue with the next packet. Throws as Fill does.
  bool HandBack() {
    if (hole_) return false;
    if (!pending_) return true;
    // Decodes the packet taken last, for its overlap with the next block, and discards its samples.
    vorbis_synthesis(&file_.vb, &latest_header_);
    vorbis_synthesis_blockin(&file_.vd, &file_.vb);
    vorbis_synthesis_read(&file_.vd, vorbis_synthesis_pcmout(&file_.vd, nullptr));
    return true;
  }

 private:
  static constexpr std::size_t kGroupPackets = 64;

  struct Group {
    // The packet before the group and the packets of the group, back to back.
    std::vector<unsigned char> bytes;
    std::array<std::size_t, kGroupPackets + 1> ends = {};
    std::size_t packets = 0;
    std::vector<std::int16_t> codes;
    std::array<std::size_t, kGroupPackets> blocks = {};  // samples in each block
    std::size_t decoded = 0;                             // number of blocks
    bool failed = false;
    bool done = false;  // guarded by mutex_
  };
  // Each thread has a Decoder. All Decoders share the stream's set-up, which no packet changes.
  struct Decoder {
    Decoder(CodecMemory& whole, vorbis_info* info) : memory(&whole) {
      const CodecMemory::Use use(memory);
      if (vorbis_synthesis_init(&state, info) != 0) throw std::bad_alloc();
      vorbis_block_init(&state, &block);
    }
    // Needed only for a library built without CodecMemory. Otherwise, ~CodecMemory frees the
    // memory. After a failure, `state` must not be used.
    ~Decoder() {
      if (failed) return;
      try {
        vorbis_block_clear(&block);
        vorbis_dsp_clear(&state);
      } catch (const std::bad_alloc&) {
      }
    }

    CodecMemory memory;
    vorbis_dsp_state state = {};
    vorbis_block block = {};
    bool failed = false;
    std::thread thread;
  };

  void StartThreads(CodecMemory& memory, unsigned threads) {
    std::fegetenv(&environment_);
    groups_.resize(threads + 2);
    for (Group& group : groups_) {
      group.codes.resize(packets_of_group_ * MaxBlock(*file_.vd.vi));
    }
    decoders_.reserve(threads);
    for (unsigned i = 0; i < threads; ++i) {
      decoders_.push_back(std::make_unique<Decoder>(memory, file_.vd.vi));
    }
    for (const auto& decoder : decoders_) {
      decoder->thread = std::thread([this, &decoder = *decoder] { Work(decoder); });
    }
  }
  // Returns false at the first packet that the library's reader must decode.
  bool TakePacket(Group& group) {
    ogg_packet packet = {};
    int found = 0;
    while ((found = ogg_stream_packetpeek(&file_.os, &packet)) == 0) {
      if (!TakePage()) return false;
    }
    // The library reports a hole only once.
    hole_ = found < 0;
    if (hole_ || !IsOrdinary(packet)) return false;
    if (pending_) {
      // Advances the reader's position without decoding.
      vorbis_synthesis_trackonly(&file_.vb, &latest_header_);
      vorbis_synthesis_blockin(&file_.vd, &file_.vb);
    }
    latest_.assign(packet.packet, packet.packet + packet.bytes);
    latest_header_ = packet;
    latest_header_.packet = latest_.data();
    pending_ = true;
    group.bytes.insert(group.bytes.end(), latest_.begin(), latest_.end());
    group.ends[++group.packets] = group.bytes.size();
    ogg_stream_packetout(&file_.os, nullptr);
    return true;
  }
  // Moves the reader to the next page, as the library does. Returns false at the end of the file,
  // before the next link, and within a packet that is too long.
  bool TakePage() {
    if (file_.os.body_fill - file_.os.body_returned > kMaxPacketBytes) return false;
    for (;;) {
      ogg_page page = {};
      const long size = ogg_sync_pageseek(&file_.oy, &page);
      if (size == 0) {
        char* const room = ogg_sync_buffer(&file_.oy, kReadBytes);
        const std::size_t read = file_.callbacks.read_func(room, 1, kReadBytes, file_.datasource);
        if (read == 0) return false;
        ogg_sync_wrote(&file_.oy, static_cast<long>(read));
      } else if (size < 0) {
        file_.offset -= size;  // bytes between pages
      } else if (ogg_page_serialno(&page) == file_.current_serialno) {
        file_.offset += size;
        ogg_stream_pagein(&file_.os, &page);
        return true;
      } else if (ogg_page_bos(&page) != 0) {
        // Leaves the page for the library to find.
        file_.oy.returned -= static_cast<int>(size);
        return false;
      } else {
        file_.offset += size;  // page of another stream
      }
    }
  }
  // True if the packet's size and position are within the limits and it yields a whole block.
  bool IsOrdinary(ogg_packet& packet) {
    return packet.bytes <= kMaxPacketBytes && packet.e_o_s == 0 && packet.granulepos >= -1 &&
           packet.granulepos < kMaxPosition && vorbis_synthesis_trackonly(&file_.vb, &packet) == 0;
  }
  void Work(Decoder& decoder) noexcept {
    std::fesetenv(&environment_);
    std::unique_lock lock(mutex_);
    while (!decoder.failed) {
      filled_changed_.wait(lock, [this] { return cancelled_ || started_ < filled_; });
      if (cancelled_) return;
      Group& group = At(started_++);
      lock.unlock();
      try {
        Decode(decoder, group);
      } catch (const std::bad_alloc&) {
        decoder.failed = true;
      }
      lock.lock();
      group.failed = decoder.failed;
      group.done = true;
      done_changed_.notify_one();
    }
  }
  void Decode(Decoder& decoder, Group& group) const {
    const CodecMemory::Use use(decoder.memory);
    vorbis_synthesis_restart(&decoder.state);
    std::int16_t* codes = group.codes.data();
    std::size_t begin = 0;
    for (std::size_t i = 0; i <= group.packets && !cancelled_; begin = group.ends[i++]) {
      ogg_packet packet = {};
      packet.packet = group.bytes.data() + begin;
      packet.bytes = static_cast<long>(group.ends[i] - begin);
      packet.granulepos = -1;  // so that nothing is trimmed
      packet.packetno = static_cast<ogg_int64_t>(i);
      vorbis_synthesis(&decoder.block, &packet);
      vorbis_synthesis_blockin(&decoder.state, &decoder.block);
      if (i == 0) continue;
      float** planes = nullptr;
      const int frames = vorbis_synthesis_pcmout(&decoder.state, &planes);
      PackVorbisFrames(planes, channels_, static_cast<std::size_t>(frames), codes);
      vorbis_synthesis_read(&decoder.state, frames);
      group.blocks[group.decoded++] = static_cast<std::size_t>(frames) * channels_;
      codes += static_cast<std::size_t>(frames) * channels_;
    }
  }
  Group& At(std::size_t group) noexcept { return groups_[group % groups_.size()]; }

  OggVorbis_File& file_;
  const std::size_t channels_;
  const std::size_t packets_of_group_;

  // The packet taken last. While `pending_`, the library's reader has not advanced past it.
  std::vector<unsigned char> latest_;
  ogg_packet latest_header_ = {};
  bool pending_ = false;
  bool ended_ = false;
  bool hole_ = false;

  // A ring of groups. The counts satisfy read_ <= started_ <= filled_.
  std::vector<Group> groups_;
  std::size_t read_ = 0;
  std::size_t started_ = 0;  // guarded by mutex_
  std::size_t filled_ = 0;   // guarded by mutex_, except for reads on the filling thread
  // Position in the group being read.
  std::size_t block_ = 0;
  std::size_t code_ = 0;
  std::size_t block_end_ = 0;

  std::fenv_t environment_ = {};  // the reading thread's rounding mode
  std::atomic<bool> cancelled_{false};
  std::mutex mutex_;
  std::condition_variable filled_changed_;
  std::condition_variable done_changed_;
  std::vector<std::unique_ptr<Decoder>> decoders_;
};

}  // namespace marlinda
